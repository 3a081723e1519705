// kelctl runs the library with every safe-mode switch on, and with --reference with all of them
// off: the same cases against vex-modemd in its own process, counted while kelctl is still
// connected (within one run or shell).
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;
using ::testing::HasSubstr;
using ::testing::Not;

// The count of the last "refreshed: N profiles" line.
int lastRefreshCount(const std::string& out) {
    const std::string marker = "refreshed: ";
    const std::size_t at = out.rfind(marker);
    return at == std::string::npos ? -1 : std::stoi(out.substr(at + marker.size()));
}

// kelctl shell with its standard input held open, so that another process can change the modem
// between two lines while kelctl stays connected and holds its handles. Every wait is bounded.
class OpenShell {
  public:
    explicit OpenShell(std::vector<std::string> args) {
        args.insert(args.begin(), KELCTL_PATH);
        args.push_back("shell");
        RunOptions options;
        options.env.emplace_back("VEX_SERVICE_DIR", std::nullopt);
        std::vector<std::string> env = environmentWith(options);
        std::vector<char*> argv = pointers(args);
        std::vector<char*> envp = pointers(env);
        int in[2];
        int out[2];
        int err[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 ||
            ::pipe2(err, O_CLOEXEC) != 0) {
            ADD_FAILURE() << "pipe: " << std::strerror(errno);
            return;
        }
        Fd inRead(in[0]), outWrite(out[1]), errWrite(err[1]);
        input = std::make_unique<Fd>(in[1]);
        output = std::make_unique<Fd>(out[0]);
        errors = std::make_unique<Fd>(err[0]);
        pid = ::fork();
        if (pid == 0) {
            ::dup2(inRead.get(), STDIN_FILENO);
            ::dup2(outWrite.get(), STDOUT_FILENO);
            ::dup2(errWrite.get(), STDERR_FILENO);
            ::execve(argv[0], argv.data(), envp.data());
            ::_exit(127);
        }
    }
    ~OpenShell() {
        if (pid > 0) {
            finish();
        }
    }

