// kelctl run as a user runs it: a real process with real arguments, its standard output, standard
// error and exit status read back, against its embedded modem and against a running vex-modemd.
#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

TEST_F(KelctlTest, ListShowsTheSubscriptionsProfilesAsTableAndJson) {
    const Outcome table = seeded({"list"});
    EXPECT_EQ(table.status, 0) << table.err;
    EXPECT_EQ(table.err, "");
    EXPECT_THAT(table.out, StartsWith("TOKEN  TECH   ID  NAME      APN"));
    EXPECT_EQ(countOf(table.out, "\n"), 6);  // the header and five profiles of subscription 0
    EXPECT_THAT(table.out,
                HasSubstr("3gpp   1   internet  internet   v4v6  v4       default,supl"));
    EXPECT_THAT(table.out, HasSubstr("3gpp   4   sos       sos        v4v6  -        emergency"));
    EXPECT_THAT(table.out, HasSubstr("3gpp2  1   -         cdma.test"));

    const Outcome json = seeded({"list", "--json"});
    EXPECT_EQ(json.status, 0) << json.err;
    const nlohmann::json profiles = parsed(json.out);
    ASSERT_TRUE(profiles.is_array());
    ASSERT_EQ(profiles.size(), 5u);
    EXPECT_EQ(profiles[2], nlohmann::json::parse(R"({"token": 2, "tech": "3gpp", "id": 3,
        "name": "mms", "apn": "mms.test", "ip": "v4", "types": ["mms"], "types_mask": 2,
        "auth": "pap", "user": "mms", "password": "<hidden>", "kel": false, "ia": false})"));

    const Outcome second = seeded({"--sub", "1", "list"});
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_THAT(second.out, HasSubstr("other.test"));
    EXPECT_THAT(second.out, Not(HasSubstr("internet")));
}

