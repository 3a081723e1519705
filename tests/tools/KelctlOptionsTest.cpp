// kelctl's command line: help, the conventions of its options, and wrong command lines refused.
#include <sstream>

#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;

TEST_F(KelctlTest, EveryCommandHasHelp) {
    const Outcome general = succeeded(kelctl({"--help"}));
    std::istringstream commands(
        "list dump get add modify delete filter match refresh data-call emergency attach "
        "match-attach-id apply-classes apply-types carrier drop handles run shell monitor status");
    for (std::string command; commands >> command;) {
        SCOPED_TRACE(command);
        EXPECT_THAT(general.out, HasSubstr(command));
        const Outcome help = succeeded(kelctl({command, "--help"}));
        EXPECT_THAT(help.out, StartsWith("Usage: kelctl " + command));
        EXPECT_EQ(help.err, "");
    }
}

TEST_F(KelctlTest, AHelpOptionHoweverSpeltShowsHelpAndChangesNothing) {
    const Outcome abbreviated = succeeded(seeded({"delete", "3gpp:1", "--hel"}));
    EXPECT_THAT(abbreviated.out, StartsWith("Usage: kelctl delete"));
    const Outcome clustered = succeeded(seeded({"add", "-ph"}));
    EXPECT_THAT(clustered.out, StartsWith("Usage: kelctl add"));

    RunOptions input;
    input.input = "delete 3gpp:1 --he\nget 3gpp:1\n";
    const Outcome shell = succeeded(seeded({"shell"}, input));
    EXPECT_THAT(shell.out, StartsWith("Usage: kelctl delete"));
    EXPECT_THAT(shell.out, HasSubstr("profile 3gpp:1\n")) << "the profile is still there";
    EXPECT_THAT(seeded({"shell", "--vers"}).out, StartsWith("kelctl "));
}

// --- Bad command lines: a clear one-line error, and nothing reaches the modem ---

struct BadCase : Row {
    std::vector<std::string> args;
    std::string error;
};

const BadCase kBadCases[] = {
    {"UnknownCommand", {"lst"}, "kelctl: unknown command \"lst\" (did you mean \"list\"?"},
    {"FarFromAnyCommand", {"frobnicate"}, "unknown command \"frobnicate\" (kelctl --help"},
    {"DoubleDashEndsOptions", {"list", "--", "--json"}, "list: takes no operand (got \"--json\")"},
    {"AmbiguousOption", {"add", "--ma", "1"}, "option --ma is ambiguous: --max-conns"},
    {"FlagWithValue", {"list", "--json=yes"}, "kelctl: list: --json takes no value"},
    {"UnknownShortOption", {"list", "-x"}, "kelctl: list: unknown option -x"},
    {"MissingSeed", {"--seed", "/nonexistent/seed.conf", "list"}, "--seed /nonexistent/seed.conf"},
    {"StateInMissingDirectory",
     {"--state", "/nonexistent/dir/modem.state", "list"},
     "--state /nonexistent/dir/modem.state: cannot be written"},
    {"ApnLongerThanItsField",
     {"add", "--apn", std::string(151, 'a')},
     "--apn: 151 bytes, but the modem holds at most 150 (--truncate"},
    {"PasswordLongerThanItsField",
     {"data-call", "--password", std::string(128, 'p')},
     "--password: 128 bytes, but the modem holds at most 127"},
    {"NoCommand", {}, "kelctl: no command given"},
    {"UnknownGlobalOption", {"--bogus", "list"}, "kelctl: unknown option --bogus"},
    {"Tech", {"add", "--tech", "lte"}, "kelctl: add: --tech: \"lte\" is not one of 3gpp, 3gpp2"},
    {"Ip", {"add", "--ip", "v5"}, "kelctl: add: --ip: \"v5\" is not one of v4, v6, v4v6"},
    {"RoamIp", {"data-call", "--roam-ip", "ipv4"}, "--roam-ip: \"ipv4\" is not one of v4, v6"},
    {"Types",
     {"add", "--types", "default,web"},
     "--types: \"web\" is not an APN type; accepted: default, mms"},
    {"Auth", {"add", "--auth", "md5"}, "--auth: \"md5\" is not one of none, pap, chap, pap_chap"},
    {"Class",
     {"apply-classes", "--class", "voice"},
     "--class: \"voice\" is not one of ims, admn, inet, app"},
    {"Number",
     {"attach", "--max-conns", "many"},
     "--max-conns: \"many\" is not a number from 0 to 65535"},
    {"Subscription", {"--sub", "x", "list"}, "--sub: \"x\" is not a subscription number"},
    {"Timeout", {"--timeout", "-1", "list"}, "--timeout: \"-1\" is not a number of seconds"},
    {"TimeoutSigned", {"--timeout", "+5", "list"}, "--timeout: \"+5\" is not a number of seconds"},
    {"MissingValue", {"add", "--apn"}, "kelctl: add: --apn needs a value: NAME"},
    {"UnknownOption", {"list", "--colour"}, "kelctl: list: unknown option --colour"},
    {"OptionOfAnotherCommand",
     {"list", "--persistent"},
     "kelctl: list: this command does not take --persistent"},
    {"MissingProfile", {"get"}, "kelctl: get: needs PROFILE"},
    {"BadProfile", {"delete", "3gpp:x"}, "\"3gpp:x\" is not a profile"},
    {"ProfileStartingWithADigit", {"get", "9x"}, "kelctl: get: \"9x\" is not a profile"},
    {"HandleOutsideScript", {"get", "h1"}, "handle names exist only in scripts"},
    {"ModifyWithoutChange", {"modify", "1"}, "kelctl: modify: nothing to change"},
    {"ApplyTypesWithoutTypes", {"apply-types", "--apn", "ims"}, "needs --apn and --types"},
    {"ScriptOnly", {"drop", "h1"}, "kelctl: drop: only in scripts"},
    {"CarrierWithoutNetwork", {"carrier", "x.xml"}, "kelctl: carrier: needs --mcc and --mnc"},
    {"CarrierMcc",
     {"carrier", "x.xml", "--mcc", "1a", "--mnc", "01"},
     "--mcc: \"1a\" is not a mobile country code"},
    {"CarrierMnc",
     {"carrier", "x.xml", "--mcc", "001", "--mnc", "0001"},
     "--mnc: \"0001\" is not a mobile network code"},
    {"CarrierMvnoHalf",
     {"carrier", "x.xml", "--mcc", "001", "--mnc", "01", "--mvno-type", "spn"},
     "--mvno-type and --mvno-match go together"},
};