    void send(const std::string& line) {
        const std::string text = line + "\n";
        EXPECT_EQ(::write(input->get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }
    // Reads standard output until text shows after what earlier waits consumed; what came up to
    // and including it is returned, empty when it did not come within the limit.
    std::string waitFor(const std::string& text) {
        const auto deadline = std::chrono::steady_clock::now() + kChildLimit;
        std::size_t at;
        while ((at = pending.find(text)) == std::string::npos &&
               std::chrono::steady_clock::now() < deadline) {
            pollfd fd{output->get(), POLLIN, 0};
            if (::poll(&fd, 1, 1000) <= 0) {
                continue;
            }
            char chunk[4096];
            const ssize_t n = ::read(output->get(), chunk, sizeof(chunk));
            if (n <= 0) {
                break;
            }
            pending.append(chunk, static_cast<std::size_t>(n));
        }
        if (at == std::string::npos) {
            ADD_FAILURE() << "kelctl shell never printed \"" << text << "\" after: " << pending;
            return "";
        }
        std::string seen = pending.substr(0, at + text.size());
        pending.erase(0, at + text.size());
        return seen;
    }
    // Ends the input and collects the rest.
    Outcome finish() {
        input->reset();
        Outcome outcome = collect(pid, output->get(), errors->get(), kChildLimit);
        pid = -1;
        return outcome;
    }

  private:
    pid_t pid = -1;
    std::unique_ptr<Fd> input;
    std::unique_ptr<Fd> output;
    std::unique_ptr<Fd> errors;
    std::string pending;  // read, not yet waited for
};

// One run of kelctl: safe by default, or with --reference.
struct Mode {
    const char* name;
    bool reference;
};

class KelctlSafeModeTest : public KelctlTest, public ::testing::WithParamInterface<Mode> {
  protected:
    std::vector<std::string> args(std::vector<std::string> rest) const {
        std::vector<std::string> all = {"--modem", dir.path()};
        if (GetParam().reference) {
            all.push_back("--reference");
        }
        all.insert(all.end(), rest.begin(), rest.end());
        return all;
    }
};

TEST_P(KelctlSafeModeTest, RefreshesWithHeldHandlesLeaveNoOrphanOnTheModem) {
    RunningModem modem(dir.path(), seed);
    ASSERT_TRUE(modem.isServing());
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
    const Outcome outcome = kelctl(args({"run", script("cycles.kel", text)}));
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    const std::size_t first = outcome.out.find("refreshed: ");
    ASSERT_NE(first, std::string::npos) << outcome.out;
    const int seeded = std::stoi(outcome.out.substr(first + 11));
    EXPECT_EQ(lastRefreshCount(outcome.out), seeded + (GetParam().reference ? 5 : 0));
}

TEST_P(KelctlSafeModeTest, AProfileWhoseCreateGotNoAnswerIsReclaimed) {
    RunningModem modem(dir.path(), seed);
    ASSERT_TRUE(modem.isServing());
    modem.control(dir.path(), {"delay", "1500", "0x27"});
    RunOptions input;
    input.input = "add --apn late.test\nlist\nlist\n";
    const Outcome outcome = kelctl(args({"shell"}), input);
    // The add is reported as the modem ends up: made late, or made and reclaimed.
    EXPECT_EQ(outcome.status, GetParam().reference ? 0 : 1) << outcome.err;
    const std::size_t last = outcome.out.rfind("TOKEN");
    ASSERT_NE(last, std::string::npos) << outcome.out;
    if (GetParam().reference) {
        EXPECT_THAT(outcome.out.substr(last), HasSubstr("late.test"));
    } else {
        EXPECT_THAT(outcome.out.substr(last), Not(HasSubstr("late.test")));
    }
}

TEST_P(KelctlSafeModeTest, AModemAnsweringEveryReadLateIsWaitedForOnlyUpToTheBound) {
    RunningModem modem(dir.path(), seed);
    ASSERT_TRUE(modem.isServing());
    // Every read is answered after the library stopped waiting for it: in safe mode the first
    // refresh gives up after three of them, otherwise it waits for all five.
    modem.control(dir.path(), {"delay", "1100", "0x2b"});
    const Outcome outcome = kelctl(args({"--timeout", "30", "dump"}));
    // Whether given up or waited out, no read was answered: kelctl says the picture has holes.
    EXPECT_EQ(outcome.status, 1) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr("incomplete: the library could not read 3gpp:1"));
    const int timedOut = countOf(outcome.out, "Unable send VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01");
    if (GetParam().reference) {
        EXPECT_EQ(timedOut, 5) << outcome.out;
    } else {
        EXPECT_EQ(timedOut, 3) << outcome.out;
        EXPECT_THAT(outcome.out,
                    HasSubstr("VexWdsProxy: 3 reads in a row got no answer, the refresh reads no "
                              "more"));
    }
}

TEST_P(KelctlSafeModeTest, AForeignModifyThenTheLastReleaseLeavesNothing) {
    RunningModem modem(dir.path(), seed);
    ASSERT_TRUE(modem.isServing());
    OpenShell shell(args({}));
    shell.send("h = add --apn foreign.test");
    ASSERT_FALSE(shell.waitFor("h = 3gpp:").empty());
    const std::string rest = shell.waitFor("\n");
    const std::string id = rest.substr(0, rest.size() - 1);
    modem.control(dir.path(), {"modify", "3gpp", "index=" + id, "apn=renamed.test"});
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
    const std::string profiles = modem.control(dir.path(), {"profiles", "0"});
    if (GetParam().reference) {
        EXPECT_THAT(profiles, HasSubstr("renamed.test"));
    } else {
        EXPECT_THAT(profiles, Not(HasSubstr("renamed.test")));
    }
    const Outcome end = shell.finish();
    EXPECT_THAT(end.out, Not(HasSubstr("wake()")));
    EXPECT_THAT(end.err, Not(HasSubstr("Sanitizer")));
}

TEST_P(KelctlSafeModeTest, DumpShowsTheSwitchesInForce) {
    const Outcome outcome =
        seeded(GetParam().reference ? std::vector<std::string>{"--reference", "dump"}
                                    : std::vector<std::string>{"dump"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    if (GetParam().reference) {
        EXPECT_THAT(outcome.out, Not(HasSubstr("Options: ")));
    } else {
        EXPECT_THAT(outcome.out, HasSubstr("Options: Reclaim=true,EchoExpiryMs=10000,"));
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, KelctlSafeModeTest,
                         ::testing::Values(Mode{"Safe", false}, Mode{"Reference", true}),
                         [](const ::testing::TestParamInfo<Mode>& mode) {
                             return std::string(mode.param.name);
                         });

}  // namespace