TEST_F(KelctlTest, WorksWithNothingButItsDefaults) {
    const Outcome outcome = kelctl({"list"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(outcome.out, StartsWith("TOKEN"));
    EXPECT_GT(countOf(outcome.out, "\n"), 1);
}

TEST_F(KelctlTest, VerboseSendsTheLibraryLogToStandardErrorOnly) {
    const Outcome outcome = seeded({"--verbose", "list", "--json"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr("Manager::filter"));
    EXPECT_THAT(outcome.out, StartsWith("["));
    EXPECT_THAT(outcome.out, Not(HasSubstr("Manager::")));
}

// ---------------------------------------------------------------------------------------------
// Every command, against the embedded modem and against a running vex-modemd

struct CommandCase {
    const char* name;
    std::vector<std::string> args;
    std::string expected;  // in standard output
    std::string absent;    // not in standard output, when set
};

const CommandCase kCommandCases[] = {
    {"Get", {"get", "3gpp:3"}, "apn mms.test\nip v4\ntypes mms\nauth pap\nuser mms\n", ""},
    {"GetJson", {"get", "2", "--json"}, "\"class\": \"ims\"", ""},
    {"AddPersistent",
     {"add", "--apn", "new.test", "--ip", "v4", "--types", "default,mms", "--persistent"},
     "added 3gpp:5 name=kel_profile apn=new.test ip=v4 types=default,mms flags=kel\n",
     ""},
    {"ModifyTypes",
     {"modify", "3gpp:1", "--types", "default,supl,mms"},
     "modified 3gpp:1: types: default,supl -> default,mms,supl\n",
     ""},
    {"ModifyToWhatItHas", {"modify", "1", "--apn", "INTERNET"}, "unchanged 3gpp:1", ""},
    {"Delete", {"delete", "3gpp:3"}, "deleted 3gpp:3\n", ""},
    {"FilterByTypes", {"filter", "--types", "emergency"}, "sos", "internet"},
    {"FilterExactly", {"filter", "--apn", "internet", "--ip", "v4"}, "TOKEN", "internet"},
    {"FilterLoosely",
     {"filter", "--apn", "internet", "--ip", "v4", "--criteria", "home-subset"},
     "internet",
     "ims"},
    {"FilterByTech", {"filter", "--tech", "3gpp2"}, "cdma.test", "internet"},
    {"Match", {"match", "3gpp:1", "--apn", "Internet"}, "match\n", "no match"},
    {"NoMatch", {"match", "3gpp:1", "--apn", "ims"}, "no match\n", ""},
    {"Refresh", {"refresh"}, "refreshed: 5 profiles\n", ""},
    {"RefreshStarted", {"refresh", "--started"}, "refresh started", ""},
    {"DataCallFindsBySubsetIp",
     {"data-call", "--apn", "internet", "--ip", "v4"},
     "found 3gpp:1",
     ""},
    {"DataCallUpdatesWhenAllowed",
     {"data-call", "--apn", "internet", "--ip", "v4", "--allow-update"},
     "updated 3gpp:1",
     ""},
    {"DataCallCreates",
     {"data-call", "--apn", "fresh.test", "--ip", "v6"},
     "created 3gpp:5 name=kel_profile apn=fresh.test ip=v6 flags=kel\n",
     ""},
    {"Emergency", {"emergency"}, "found 3gpp:4 name=sos", ""},
    {"AttachCreates", {"attach", "--apn", "lte.test"}, "created 3gpp:5 name=kel_profile_ia", ""},
    {"MatchAttachId", {"match-attach-id", "1", "--apn", "internet"}, "match\n", "no match"},
    {"MatchAttachIdOfMissingProfile", {"match-attach-id", "9"}, "no match\n", ""},
    {"ApplyClassesCreates",
     {"apply-classes", "--class", "app", "--apn", "app.test"},
     "created 3gpp:5 name=kel_profile apn=app.test",
     ""},
    {"ApplyTypes",
     {"apply-types", "--apn", "ims", "--types", "ims,xcap", "--and", "--apn", "IMS", "--ip", "v6",
      "--types", "mcx"},
     "updated 3gpp:2: types: ims -> ims,mcx,xcap\n",
     ""},
    {"Dump", {"dump"}, "\nLogs:\n", ""},
};

void PrintTo(const CommandCase& command, std::ostream* os) {
    *os << command.name;
}

enum class ModemKind { Embedded, Running };

class KelctlCommandTest : public KelctlTest,
                          public ::testing::WithParamInterface<std::tuple<ModemKind, CommandCase>> {
  protected:
    // The case's command, after options, against the modem of the case's kind.
    Outcome runCase(const std::vector<std::string>& options = {}) {
        const auto& [kind, command] = GetParam();
        std::unique_ptr<RunningModem> modem;
        std::vector<std::string> args = options;
        args.insert(args.end(), command.args.begin(), command.args.end());
        if (kind == ModemKind::Running) {
            modem = std::make_unique<RunningModem>(dir.path(), seed);
            EXPECT_TRUE(modem->isServing());
            args.insert(args.begin(), {"--modem", dir.path()});
        } else {
            args.insert(args.begin(), {"--seed", seed});
        }
        return kelctl(args);
    }
};

TEST_P(KelctlCommandTest, RunsAndPrintsItsResult) {
    const CommandCase& command = std::get<1>(GetParam());
    const Outcome outcome = runCase();
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr(command.expected));
    if (!command.absent.empty()) {
        EXPECT_THAT(outcome.out, Not(HasSubstr(command.absent)));
    }
    EXPECT_THAT(outcome.err, Not(HasSubstr("kelctl: " + command.args.front() + ":")));
}

// The same command with --json: exactly one document on standard output, whatever it did.
TEST_P(KelctlCommandTest, PrintsOneJsonDocument) {
    const Outcome outcome = runCase({"-j"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    const nlohmann::json document = parsed(outcome.out);
    EXPECT_TRUE(document.is_object() || document.is_array()) << outcome.out;
    EXPECT_FALSE(document.contains("error")) << outcome.out;
}

INSTANTIATE_TEST_SUITE_P(Commands, KelctlCommandTest,
                         ::testing::Combine(::testing::Values(ModemKind::Embedded,
                                                              ModemKind::Running),
                                            ::testing::ValuesIn(kCommandCases)),
                         [](const auto& testCase) {
                             return std::string(std::get<0>(testCase.param) == ModemKind::Embedded
                                                    ? "Embedded"
                                                    : "Running") +
                                    std::get<1>(testCase.param).name;
                         });

TEST_F(KelctlTest, EveryCommandHasHelp) {
    const Outcome general = kelctl({"--help"});
    EXPECT_EQ(general.status, 0);
    for (const char* command : {"list",
                                "dump",
                                "get",
                                "add",
                                "modify",
                                "delete",
                                "filter",
                                "match",
                                "refresh",
                                "data-call",
                                "emergency",
                                "attach",
                                "match-attach-id",
                                "apply-classes",
                                "apply-types",
                                "carrier",
                                "drop",
                                "handles",
                                "run",
                                "shell"}) {
        SCOPED_TRACE(command);
        EXPECT_THAT(general.out, HasSubstr(command));
        const Outcome help = kelctl({command, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_THAT(help.out, StartsWith(std::string("Usage: kelctl ") + command));
        EXPECT_EQ(help.err, "");
    }
}

TEST_F(KelctlTest, AHelpOptionHoweverSpeltShowsHelpAndChangesNothing) {
    const Outcome abbreviated = seeded({"delete", "3gpp:1", "--hel"});
    EXPECT_EQ(abbreviated.status, 0) << abbreviated.err;
    EXPECT_THAT(abbreviated.out, StartsWith("Usage: kelctl delete"));
    const Outcome clustered = seeded({"add", "-ph"});
    EXPECT_EQ(clustered.status, 0) << clustered.err;
    EXPECT_THAT(clustered.out, StartsWith("Usage: kelctl add"));

    RunOptions input;
    input.input = "delete 3gpp:1 --he\nget 3gpp:1\n";
    const Outcome shell = seeded({"shell"}, input);
    EXPECT_EQ(shell.status, 0) << shell.err;
    EXPECT_THAT(shell.out, StartsWith("Usage: kelctl delete"));
    EXPECT_THAT(shell.out, HasSubstr("profile 3gpp:1\n")) << "the profile is still there";
    EXPECT_THAT(seeded({"shell", "--vers"}).out, StartsWith("kelctl "));
}

// ---------------------------------------------------------------------------------------------
// Bad command lines: a clear one-line error, and nothing reaches the modem

struct BadCase {
    const char* name;
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
    {"UserLongerThanItsField",
     {"add", "--user", std::string(200, 'u')},
     "--user: 200 bytes, but the modem holds at most 127"},
    {"PasswordLongerThanItsField",
     {"data-call", "--password", std::string(128, 'p')},
     "--password: 128 bytes, but the modem holds at most 127"},
    {"NoCommand", {}, "kelctl: no command given"},
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
    {"MissingValue", {"add", "--apn"}, "kelctl: add: --apn needs a value: NAME"},
    {"UnknownOption", {"list", "--colour"}, "kelctl: list: unknown option --colour"},
    {"OptionOfAnotherCommand",
     {"list", "--persistent"},
     "kelctl: list: this command does not take --persistent"},
    {"MissingProfile", {"get"}, "kelctl: get: needs PROFILE"},
    {"BadProfile", {"delete", "3gpp:x"}, "\"3gpp:x\" is not a profile"},
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

void PrintTo(const BadCase& bad, std::ostream* os) {
    *os << bad.name;
}

class KelctlBadOptionTest : public KelctlTest, public ::testing::WithParamInterface<BadCase> {};

TEST_P(KelctlBadOptionTest, IsRefusedBeforeTheModemIsTouched) {
    std::vector<std::string> args = {"--state", state};
    args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
    const Outcome outcome = seeded(args);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, HasSubstr(GetParam().error));
    EXPECT_EQ(countOf(outcome.err, "\n"), 1) << outcome.err;
    // The embedded modem writes its state file when it starts: it never did.
    EXPECT_FALSE(exists(state));
}

INSTANTIATE_TEST_SUITE_P(Options, KelctlBadOptionTest, ::testing::ValuesIn(kBadCases),
                         [](const auto& testCase) { return std::string(testCase.param.name); });

// ---------------------------------------------------------------------------------------------
// What lasts: the modem's state across runs, and profiles across a handle's life

TEST_F(KelctlTest, ChangesLastAcrossRunsWithAStateFile) {
    const Outcome deleted = seeded({"--state", state, "delete", "3gpp:3"});
    ASSERT_EQ(deleted.status, 0) << deleted.err;
    EXPECT_THAT(deleted.err, Not(HasSubstr("starts from its seed")));
    const Outcome modified = seeded({"--state", state, "modify", "2", "--types", "ims,xcap"});
    ASSERT_EQ(modified.status, 0) << modified.err;

    const Outcome listed = seeded({"--state", state, "list"});
    EXPECT_THAT(listed.out, Not(HasSubstr("mms.test")));
    EXPECT_THAT(listed.out, HasSubstr("ims,xcap"));

    const Outcome fresh = seeded({"delete", "3gpp:3"});
    EXPECT_THAT(fresh.err, HasSubstr("note: the embedded modem starts from its seed on every run"));
}

TEST_F(KelctlTest, NonPersistentProfileGoesWhenKelctlExitsPersistentOneStays) {
    RunningModem modem(dir.path(), seed);
    ASSERT_TRUE(modem.isServing());

    const Outcome temporary = kelctl({"--modem", dir.path(), "add", "--apn", "temporary.test"});
    EXPECT_EQ(temporary.status, 0) << temporary.err;
    EXPECT_THAT(temporary.out, HasSubstr("added 3gpp:5"));
    EXPECT_THAT(temporary.err, HasSubstr("is not persistent: the library deletes it when kelctl "
                                         "exits"));
    const Outcome kept =
        kelctl({"--modem", dir.path(), "add", "--apn", "kept.test", "--persistent"});
    EXPECT_EQ(kept.status, 0) << kept.err;
    EXPECT_EQ(kept.err, "");

    const std::string profiles = modem.control(dir.path(), {"profiles", "0"});
    EXPECT_THAT(profiles, Not(HasSubstr("temporary.test")));
    EXPECT_THAT(profiles, HasSubstr("kept.test"));
}

TEST_F(KelctlTest, SaysSoWhenNoModemAnswers) {
    const Outcome outcome = kelctl({"--modem", dir.path(), "--timeout", "0.3", "list"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "kelctl: no modem answered in " + dir.path() +
                               " within 0.3 s (is vex-modemd running there?)\n");

    const Outcome missing = kelctl({"--modem", dir.file("nowhere"), "list"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, HasSubstr("no such directory"));
}

// A library the modem would not bind or register acts on nothing: after a failed bind it would
// reach the modem's default subscription instead of the chosen one.
TEST_F(KelctlTest, ActsOnNothingWhenTheModemRefusesTheSubscriptionOrTheRegistration) {
    const Outcome embedded = seeded({"--sub", "2", "add", "--apn", "stray.example"});
    EXPECT_EQ(embedded.status, 1);
    EXPECT_EQ(embedded.out, "");
    EXPECT_EQ(embedded.err,
              "kelctl: subscription 2: the modem has no such subscription (it has 2); nothing was "
              "done\n");

    RunningModem modem(dir.path(), seed);
    ASSERT_TRUE(modem.isServing());
    const Outcome unbound =
        kelctl({"--modem", dir.path(), "--sub", "7", "add", "--apn", "stray.example"});
    EXPECT_EQ(unbound.status, 1);
    EXPECT_THAT(unbound.err, HasSubstr("kelctl: subscription 7: the modem refused to bind"));

    ASSERT_EQ(modem.control(dir.path(), {"fail-next", "1", "0x3"}).empty(), false);
    const Outcome deaf =
        kelctl({"--modem", dir.path(), "--sub", "1", "add", "--apn", "stray.example"});
    EXPECT_EQ(deaf.status, 1);
    EXPECT_EQ(deaf.err,
              "kelctl: subscription 1: the modem refused to register the library for profile "
              "changes; nothing was done\n");

    for (const char* sub : {"0", "1"}) {
        EXPECT_THAT(modem.control(dir.path(), {"profiles", sub}), Not(HasSubstr("stray.example")));
    }
}

TEST_F(KelctlTest, WaitsForAModemThatNeverAnnouncesItsProfiles) {
    RunningModem modem(dir.path(), seed, {"--no-ready-on-register"});
    ASSERT_TRUE(modem.isServing());
    const Outcome outcome = kelctl({"--modem", dir.path(), "--timeout", "0.5", "list"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("mms.test"));
}

TEST_F(KelctlTest, FindsTheRunningModemThroughTheEnvironment) {
    RunningModem modem(dir.path(), seed);
    ASSERT_TRUE(modem.isServing());
    ASSERT_EQ(modem.control(dir.path(), {"delete", "3gpp", "index=3"}),
              "deleted 3gpp sub=0 index=3\n");

    RunOptions environment;
    environment.env.emplace_back("VEX_SERVICE_DIR", dir.path());
    const Outcome running = kelctl({"list"}, environment);
    EXPECT_EQ(running.status, 0) << running.err;
    EXPECT_THAT(running.out, Not(HasSubstr("mms.test")));

    const Outcome embedded = kelctl({"--embedded", "--seed", seed, "list"}, environment);
    EXPECT_EQ(embedded.status, 0) << embedded.err;
    EXPECT_THAT(embedded.out, HasSubstr("mms.test"));
}

// ---------------------------------------------------------------------------------------------
// Scripts: named handles

TEST_F(KelctlTest, NamedHandleKeepsItsProfileUntilDropped) {
    const std::string path = script("keep.kel",
                                    "# a data call whose profile the library makes\n"
                                    "h1 = data-call --apn keep.test --ip v4v6\n"
                                    "list\n"
                                    "drop h1\n"
                                    "list\n");
    const Outcome outcome = seeded({"run", path});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    const std::size_t dropped = outcome.out.find("dropped h1: the library deleted 3gpp:5\n");
    ASSERT_NE(dropped, std::string::npos) << outcome.out;
    EXPECT_THAT(outcome.out.substr(0, dropped), HasSubstr("h1 = 3gpp:5\n"));
    EXPECT_THAT(outcome.out.substr(0, dropped), HasSubstr("keep.test"));
    EXPECT_THAT(outcome.out.substr(dropped), Not(HasSubstr("keep.test")));
}

TEST_F(KelctlTest, UnnamedHandleGoesAtTheEndOfItsLine) {
    const std::string path = script("unnamed.kel", "data-call --apn brief.test\nlist\n");
    const Outcome outcome = seeded({"run", path});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr(path + ":1: note: 3gpp:5 is not persistent and no name "
                                              "holds its handle"));
    const std::size_t table = outcome.out.find("TOKEN");
    ASSERT_NE(table, std::string::npos);
    EXPECT_THAT(outcome.out.substr(table), Not(HasSubstr("brief.test")));
}

TEST_F(KelctlTest, HandleServesLaterLinesAndExpiresWithItsProfile) {
    const std::string path = script("later.kel",
                                    "h1 = add --apn later.test\n"
                                    "modify h1 --types mms,supl\n"
                                    "get h1\n"
                                    "delete h1\n"
                                    "get h1\n"
                                    "list\n");
    const Outcome outcome = seeded({"run", path});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.out, HasSubstr("modified 3gpp:5: types: - -> mms,supl\n"));
    EXPECT_THAT(outcome.out, HasSubstr("apn later.test\ntypes mms,supl\n"));
    EXPECT_THAT(outcome.out, HasSubstr("deleted 3gpp:5\n"));
    EXPECT_THAT(outcome.err, HasSubstr(path + ":4: note: the profile behind h1 (3gpp:5) is gone"));
    EXPECT_THAT(outcome.err, HasSubstr(path + ":5: get: the profile behind h1 is gone"));
    // The script stops at the failing line.
    EXPECT_THAT(outcome.out, Not(HasSubstr("TOKEN")));
}

TEST_F(KelctlTest, ScriptWithAWrongLineRunsNothing) {
    const std::string path = script("wrong.kel",
                                    "h1 = add --apn first.test --persistent\n"
                                    "\n"
                                    "modify h1 --ip v5\n"
                                    "get h2\n");
    const Outcome outcome = seeded({"--state", state, "run", path});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, path + ":3: modify: --ip: \"v5\" is not one of v4, v6, v4v6\n");
    EXPECT_FALSE(exists(state));

    const std::string undefined = script("undefined.kel", "get h2\n");
    const Outcome named = seeded({"run", undefined});
    EXPECT_EQ(named.status, 2);
    EXPECT_EQ(named.err, undefined +
                             ":1: get: no handle is named \"h2\" at this point of the "
                             "script\n");
}

TEST_F(KelctlTest, ShellRunsLinesAsTheyComeAndNamesFailingOnes) {
    RunOptions input;
    input.input =
        "list\n"
        "lst\n"
        "get h9\n"
        "get 3gpp:9\n"
        "h = add --apn shell.test  # kept\n"
        "h = add --apn again.test\n"
        "handles\n";
    const Outcome outcome = seeded({"shell"}, input);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_THAT(outcome.out, StartsWith("TOKEN"));
    EXPECT_THAT(outcome.out, HasSubstr("h = 3gpp:5\n"));
    EXPECT_THAT(outcome.out, HasSubstr("h = 3gpp:6\n"));
    EXPECT_THAT(outcome.out, HasSubstr("\nh 3gpp:6\n"));
    EXPECT_THAT(outcome.err, HasSubstr("line 2: unknown command \"lst\""));
    EXPECT_THAT(outcome.err, HasSubstr("line 3: get: no handle is named \"h9\""));
    EXPECT_THAT(outcome.err, HasSubstr("line 4: get: the modem has no profile 3gpp:9"));
    EXPECT_THAT(outcome.err, HasSubstr("line 6: note: the handle h held before (3gpp:5) is "
                                       "released"));
    EXPECT_EQ(countOf(outcome.err, "\n"), 4) << outcome.err;
}

TEST_F(KelctlTest, ShellRefusesAnOverlongLineAndGoesOnWithTheNext) {
    RunOptions input;
    input.input = "add --apn " + std::string(100000, 'a') + "\nlist\n";
    const Outcome outcome = seeded({"shell"}, input);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err, "line 1: longer than 65536 bytes, not run\n");
    EXPECT_THAT(outcome.out, StartsWith("TOKEN"));
    EXPECT_THAT(outcome.out, Not(HasSubstr("aaaa")));
}

TEST_F(KelctlTest, ShippedBringUpRuns) {
    RunOptions fromTop;
    fromTop.workDir = testsupport::sourceDir();
    const Outcome outcome = kelctl({"run", "--echo", "tools/kelctl/bringup.kel"}, fromTop);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    for (const char* part : {"> carrier data/carrier/apns-conf.xml", "carrier mcc 001 mnc 01: ",
                             "ia = 3gpp:", "internet = 3gpp:", "ims = 3gpp:", "sos = 3gpp:",
                             "hotspot = 3gpp:", "dropped hotspot: the library deleted"}) {
        EXPECT_THAT(outcome.out, HasSubstr(part));
    }
    EXPECT_EQ(countOf(outcome.out, "TOKEN"), 2);
}

// ---------------------------------------------------------------------------------------------
// Carrier APN configuration

TEST_F(KelctlTest, CarrierVerboseDryRunMapsEveryQuirkAndChangesNothing) {
    const std::string file = dataFile("apns-quirks.xml");
    const Outcome before = seeded({"--state", state, "list"});
    ASSERT_EQ(before.status, 0) << before.err;

    const Outcome outcome = seeded({"--state", state, "carrier", file, "--mcc", "001", "--mnc",
                                    "01", "--dry-run", "--verbose"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out,
              "carrier mcc 001 mnc 01: 6 of 8 entries in " + file +
                  "\n"
                  "  line 5 (Quirk & Co Internet): apn=Internet.Quirk ip=v4v6 roam-ip=v4 "
                  "types=default,supl,ia\n"
                  "  line 8 (Quirk MMS): apn=mms.quirk ip=v4 types=mms auth=pap_chap "
                  "user=mms@quirk password=<hidden>\n"
                  "  line 8 (Quirk MMS): ignored attributes: mmsc, mmsproxy, mmsport\n"
                  "  line 11 (Quirk Attach): ip=v6 roam-ip=v4v6 types=ia\n"
                  "  line 13 (Quirk IMS): apn=ims ip=v6 types=ims,xcap max-conns=8 "
                  "max-conns-time=120 wait-time=5\n"
                  "  line 13 (Quirk IMS): ignored APN type: bip\n"
                  "  line 15 (Quirk All): apn=all.quirk "
                  "types=default,mms,supl,dun,hipri,fota,ims,cbs,ia,emergency,mcx,xcap auth=none "
                  "disabled=yes\n"
                  "  line 17 (Quirk Untyped): apn=untyped.quirk "
                  "types=default,mms,supl,dun,hipri,fota,ims,cbs,ia,emergency,mcx,xcap "
                  "disabled=no\n"
                  "would update 3gpp:2: types: ims -> ims,xcap\n"
                  "attach: line 5 (Quirk & Co Internet): would create the attach profile: "
                  "apn=internet.quirk ip=v4v6 roam-ip=v4 types=default,supl,ia\n"
                  "line 5 (Quirk & Co Internet): would be applied to the new attach profile\n"
                  "line 8 (Quirk MMS): would not be applied: no profile has APN \"mms.quirk\" "
                  "with IP type v4\n"
                  "line 11 (Quirk Attach): would not be applied: it has no APN name, and only "
                  "the entry that sets up attach may go without one\n"
                  "line 13 (Quirk IMS): would be applied to 3gpp:2\n"
                  "line 15 (Quirk All): would not be applied: the carrier disabled it "
                  "(carrier_enabled=\"false\")\n"
                  "line 17 (Quirk Untyped): would not be applied: no profile has APN "
                  "\"untyped.quirk\" with IP type v4v6\n"
                  "summary: 6 entries: 2 would be applied, 0 merged, 4 would not be applied; 1 "
                  "profile would be updated, 1 would be created\n"
                  "dry run: nothing was sent to the modem\n");
    EXPECT_EQ(seeded({"--state", state, "list"}).out, before.out);

    const Outcome quiet = seeded({"carrier", file, "--mcc", "001", "--mnc", "01", "--dry-run"});
    EXPECT_THAT(quiet.out, Not(HasSubstr("ignored")));
    EXPECT_EQ(quiet.err, "");
}

TEST_F(KelctlTest, CarrierPlanOnTheShippedSeedShowsTheChangesAndChangesNothing) {
    const std::string shippedSeed = testsupport::sourceDir() + "/data/modem-seed.conf";
    const std::string file = testsupport::sourceDir() + "/data/carrier/apns-conf.xml";
    RunningModem modem(dir.path(), shippedSeed);
    ASSERT_TRUE(modem.isServing());
    const std::string before = modem.control(dir.path(), {"profiles"});

    const Outcome plan = kelctl(
        {"--modem", dir.path(), "carrier", file, "--mcc", "001", "--mnc", "01", "--dry-run"});
    EXPECT_EQ(plan.status, 0) << plan.err;
    EXPECT_EQ(plan.err, "");
    EXPECT_EQ(plan.out, "carrier mcc 001 mnc 01: 5 of 8 entries in " + file +
                            "\n"
                            "would update 3gpp:1: max-conns: - -> 20; max-conns-time: - -> 300; "
                            "types: default,supl -> default,supl,hipri,ia; wait-time: - -> 0\n"
                            "would update 3gpp:2: types: ims -> ims,xcap\n"
                            "attach: line 11 (Testnet Internet): would update 3gpp:1: max-conns: "
                            "- -> 20; max-conns-time: - -> 300; wait-time: - -> 0\n"
                            "line 11 (Testnet Internet): would be applied to 3gpp:1 (attach)\n"
                            "line 20 (Testnet MMS): would be applied to 3gpp:3\n"
                            "line 29 (Testnet IMS): would be applied to 3gpp:2\n"
                            "line 36 (Testnet Emergency): would be applied to 3gpp:4\n"
                            "line 43 (Testnet Tethering): would not be applied: the carrier "
                            "disabled it (carrier_enabled=\"false\")\n"
                            "summary: 5 entries: 4 would be applied, 0 merged, 1 would not be "
                            "applied; 2 profiles would be updated, 0 would be created\n"
                            "dry run: nothing was sent to the modem\n");
    EXPECT_EQ(modem.control(dir.path(), {"profiles"}), before);

    // The apply does what the plan said, and the modem took all of it.
    const Outcome applied =
        kelctl({"--modem", dir.path(), "carrier", file, "--mcc", "001", "--mnc", "01"});
    EXPECT_EQ(applied.status, 0) << applied.err;
    EXPECT_THAT(applied.out, HasSubstr("updated 3gpp:1: max-conns: - -> 20; max-conns-time: - -> "
                                       "300; types: default,supl -> default,supl,hipri,ia; "
                                       "wait-time: - -> 0\nupdated 3gpp:2: types: ims -> "
                                       "ims,xcap\nattach: updated 3gpp:1 name=internet"));
    EXPECT_THAT(applied.out, Not(HasSubstr("\nnot applied: ")));
    EXPECT_THAT(applied.out, HasSubstr("summary: 5 entries: 4 applied, 0 merged, 1 not applied; "
                                       "2 profiles updated, 0 created\n"));
}

TEST_F(KelctlTest, CarrierSelectsAVirtualOperatorOnlyWhenAsked) {
    const std::string file = dataFile("apns-quirks.xml");
    const Outcome network =
        seeded({"carrier", file, "--mcc", "001", "--mnc", "01", "--dry-run", "--verbose"});
    EXPECT_THAT(network.out, Not(HasSubstr("budget.quirk")));

    const Outcome virtualOperator =
        seeded({"carrier", file, "--mcc", "001", "--mnc", "01", "--mvno-type", "GID",
                "--mvno-match", "ba", "--dry-run", "--verbose"});
    EXPECT_EQ(virtualOperator.status, 0) << virtualOperator.err;
    EXPECT_THAT(virtualOperator.out, HasSubstr("1 of 8 entries"));
    EXPECT_THAT(virtualOperator.out, HasSubstr("apn=budget.quirk ip=v4 types=default,mms\n"));

    const Outcome nobody = seeded({"carrier", file, "--mcc", "998", "--mnc", "01", "--dry-run"});
    EXPECT_EQ(nobody.status, 2);
    EXPECT_EQ(nobody.err, "kelctl: carrier: " + file + ": no entry for mcc 998 mnc 01\n");
}

TEST_F(KelctlTest, CarrierImportSpreadsTypesAndSetsUpAttach) {
    const std::string file = dataFile("apns-quirks.xml");
    const Outcome outcome =
        seeded({"--state", state, "carrier", file, "--mcc", "001", "--mnc", "01"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("updated 3gpp:2: types: ims -> ims,xcap\n"));
    EXPECT_THAT(outcome.out, HasSubstr("attach: created 3gpp:5 name=kel_profile_ia "
                                       "apn=internet.quirk ip=v4v6 roam-ip=v4 "
                                       "types=default,supl,ia flags=kel,ia\n"));

    const Outcome after = seeded({"--state", state, "get", "3gpp:5", "--json"});
    const nlohmann::json profile = parsed(after.out);
    EXPECT_EQ(profile.value("apn", ""), "internet.quirk");
    EXPECT_EQ(profile.value("ia", false), true);
}

// The file's first network carries each quirk that once cost an import: an attach entry without
// APN whose IP types are the IMS profile's, an unsupported roaming protocol, entries that differ
// only by network type, and an APN repeated for other bearers.
TEST_F(KelctlTest, CarrierImportLeavesImsAloneAndAppliesTheRestWithWarnings) {
    const std::string file = dataFile("apns-networks.xml");
    const Outcome outcome =
        seeded({"--state", state, "carrier", file, "--mcc", "001", "--mnc", "01"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out,
              "carrier mcc 001 mnc 01: 6 of 13 entries in " + file +
                  "\n"
                  "updated 3gpp:1: types: default,supl -> default,supl,hipri\n"
                  "updated 3gpp:2: types: ims -> ims,mcx,xcap\n"
                  "attach: created 3gpp:5 name=kel_profile_ia apn=\"\" ip=v4v6 roam-ip=v4v6 "
                  "types=ia flags=kel,ia\n"
                  "attach: line 5 (Edge Attach) has no APN name (the network assigns it): "
                  "profiles that carry an APN are left alone\n"
                  "line 5 (Edge Attach): applied to 3gpp:5 (attach)\n"
                  "line 7 (Edge Internet): applied to 3gpp:1\n"
                  "line 9 (Edge IMS): applied to 3gpp:2\n"
                  "line 11 (Edge MMS): applied to 3gpp:3\n"
                  "line 13 (Edge MMS): merged into line 11\n"
                  "line 15 (Edge IMS 3G): applied to 3gpp:2\n"
                  "summary: 6 entries: 5 applied, 1 merged, 0 not applied; 2 profiles updated, "
                  "1 created\n");
    EXPECT_EQ(outcome.err,
              "kelctl: carrier: " + file +
                  ":7: warning: roaming_protocol=\"IPV4\" is not one of IP, IPV6, IPV4V6; the "
                  "entry is applied without it\n"
                  "kelctl: carrier: " +
                  file +
                  ":13: note: merged into line 11: the two differ only by bearer or network "
                  "type\n"
                  "kelctl: carrier: " +
                  file +
                  ":15: warning: APN \"ims\" (ip v4v6) is also at line 9 for other bearers; the "
                  "modem keeps one profile for both: their APN types are joined, and only the "
                  "first entry that names ia sets up attach\n");

    const Outcome verbose =
        seeded({"carrier", file, "--mcc", "001", "--mnc", "01", "--dry-run", "--verbose"});
    EXPECT_THAT(verbose.out, HasSubstr("  line 11 (Edge MMS): apn=mms.test ip=v4 types=mms "
                                       "(merged: line 13)\n"));

    const Outcome ims = seeded({"--state", state, "get", "3gpp:2"});
    EXPECT_THAT(ims.out, HasSubstr("types ims,mcx,xcap\n"));
    const Outcome internet = seeded({"--state", state, "get", "3gpp:1"});
    EXPECT_THAT(internet.out, HasSubstr("types default,supl,hipri\n"));
}

TEST_F(KelctlTest, CarrierKeepsEntriesThatDifferOnlyByTheirPassword) {
    const std::string file = script("passwords.xml",
                                    "<apns version=\"8\">\n"
                                    "<apn carrier=\"A\" mcc=\"006\" mnc=\"01\" apn=\"vpn.test\" "
                                    "type=\"default\" user=\"u\" password=\"one\" />\n"
                                    "<apn carrier=\"B\" mcc=\"006\" mnc=\"01\" apn=\"vpn.test\" "
                                    "type=\"default\" user=\"u\" password=\"two\" />\n"
                                    "</apns>\n");
    const Outcome plan =
        seeded({"carrier", file, "--mcc", "006", "--mnc", "01", "--dry-run", "--verbose"});
    EXPECT_EQ(plan.status, 0) << plan.err;
    EXPECT_THAT(plan.out, HasSubstr("line 2 (A): "));
    EXPECT_THAT(plan.out, HasSubstr("line 3 (B): "));
    EXPECT_THAT(plan.err, Not(HasSubstr("merged"))) << "hidden passwords are not the same";
}

struct NetworkCase {
    const char* name;
    std::vector<std::string> selector;
    int status;
    std::string expected;  // in standard output (status 0) or standard error
};

const NetworkCase kNetworkCases[] = {
    {"OneDigitMncAsWritten", {"--mcc", "002", "--mnc", "0"}, 0, "apn=single.test"},
    {"OneDigitMncAsTwoDigits", {"--mcc", "002", "--mnc", "00"}, 0, "apn=single.test"},
    {"CodesAsNumbers", {"--mcc", "2", "--mnc", "000"}, 0, "apn=single.test"},
    {"TwoDigitSpelling", {"--mcc", "004", "--mnc", "07"}, 0, "apn=a.test"},
    {"ThreeDigitSpelling", {"--mcc", "004", "--mnc", "007"}, 0, "apn=b.test"},
    {"SpelledNeitherWay",
     {"--mcc", "004", "--mnc", "7"},
     2,
     "mcc 004 mnc 7 is written several ways (004/007, 004/07); give MCC and MNC as the file "
     "writes them\n"},
    {"OnlyVirtualOperators",
     {"--mcc", "003", "--mnc", "30"},
     2,
     "mcc 003 mnc 30 has only virtual-operator entries; choose one with --mvno-type spn "
     "--mvno-match \"One\", --mvno-type gid --mvno-match \"2A\"\n"},
    {"OneVirtualOperator",
     {"--mcc", "003", "--mnc", "30", "--mvno-type", "gid", "--mvno-match", "2a"},
     0,
     "apn=two.test"},
    {"UnknownVirtualOperator",
     {"--mcc", "003", "--mnc", "30", "--mvno-type", "spn", "--mvno-match", "Three"},
     2,
     "no entry for mcc 003 mnc 30 spn \"Three\"; its virtual operators: --mvno-type spn "
     "--mvno-match \"One\", --mvno-type gid --mvno-match \"2A\"\n"},
};

void PrintTo(const NetworkCase& network, std::ostream* os) {
    *os << network.name;
}

class KelctlCarrierNetworkTest : public KelctlTest,
                                 public ::testing::WithParamInterface<NetworkCase> {};

TEST_P(KelctlCarrierNetworkTest, IsSelectedOrNamesWhatToChoose) {
    const NetworkCase& network = GetParam();
    const std::string file = dataFile("apns-networks.xml");
    std::vector<std::string> args = {"carrier", file};
    args.insert(args.end(), network.selector.begin(), network.selector.end());
    args.insert(args.end(), {"--dry-run", "--verbose"});
    const Outcome outcome = seeded(args);
    EXPECT_EQ(outcome.status, network.status) << outcome.err;
    if (network.status == 0) {
        EXPECT_THAT(outcome.out, HasSubstr("1 of 13 entries"));
        EXPECT_THAT(outcome.out, HasSubstr(network.expected));
    } else {
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, "kelctl: carrier: " + file + ": " + network.expected);
    }
}

INSTANTIATE_TEST_SUITE_P(Networks, KelctlCarrierNetworkTest, ::testing::ValuesIn(kNetworkCases),
                         [](const auto& testCase) { return std::string(testCase.param.name); });

TEST_F(KelctlTest, CarrierNamesWhatAnEarlierImportLeftOnTheAttachProfile) {
    const std::string file = dataFile("apns-networks.xml");
    const Outcome first =
        seeded({"--state", state, "carrier", file, "--mcc", "005", "--mnc", "01"});
    ASSERT_EQ(first.status, 0) << first.err;
    EXPECT_THAT(first.out, HasSubstr("attach: created 3gpp:5 name=kel_profile_ia apn=lte.first"));

    const Outcome second =
        seeded({"--state", state, "carrier", file, "--mcc", "005", "--mnc", "02"});
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_THAT(second.out, HasSubstr("updated 3gpp:5: apn: lte.first -> lte.second\n"));
    EXPECT_THAT(second.out, HasSubstr("attach: 3gpp:5 keeps max-conns=8, max-conns-time=120 from "
                                      "before; line 34 (Second Attach) does not set them\n"));
    EXPECT_EQ(second.err, "kelctl: carrier: " + file +
                              ":34: note: profile_id=4: 3gpp:4 holds APN \"sos\"; kelctl chooses "
                              "profiles by APN name and IP type\n");
}

TEST_F(KelctlTest, CarrierPlansAndReportsHidePasswordsUnlessAsked) {
    const std::string file =
        script("secret.xml",
               "<apns version=\"8\">\n"
               "  <apn carrier=\"Secret Attach\" mcc=\"005\" mnc=\"01\" "
               "apn=\"lte.first\" type=\"default,ia\" protocol=\"IPV4V6\" "
               "user=\"spy\" password=\"hunter2\" authtype=\"1\" />\n"
               "  <apn carrier=\"Open Attach\" mcc=\"005\" mnc=\"02\" "
               "apn=\"lte.second\" type=\"default,ia\" protocol=\"IPV4V6\" />\n"
               "</apns>\n");
    const std::vector<std::string> first = {"--state", state, "carrier", file,
                                            "--mcc",   "005", "--mnc",   "01"};
    const std::vector<std::string> second = {"--state", state, "carrier", file,
                                             "--mcc",   "005", "--mnc",   "02"};
    const auto with = [](std::vector<std::string> args, std::initializer_list<const char*> more) {
        args.insert(args.end(), more.begin(), more.end());
        return args;
    };
    const auto noSecret = [](const Outcome& outcome) {
        EXPECT_THAT(outcome.out, Not(HasSubstr("hunter2")));
        EXPECT_THAT(outcome.err, Not(HasSubstr("hunter2")));
    };

    // The plan of a new attach profile: its settings line and its JSON changes.
    const Outcome plan = seeded(with(first, {"--dry-run"}));
    EXPECT_EQ(plan.status, 0) << plan.err;
    EXPECT_THAT(plan.out, HasSubstr("would create the attach profile: apn=lte.first ip=v4v6 "
                                    "types=default,ia auth=pap user=spy password=<hidden>\n"));
    noSecret(plan);
    const Outcome planJson = seeded(with(first, {"--dry-run", "--json"}));
    EXPECT_EQ(planJson.status, 0) << planJson.err;
    const nlohmann::json planned = parsed(planJson.out);  // one document, nothing beside it
    EXPECT_EQ(planned["dry_run"], true);
    EXPECT_THAT(planned["attach"]["changes"].dump(),
                HasSubstr(R"({"from":"-","setting":"password","to":"<hidden>"})"));
    noSecret(planJson);
    EXPECT_THAT(seeded(with(first, {"--dry-run", "--show-secrets"})).out,
                HasSubstr("user=spy password=hunter2\n"));

    // Applied: the attach summary; then a second network's entry keeps the password.
    const Outcome applied = seeded(first);
    EXPECT_EQ(applied.status, 0) << applied.err;
    EXPECT_THAT(applied.out, HasSubstr("attach: created 3gpp:5 name=kel_profile_ia apn=lte.first "
                                       "ip=v4v6 types=default,ia auth=pap user=spy "
                                       "password=<hidden> flags=kel,ia\n"));
    noSecret(applied);
    const Outcome kept = seeded(with(second, {"--json"}));
    EXPECT_EQ(kept.status, 0) << kept.err;
    EXPECT_EQ(parsed(kept.out)["attach"]["kept"],
              nlohmann::json({"user=spy", "password=<hidden>", "auth=pap"}));
    noSecret(kept);
    const Outcome shown = seeded(with(second, {"--show-secrets"}));
    EXPECT_THAT(shown.out, HasSubstr("attach: 3gpp:5 keeps user=spy, password=hunter2, auth=pap "
                                     "from before; line 3 (Open Attach) does not set them\n"));
}

TEST_F(KelctlTest, CarrierImportNamesWhatTheModemDidNotTake) {
    const std::string file = dataFile("apns-quirks.xml");
    RunningModem modem(dir.path(), seed);
    ASSERT_TRUE(modem.isServing());
    // Every modify is refused; creating the attach profile still works.
    ASSERT_THAT(modem.control(dir.path(), {"fail-next", "50", "0x28"}),
                HasSubstr("failing the next 50 requests"));

    const Outcome outcome =
        kelctl({"--modem", dir.path(), "carrier", file, "--mcc", "001", "--mnc", "01", "--json"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              "kelctl: carrier: 1 setting was not applied (the \"not applied\" "
              "lines name them)\n");
    const auto json = nlohmann::json::parse(outcome.out, nullptr, false);
    ASSERT_FALSE(json.is_discarded()) << outcome.out;
    EXPECT_EQ(json["not_applied"],
              nlohmann::json::parse(R"([{"profile":"3gpp:2","setting":"types","wanted":"ims,xcap",
                                         "got":"ims"}])"));
    EXPECT_EQ(json["updates"], nlohmann::json::array());
    EXPECT_EQ(json["attach"]["action"], "created");
    // The report stands under --json although the run failed, with the error beside it.
    EXPECT_EQ(json.value("error", ""),
              "1 setting was not applied (the \"not applied\" lines name them)");

    ASSERT_THAT(modem.control(dir.path(), {"fail-next", "50", "0x28"}),
                HasSubstr("failing the next 50 requests"));
    const Outcome text =
        kelctl({"--modem", dir.path(), "carrier", file, "--mcc", "001", "--mnc", "01"});
    EXPECT_EQ(text.status, 1);
    EXPECT_THAT(text.out, HasSubstr("no profile changed\n"));
    EXPECT_THAT(text.out, HasSubstr("not applied: 3gpp:2 types: asked for ims,xcap, the modem has "
                                    "ims\n"));
    EXPECT_THAT(modem.control(dir.path(), {"profiles", "0"}),
                HasSubstr("index=2 persistent=yes name=ims apn=ims pdp=ipv4v6 lte_roam=ipv4v6 "
                          "umts_roam=ipv4v6 class=1 types=ims\n"));
}

TEST_F(KelctlTest, CarrierValueKelctlCannotMapCostsOnlyThatSetting) {
    const std::string file = script("values.xml",
                                    "<apns>\n"
                                    "<apn mcc=\"001\" mnc=\"01\" apn=\"ims\" type=\"ims,xcap\"\n"
                                    "  max_conns=\"ten\" authtype=\"4\" protocol=\"PPP\"/>\n"
                                    "<apn mcc=\"001\" mnc=\"01\" apn=\"\xFFodd\" type=\"mms\"\n"
                                    "  carrier_enabled=\"maybe\xFE\"/>\n"
                                    "</apns>\n");
    const Outcome outcome = seeded({"carrier", file, "--mcc", "001", "--mnc", "01"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("updated 3gpp:2: types: ims -> ims,xcap\n"));
    const std::string where = "kelctl: carrier: " + file;
    EXPECT_THAT(outcome.err, HasSubstr(where + ":2: warning: protocol=\"PPP\" is not one of IP, "
                                               "IPV6, IPV4V6; the entry is applied without it\n"));
    EXPECT_THAT(outcome.err, HasSubstr(where + ":2: warning: authtype=\"4\" is not one of -1, 0"));
    EXPECT_THAT(outcome.err, HasSubstr(where + ":2: warning: max_conns=\"ten\" is not a number "
                                               "from 0 to 65535; the entry is applied without "
                                               "it\n"));
    // Bytes that are not text reach the terminal escaped.
    EXPECT_THAT(outcome.err, HasSubstr(where + ":4: warning: carrier_enabled=\"maybe\\xfe\" is "
                                               "not true or false"));
}

struct MalformedCase {
    const char* name;
    std::string file;  // under tests/data, or written by the test when text is set
    std::string text;
    std::string error;  // after "FILE:"
};

const MalformedCase kMalformedCases[] = {
    {"UnclosedAttribute", "apns-malformed.xml", "", "4: malformed attribute"},
    {"NeverClosed", "open.xml", "<apns>\n  <apn mcc=\"001\" mnc=\"01\"/>\n",
     "1: an element is never closed"},
    {"MismatchedTag", "tag.xml", "<apns>\n<apn mcc=\"001\" mnc=\"01\">\n</apns>\n",
     "2: closing tag does not match the open element"},
    {"NotADatabase", "other.xml", "<?xml version=\"1.0\"?>\n<carriers/>\n",
     "2: the file is not a carrier APN database"},
    {"Empty", "empty.xml", "   \n", "0: the file holds no XML"},
};

void PrintTo(const MalformedCase& bad, std::ostream* os) {
    *os << bad.name;
}

class KelctlMalformedCarrierTest : public KelctlTest,
                                   public ::testing::WithParamInterface<MalformedCase> {};

TEST_P(KelctlMalformedCarrierTest, IsRefusedWithItsLineNumberAndNothingSent) {
    const MalformedCase& bad = GetParam();
    const std::string file = bad.text.empty() ? dataFile(bad.file) : script(bad.file, bad.text);
    RunningModem modem(dir.path(), seed);
    ASSERT_TRUE(modem.isServing());
    const std::string before = modem.control(dir.path(), {"profiles"});

    const Outcome outcome =
        kelctl({"--modem", dir.path(), "carrier", file, "--mcc", "001", "--mnc", "01"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, StartsWith("kelctl: carrier: " + file + ":" + bad.error));
    EXPECT_EQ(countOf(outcome.err, "\n"), 1) << outcome.err;
    EXPECT_EQ(modem.control(dir.path(), {"profiles"}), before);
}

INSTANTIATE_TEST_SUITE_P(Files, KelctlMalformedCarrierTest, ::testing::ValuesIn(kMalformedCases),
                         [](const auto& testCase) { return std::string(testCase.param.name); });

// ---------------------------------------------------------------------------------------------
// Input files: a bounded regular file or nothing

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
    const std::string huge = dir.file("huge.xml");
    ASSERT_EQ(::truncate(script("huge.xml", "<apns/>").c_str(), 65ll * 1024 * 1024), 0);

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
            // watchdog turns that into a failure. The refusal comes before any modem starts, so
            // the bound is far above what it takes even under a sanitizer.
            RunOptions watchdog;
            watchdog.limit = std::chrono::seconds(10);
            const Outcome outcome = kelctl(args, watchdog);
            EXPECT_EQ(outcome.status, 2);
            EXPECT_EQ(outcome.out, "");
            EXPECT_THAT(outcome.err, HasSubstr(path + ": " + reason + "\n"));
            EXPECT_EQ(countOf(outcome.err, "\n"), 1) << outcome.err;
        }
    }
}

TEST_F(KelctlTest, ScriptTextInAnErrorIsEscaped) {
    const std::string path = script("bytes.kel", "list\nlst\xFF\x1B[2J\n");
    const Outcome outcome = seeded({"--state", state, "run", path});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err,
              path + ":2: unknown command \"lst\\xff\\x1b[2J\" (help lists the commands)\n");
    EXPECT_FALSE(exists(state));
}

// ---------------------------------------------------------------------------------------------
// Conventions of the command line

TEST_F(KelctlTest, VersionIsTheLibrarysAndNeedsNoModem) {
    for (const char* option : {"--version", "-V"}) {
        const Outcome outcome = kelctl({"--seed", "/nonexistent", option});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(outcome.out, "kelctl " KELR_VERSION " (libkelr " KELR_VERSION ")\n");
    }
    const Outcome json = kelctl({"--version", "--json"});
    EXPECT_EQ(parsed(json.out), nlohmann::json::parse(R"({"kelctl": ")" KELR_VERSION
                                                      R"(", "libkelr": ")" KELR_VERSION R"("})"));
}

TEST_F(KelctlTest, ShortFormsAbbreviationsAndOptionsAfterOperandsWork) {
    const Outcome outcome = seeded({"get", "3", "-j", "--te", "3gpp"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(parsed(outcome.out).value("apn", ""), "mms.test");

    const Outcome added = seeded({"-t", "30", "add", "-a", "short.test", "-p", "-j"});
    EXPECT_EQ(added.status, 0) << added.err;
    EXPECT_EQ(parsed(added.out).value("added", ""), "3gpp:5");
    // -p made it persistent: no note about it going with kelctl.
    EXPECT_THAT(added.err, Not(HasSubstr("is not persistent")));
}

TEST_F(KelctlTest, ExitStatusSaysWhatHappened) {
    struct Case {
        std::vector<std::string> args;
        int status;
    };
    const Case cases[] = {
        {{"list"}, 0},
        {{"delete", "3gpp:9"}, 1},                     // the modem has no such profile
        {{"modify", "3gpp:9", "--apn", "x"}, 1},       // nor one to change
        {{"refresh", "--started"}, 0},                 // allowed; later operations are refused
        {{"list", "--colour"}, 2},                     // a wrong command line
        {{"--seed", "/nonexistent", "list"}, 2},       // an input file that is not there
        {{"add", "--apn", std::string(300, 'x')}, 2},  // a value the modem cannot hold
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args.front() + " " + c.args.back());
        const Outcome outcome = seeded(c.args);
        EXPECT_EQ(outcome.status, c.status) << outcome.err;
        EXPECT_EQ(outcome.err.empty(), c.status == 0) << outcome.err;
    }
    const Outcome noModem = kelctl({"--modem", dir.path(), "--timeout", "0.5", "list", "--json"});
    EXPECT_EQ(noModem.status, 1);
    EXPECT_THAT(parsed(noModem.out).value("error", ""), HasSubstr("no modem answered"));
}

TEST_F(KelctlTest, UnwritableStateFileIsRefusedBeforeTheModemStarts) {
    const std::string blocker = script("not-a-directory", "a file\n");
    const Outcome outcome = seeded({"--state", blocker + "/modem.state", "add", "--apn", "x"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, HasSubstr("cannot be written"));

    ASSERT_EQ(::symlink(seed.c_str(), state.c_str()), 0);
    const Outcome linked = seeded({"--state", state, "list"});
    EXPECT_EQ(linked.status, 2);
    EXPECT_THAT(linked.err, HasSubstr("not a regular file"));
}

TEST_F(KelctlTest, TruncateCutsOverlongValuesToTheirFieldAndSaysSo) {
    const Outcome outcome = seeded({"add", "--apn", std::string(300, 'a'), "--user",
                                    std::string(200, 'u'), "--truncate", "--persistent", "--json"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    const nlohmann::json added = parsed(outcome.out);
    EXPECT_EQ(added["settings"].value("apn", ""), std::string(150, 'a'));
    EXPECT_EQ(added["settings"].value("user", ""), std::string(127, 'u'));
    EXPECT_THAT(outcome.err, HasSubstr("kelctl: note: --apn cut to its first 150 bytes\n"));
    EXPECT_THAT(outcome.err, HasSubstr("kelctl: note: --user cut to its first 127 bytes\n"));
}

TEST_F(KelctlTest, JsonIsValidUtf8WhateverBytesTheProfilesHold) {
    const std::string script = this->script("bytes.kel",
                                            "add --apn \"caf\xc3\xa9\xff.test\" --persistent\n"
                                            "list\n");
    const Outcome outcome = seeded({"--json", "run", script});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    const nlohmann::json document = parsed(outcome.out);
    ASSERT_EQ(document["lines"].size(), 2u) << outcome.out;
    const std::string apn = document["lines"][0]["result"]["settings"].value("apn", "");
    EXPECT_EQ(apn, "caf\xc3\xa9\xef\xbf\xbd.test");  // the stray byte became U+FFFD
    EXPECT_EQ(document["lines"][1]["result"].size(), 6u);
    EXPECT_EQ(document.value("status", -1), 0);
}

TEST_F(KelctlTest, PasswordsAreHiddenEverywhereUnlessAsked) {
    const std::string script = this->script("secret.kel",
                                            "get 3gpp:3\n"
                                            "list --json\n"
                                            "modify 3gpp:3 --password hunter2\n"
                                            "modify 3gpp:3 --pa hunter2\n"
                                            "dump\n");
    for (const auto& head : std::vector<std::vector<std::string>>{
             {"run", "--echo", script}, {"--verbose", "run", script}, {"--json", "run", script}}) {
        std::vector<std::string> args = head;
        const Outcome hidden = seeded(args);
        SCOPED_TRACE(args.front());
        EXPECT_EQ(hidden.status, 0) << hidden.err;
        for (const std::string& text : {hidden.out, hidden.err}) {
            EXPECT_THAT(text, Not(HasSubstr("secret")));
            EXPECT_THAT(text, Not(HasSubstr("hunter2")));
        }
        EXPECT_THAT(hidden.out, HasSubstr("<hidden>"));

        args.insert(args.begin(), "--show-secrets");
        const Outcome shown = seeded(args);
        EXPECT_EQ(shown.status, 0) << shown.err;
        EXPECT_THAT(shown.out, HasSubstr("secret"));
        EXPECT_THAT(shown.out, HasSubstr("hunter2"));
    }
    const Outcome verbose = seeded({"--verbose", "get", "3"});
    EXPECT_THAT(verbose.err, HasSubstr("Password=<hidden>,"));
    EXPECT_THAT(verbose.err, Not(HasSubstr("secret")));
    const Outcome onScriptLine = seeded({"shell"}, RunOptions{"get 3 --show-secrets\n", "", {}});
    EXPECT_THAT(onScriptLine.err, HasSubstr("--show-secrets applies to a whole kelctl run"));
}

TEST_F(KelctlTest, TimeoutBoundsTheWholeRunAgainstASlowModem) {
    RunningModem modem(dir.path(), seed);
    ASSERT_TRUE(modem.isServing());
    // Creates are answered after 20 s, everything else at once: kelctl connects, then each add
    // waits as long as the library lets it; the shell goes on after each failed line.
    modem.control(dir.path(), {"delay", "20000", "0x27"});
    RunOptions input;
    for (int i = 0; i < 10; ++i) {
        input.input += "add --apn slow" + std::to_string(i) + ".test\n";
    }
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = kelctl({"--modem", dir.path(), "--timeout", "2", "shell"}, input);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(outcome.status, 1);
    // The modem makes each profile at once and only answers late: an add whose echo lands
    // within the run is reported as added, and nothing else is printed.
    EXPECT_THAT(
        outcome.out,
        testing::AnyOf(testing::Eq(""), testing::MatchesRegex("added 3gpp:[0-9]+ name=kel_profile "
                                                              "apn=slow0.test flags=kel\n")));
    EXPECT_THAT(outcome.err,
                testing::EndsWith("kelctl: stopped: the run took longer than --timeout "
                                  "2 s (the modem answers too slowly)\n"));
    // Generous: far less than the ten adds would take, so the run did not wait for them.
    EXPECT_LT(took, std::chrono::seconds(8));
}

}  // namespace