class KelctlBadOptionTest : public KelctlTest, public ::testing::WithParamInterface<BadCase> {};

// Under --json, however spelt, the refusal is also one document.
TEST_P(KelctlBadOptionTest, IsRefusedBeforeTheModemIsTouched) {
    for (const std::string jsonOption : {"", "-j", "--jso"}) {
        SCOPED_TRACE(jsonOption);
        const bool json = !jsonOption.empty();
        std::vector<std::string> args = {"--state", state};
        if (json) {
            args.push_back(jsonOption);
        }
        args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
        const Outcome outcome = seeded(args);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_THAT(outcome.err, HasSubstr(GetParam().error));
        EXPECT_EQ(countOf(outcome.err, "\n"), 1) << outcome.err;
        if (json) {
            EXPECT_EQ("kelctl: " + parsed(outcome.out).value("error", "") + "\n", outcome.err);
        } else {
            EXPECT_EQ(outcome.out, "");
        }
        // The embedded modem writes its state file when it starts: it never did.
        EXPECT_FALSE(exists(state));
    }
}

INSTANTIATE_TEST_SUITE_P(Options, KelctlBadOptionTest, ::testing::ValuesIn(kBadCases), RowName());

// --- Input files: a bounded regular file or nothing ---

// Where an input file goes on a command line; FILE stands for it.
const std::vector<std::vector<std::string>> kInputFileUses = {
    {"carrier", "FILE", "--mcc", "001", "--mnc", "01"},
    {"run", "FILE"},
    {"--seed", "FILE", "list"},
    {"--state", "FILE", "list"},
};

