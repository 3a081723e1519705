// vex-modemd and vex-modemctl as processes: the command-line conventions they share with kelctl.
#include <cctype>
#include <cstring>
#include <set>

#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;

struct Convention : Row {
    const char* tool;
    std::vector<std::string> args;
    int status;
    // Status 0: what standard output starts with. Otherwise standard error is one line, the
    // tool's name and then this.
    std::string text;
};

const char* const kModemd = "vex-modemd";
const char* const kCtl = "vex-modemctl";

const Convention kConventions[] = {
    {"ModemdVersion", kModemd, {"--version"}, 0, "vex-modemd " KELR_VERSION "\n"},
    {"ModemdShortVersion", kModemd, {"-V"}, 0, "vex-modemd " KELR_VERSION "\n"},
    {"ModemdHelp", kModemd, {"--help"}, 0, "usage: vex-modemd [options]\n"},
    {"ModemdShortenedHelp", kModemd, {"--he"}, 0, "usage: vex-modemd"},
    {"ModemdMissingValue", kModemd, {"--seed"}, 2, "--seed needs a value"},
    {"ModemdUnknownOption", kModemd, {"--bogus"}, 2, "unknown or ambiguous option --bogus"},
    {"ModemdAmbiguousOption",
     kModemd,
     {"--capacity=3"},
     2,
     "unknown or ambiguous option --capacity"},
    {"ModemdBadValue", kModemd, {"--subscriptions=99"}, 2, "bad value for --subscriptions: 99"},
    {"ModemdOperand", kModemd, {"serve"}, 2, "takes no operands, not \"serve\""},
    {"ModemdOperandFirst", kModemd, {"serve", "--bogus"}, 2, "unknown or ambiguous option --bogus"},
    {"ModemdShortBadValue", kModemd, {"--subs=99"}, 2, "bad value for --subscriptions: 99"},
    {"CtlVersion", kCtl, {"--version"}, 0, "vex-modemctl " KELR_VERSION "\n"},
    {"CtlHelp", kCtl, {"-h"}, 0, "usage: vex-modemctl"},
    {"CtlNoCommand", kCtl, {"--dir", "/nonexistent"}, 2, "no command given"},
    {"CtlMissingValue", kCtl, {"--wait"}, 2, "--wait needs a value"},
    {"CtlUnknownOption", kCtl, {"--bogus", "status"}, 2, "unknown or ambiguous option --bogus"},
    {"CtlBadWait", kCtl, {"--wait=61", "status"}, 2, "--wait: \"61\" is not a number of seconds"},
};

class ToolConventionTest : public ::testing::TestWithParam<Convention> {};

TEST_P(ToolConventionTest, AnswersAsTheOthersDo) {
    const Convention& c = GetParam();
    RunOptions options;
    options.env.emplace("VEX_SERVICE_DIR", std::nullopt);
    const Outcome outcome = run(
        std::strcmp(c.tool, kModemd) == 0 ? VEX_MODEMD_PATH : VEX_MODEMCTL_PATH, c.args, options);
    EXPECT_EQ(outcome.status, c.status) << outcome.err;
    if (c.status == 0) {
        EXPECT_THAT(outcome.out, StartsWith(c.text));
        EXPECT_EQ(outcome.err, "");
    } else {
        EXPECT_EQ(outcome.out, "");
        EXPECT_THAT(outcome.err, StartsWith(std::string(c.tool) + ": " + c.text));
        EXPECT_EQ(countOf(outcome.err, "\n"), 1) << outcome.err;
    }
}

INSTANTIATE_TEST_SUITE_P(Tools, ToolConventionTest, ::testing::ValuesIn(kConventions), RowName());

// Every long option a tool's --help shows is in its man page, and the other way round.
TEST(ToolManPageTest, NamesEveryOptionTheToolTakes) {
    for (const auto& [tool, page] : std::vector<std::pair<std::string, std::string>>{
             {VEX_MODEMD_PATH, "vex-modemd.1.scd"}, {VEX_MODEMCTL_PATH, "vex-modemctl.1.scd"}}) {
        const std::string help = run(tool, {"--help"}).out;
        const std::string manual =
            testsupport::readFile(testsupport::sourceDir() + "/docs/man/" + page);
        // Every "--name" in the text.
        const auto optionsIn = [](const std::string& text) {
            std::set<std::string> found;
            for (std::size_t at = text.find("--"); at != std::string::npos;
                 at = text.find("--", at + 2)) {
                std::size_t end = at + 2;
                while (end < text.size() && (std::islower(static_cast<unsigned char>(text[end])) ||
                                             std::isdigit(static_cast<unsigned char>(text[end])) ||
                                             (text[end] == '-' && end > at + 2))) {
                    ++end;
                }
                if (end > at + 2) {
                    found.insert(text.substr(at, end - at));
                }
                at = end - 2;
            }
            return found;
        };
        const auto inHelp = optionsIn(help);
        EXPECT_FALSE(inHelp.empty()) << page;
        EXPECT_EQ(inHelp, optionsIn(manual)) << page;
    }
}

// A daemon that serves: a command it does not know is a wrong command line (2); one the modem
// refuses is not (1).
TEST_F(KelctlTest, ModemctlTellsAWrongCommandFromARefusedOne) {
    RunningModem modem(dir.path(), seed);
    const Outcome unknown = run(VEX_MODEMCTL_PATH, {"--dir", dir.path(), "no-such-command"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.err, "vex-modemctl: unknown command 'no-such-command'; try 'help'\n");
    const Outcome refused = run(VEX_MODEMCTL_PATH, {"--dir", dir.path(), "drop", "4242"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "vex-modemctl: no client 4242\n");
}

}  // namespace
