// vex-modemd and vex-modemctl as processes: the command-line conventions they share with kelctl.
// --help and --version on standard output with status 0; every wrong command line exits 2 with
// one line on standard error; the man pages name every option the tools take.
#include <cctype>
#include <fstream>
#include <set>
#include <sstream>

#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;
using ::testing::StartsWith;

struct Convention : Row {
    const char* tool;
    std::vector<std::string> args;
    int status;
    std::string out;  // standard output starts with this
    std::string err;  // standard error, when status is not 0: one line starting with this
};

const Convention kConventions[] = {
    {"ModemdVersion", VEX_MODEMD_PATH, {"--version"}, 0, "vex-modemd " KELR_VERSION "\n", ""},
    {"ModemdShortVersion", VEX_MODEMD_PATH, {"-V"}, 0, "vex-modemd " KELR_VERSION "\n", ""},
    {"ModemdHelp", VEX_MODEMD_PATH, {"--help"}, 0, "usage: vex-modemd [options]\n", ""},
    {"ModemdShortenedHelp", VEX_MODEMD_PATH, {"--he"}, 0, "usage: vex-modemd", ""},
    {"ModemdMissingValue", VEX_MODEMD_PATH, {"--seed"}, 2, "", "vex-modemd: --seed needs a value"},
    {"ModemdUnknownOption",
     VEX_MODEMD_PATH,
     {"--bogus"},
     2,
     "",
     "vex-modemd: unknown or ambiguous option --bogus"},
    {"ModemdAmbiguousOption",
     VEX_MODEMD_PATH,
     {"--capacity=3"},
     2,
     "",
     "vex-modemd: unknown or ambiguous option --capacity"},
    {"ModemdBadValue",
     VEX_MODEMD_PATH,
     {"--subscriptions=99"},
     2,
     "",
     "vex-modemd: bad value for --subscriptions: 99"},
    {"ModemdOperand",
     VEX_MODEMD_PATH,
     {"serve"},
     2,
     "",
     "vex-modemd: takes no operands, not \"serve\""},
    {"CtlVersion", VEX_MODEMCTL_PATH, {"--version"}, 0, "vex-modemctl " KELR_VERSION "\n", ""},
    {"CtlHelp", VEX_MODEMCTL_PATH, {"-h"}, 0, "usage: vex-modemctl", ""},
    {"CtlNoCommand",
     VEX_MODEMCTL_PATH,
     {"--dir", "/nonexistent"},
     2,
     "",
     "vex-modemctl: no command given"},
    {"CtlMissingValue", VEX_MODEMCTL_PATH, {"--wait"}, 2, "", "vex-modemctl: --wait needs a value"},
    {"CtlUnknownOption",
     VEX_MODEMCTL_PATH,
     {"--bogus", "status"},
     2,
     "",
     "vex-modemctl: unknown or ambiguous option --bogus"},
    {"CtlBadWait",
     VEX_MODEMCTL_PATH,
     {"--wait=61", "status"},
     2,
     "",
     "vex-modemctl: --wait: \"61\" is not a number of seconds"},
};

class ToolConventionTest : public ::testing::TestWithParam<Convention> {};

TEST_P(ToolConventionTest, AnswersAsTheOthersDo) {
    const Convention& c = GetParam();
    RunOptions options;
    options.env.emplace("VEX_SERVICE_DIR", std::nullopt);
    const Outcome outcome = run(c.tool, c.args, options);
    EXPECT_EQ(outcome.status, c.status) << outcome.err;
    EXPECT_THAT(outcome.out, StartsWith(c.out));
    if (c.status == 0) {
        EXPECT_EQ(outcome.err, "");
    } else {
        EXPECT_EQ(outcome.out, "");
        EXPECT_THAT(outcome.err, StartsWith(c.err));
        EXPECT_EQ(countOf(outcome.err, "\n"), 1) << outcome.err;
    }
}

INSTANTIATE_TEST_SUITE_P(Tools, ToolConventionTest, ::testing::ValuesIn(kConventions), RowName());

// Every long option a tool's --help shows is in its man page, and the other way round.
TEST(ToolManPageTest, NamesEveryOptionTheToolTakes) {
    for (const auto& [tool, page] : std::vector<std::pair<std::string, std::string>>{
             {VEX_MODEMD_PATH, "vex-modemd.1.scd"}, {VEX_MODEMCTL_PATH, "vex-modemctl.1.scd"}}) {
        const std::string help = run(tool, {"--help"}).out;
        std::ifstream file(testsupport::sourceDir() + "/docs/man/" + page);
        std::stringstream manual;
        manual << file.rdbuf();
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
        EXPECT_EQ(inHelp, optionsIn(manual.str())) << page;
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
