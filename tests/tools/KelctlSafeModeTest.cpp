// kelctl with every safe-mode switch on, and with --reference with all of them off, against
// vex-modemd, counted while kelctl is still connected.
#include <cstring>
#include <string>
#include <vector>

#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;

// One run of kelctl: safe by default, or with --reference.
struct Mode : Row {
    bool reference;
};

class KelctlSafeModeTest : public KelctlTest, public ::testing::WithParamInterface<Mode> {
  protected:
    std::vector<std::string> args(const std::vector<std::string>& rest) const {
        if (GetParam().reference) {
            return joined({"--modem", dir.path(), "--reference"}, rest);
        }
        return joined({"--modem", dir.path()}, rest);
    }

    RunningModem modem{dir.path(), seed};
};

TEST_P(KelctlSafeModeTest, RefreshesWithHeldHandlesLeaveNoOrphanOnTheModem) {
    // Without reclaim, a few cycles would fill the modem's table.
    const int cycles = GetParam().reference ? 1 : 15;
    std::string text = "refresh\n";
    for (int cycle = 0; cycle < cycles; ++cycle) {
        for (int i = 0; i < 5; ++i) {
            const std::string name = "h" + std::to_string(cycle) + "_" + std::to_string(i);
            text += name + " = add --apn " + name + ".cycle.test\n";
        }
        text += "refresh\n";
    }
    const Outcome outcome = succeeded(kelctl(args({"run", script("cycles.kel", text)})));
    // The first and the last "refreshed: N profiles" line.
    const std::size_t first = outcome.out.find("refreshed: ");
    ASSERT_NE(first, std::string::npos) << outcome.out;
    const std::size_t skip = std::strlen("refreshed: ");
    const int seeded = std::stoi(outcome.out.substr(first + skip));
    const int last = std::stoi(outcome.out.substr(outcome.out.rfind("refreshed: ") + skip));
    EXPECT_EQ(last, seeded + (GetParam().reference ? 5 : 0));
}

TEST_P(KelctlSafeModeTest, AProfileWhoseCreateGotNoAnswerIsReclaimed) {
    modem.control({"delay", "1500", "0x27"});
    RunOptions input;
    input.input = "add --apn late.test\nlist\nlist\n";
    const Outcome outcome = kelctl(args({"shell"}), input);
    // The add is reported as the modem ends up: made late, or made and reclaimed.
    EXPECT_EQ(outcome.status, GetParam().reference ? 0 : 1) << outcome.err;
    const std::size_t last = outcome.out.rfind("TOKEN");
    ASSERT_NE(last, std::string::npos) << outcome.out;
    EXPECT_EQ(outcome.out.find("late.test", last) != std::string::npos, GetParam().reference)
        << outcome.out;
}

TEST_P(KelctlSafeModeTest, AModemAnsweringEveryReadLateIsWaitedForOnlyUpToTheBound) {
    // Every read is answered after the library stopped waiting for it: in safe mode the first
    // refresh gives up after three of them, otherwise it waits for all five.
    modem.control({"delay", "1100", "0x2b"});
    const Outcome outcome = kelctl(args({"--timeout", "30", "dump"}));
    // Whether given up or waited out, no read was answered: kelctl says the picture has holes.
    EXPECT_EQ(outcome.status, 1) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr("incomplete: the library could not read 3gpp:1"));
    const int timedOut = countOf(outcome.out, "Unable send VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01");
    EXPECT_EQ(timedOut, GetParam().reference ? 5 : 3) << outcome.out;
    if (!GetParam().reference) {
        EXPECT_THAT(outcome.out,
                    HasSubstr("VexWdsProxy: 3 reads in a row got no answer, the refresh reads no "
                              "more"));
    }
}

TEST_P(KelctlSafeModeTest, AForeignModifyThenTheLastReleaseLeavesNothing) {
    // The shell stays connected, holding its handles, while another client changes the modem.
    LiveKelctl shell(args({"shell"}));
    shell.send("h = add --apn foreign.test");
    ASSERT_FALSE(shell.waitFor("h = 3gpp:").empty());
    const std::string rest = shell.waitFor("\n");
    const std::string id = rest.substr(0, rest.size() - 1);
    modem.control({"modify", "3gpp", "index=" + id, "apn=renamed.test"});
    // Read back until the library has taken the other client's change.
    bool seen = false;
    for (int attempt = 0; attempt < 50 && !seen; ++attempt) {
        shell.send("get 3gpp:" + id);
        const std::string shown = shell.waitFor("\nflags ");
        shell.waitFor("\n");
        seen = shown.find("apn renamed.test\n") != std::string::npos;
    }
    ASSERT_TRUE(seen);
    shell.send("drop h");
    shell.waitFor("dropped h");
    // Counted while kelctl is still connected.
    const std::string profiles = modem.control({"profiles", "0"});
    EXPECT_EQ(profiles.find("renamed.test") != std::string::npos, GetParam().reference) << profiles;
    shell.finish();
}

TEST_P(KelctlSafeModeTest, DumpShowsTheSwitchesInForce) {
    const Outcome outcome = succeeded(kelctl(args({"dump"})));
    if (GetParam().reference) {
        EXPECT_THAT(outcome.out, Not(HasSubstr("Options: ")));
    } else {
        EXPECT_THAT(outcome.out, HasSubstr("Options: Reclaim=true,EchoExpiryMs=10000,"));
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, KelctlSafeModeTest,
                         ::testing::Values(Mode{"Safe", false}, Mode{"Reference", true}),
                         RowName());

}  // namespace