TEST_F(KelctlTest, InputFileThatIsNotARegularFileIsRefusedAtOnce) {
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0) << std::strerror(errno);
    const std::string directory = dir.file("directory");
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0) << std::strerror(errno);
    // Larger than the bound, without taking the room: a file with a hole.
    const std::string huge = script("huge.xml", "<apns/>");
    ASSERT_EQ(::truncate(huge.c_str(), 65ll * 1024 * 1024), 0);

    const std::pair<std::string, std::string> kFiles[] = {
        {"/dev/zero", "a device, not a regular file"},
        {fifo, "a FIFO, not a regular file"},
        {directory, "a directory, not a regular file"},
        {huge, "larger than 64 MiB"},
    };
    for (const auto& [path, reason] : kFiles) {
        for (auto args : kInputFileUses) {
            std::replace(args.begin(), args.end(), std::string("FILE"), path);
            SCOPED_TRACE(args.front() + " " + path);
            // A FIFO without a writer, or /dev/zero read to its end, would hang here; the
            // harness's bound on every child turns that into a failure.
            const Outcome outcome = kelctl(args);
            EXPECT_EQ(outcome.status, 2);
            EXPECT_EQ(outcome.out, "");
            EXPECT_THAT(outcome.err, HasSubstr(path + ": " + reason + "\n"));
            EXPECT_EQ(countOf(outcome.err, "\n"), 1) << outcome.err;
        }
    }
}

// --- Conventions of the command line ---

TEST_F(KelctlTest, VersionIsTheLibrarysAndNeedsNoModem) {
    for (const char* option : {"--version", "-V"}) {
        const Outcome outcome = succeeded(kelctl({"--seed", "/nonexistent", option}));
        EXPECT_EQ(outcome.out, "kelctl " KELR_VERSION " (libkelr " KELR_VERSION ")\n");
    }
    const Outcome json = kelctl({"--version", "--json"});
    EXPECT_EQ(parsed(json.out), nlohmann::json::parse(R"({"kelctl": ")" KELR_VERSION
                                                      R"(", "libkelr": ")" KELR_VERSION R"("})"));
}

TEST_F(KelctlTest, ShortFormsAbbreviationsAndOptionsAfterOperandsWork) {
    const Outcome outcome = succeeded(seeded({"get", "3", "-j", "--te", "3gpp"}));
    EXPECT_EQ(parsed(outcome.out).value("apn", ""), "mms.test");

    const Outcome added = succeeded(seeded({"-t", "30", "add", "-a", "short.test", "-p", "-j"}));
    EXPECT_EQ(parsed(added.out).value("added", ""), "3gpp:5");
    // -p made it persistent: no note about it going with kelctl.
    EXPECT_THAT(added.err, Not(HasSubstr("is not persistent")));
}

// A wrong command line exits with 2 (the refusals above); what the modem did or could not do
// decides between 0 and 1.
TEST_F(KelctlTest, ExitStatusSaysWhatHappened) {
    struct Case {
        std::vector<std::string> args;
        int status;
    };
    const Case cases[] = {
        {{"delete", "3gpp:9"}, 1},                // the modem has no such profile
        {{"get", "255"}, 1},                      // the highest id there can be
        {{"modify", "3gpp:9", "--apn", "x"}, 1},  // nor one to change
        {{"refresh", "--started"}, 0},            // allowed; later operations are refused
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args.front() + " " + c.args.back());
        const Outcome outcome = seeded(c.args);
        EXPECT_EQ(outcome.status, c.status) << outcome.err;
        EXPECT_EQ(outcome.err.empty(), c.status == 0) << outcome.err;
    }
}

TEST_F(KelctlTest, StateFileThatIsASymlinkIsRefusedBeforeTheModemStarts) {
    ASSERT_EQ(::symlink(seed.c_str(), state.c_str()), 0);
    const Outcome linked = seeded({"--state", state, "list"});
    EXPECT_EQ(linked.status, 2);
    EXPECT_THAT(linked.err, HasSubstr("not a regular file"));
}

// The modem counts bytes: a value of two-byte characters is cut at a character's start.
TEST_F(KelctlTest, TruncateCutsOverlongValuesToTheirFieldAndNeverSplitsACharacter) {
    const std::string apn = std::string(149, 'a') + "\xc3\xa9";  // 151 bytes, the last one é
    const Outcome outcome = succeeded(seeded({"add", "--apn", apn, "--user", std::string(200, 'u'),
                                              "--truncate", "--persistent", "--json"}));
    const nlohmann::json added = parsed(outcome.out);
    EXPECT_EQ(added["settings"].value("apn", ""), std::string(149, 'a'));
    EXPECT_EQ(added["settings"].value("user", ""), std::string(127, 'u'));
    EXPECT_THAT(outcome.err, HasSubstr("kelctl: note: --apn cut to its first 149 bytes (a "
                                       "character would have been split at 150)"));
    EXPECT_THAT(outcome.err, HasSubstr("kelctl: note: --user cut to its first 127 bytes\n"));
}

}  // namespace
