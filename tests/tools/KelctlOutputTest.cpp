// kelctl's output as a user reads it, as text and as one JSON document.
#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;

TEST_F(KelctlTest, ListShowsTheSubscriptionsProfilesAsTableAndJson) {
    const Outcome table = succeeded(seeded({"list"}));
    EXPECT_EQ(table.err, "");
    EXPECT_THAT(table.out, StartsWith("TOKEN  TECH   ID  NAME      APN"));
    EXPECT_EQ(countOf(table.out, "\n"), 6);  // the header and five profiles of subscription 0
    EXPECT_THAT(table.out,
                HasSubstr("3gpp   1   internet  internet   v4v6  v4       default,supl"));
    EXPECT_THAT(table.out, HasSubstr("3gpp   4   sos       sos        v4v6  -        emergency"));
    EXPECT_THAT(table.out, HasSubstr("3gpp2  1   -         cdma.test"));

    const Outcome json = succeeded(seeded({"list", "--json"}));
    const nlohmann::json profiles = parsed(json.out);
    ASSERT_TRUE(profiles.is_array());
    ASSERT_EQ(profiles.size(), 5u);
    EXPECT_EQ(profiles[2], nlohmann::json::parse(R"({"token": 2, "tech": "3gpp", "id": 3,
        "name": "mms", "apn": "mms.test", "ip": "v4", "types": ["mms"], "types_mask": 2,
        "auth": "pap", "user": "mms", "password": "<hidden>", "kel": false, "ia": false})"));

    const Outcome second = succeeded(seeded({"--sub", "1", "list"}));
    EXPECT_THAT(second.out, HasSubstr("other.test"));
    EXPECT_THAT(second.out, Not(HasSubstr("internet")));
}

// --- Every command, against the embedded modem and against a running vex-modemd ---

struct CommandCase : Row {
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
    {"ApplyTypes",
     {"apply-types", "--apn", "ims", "--types", "ims,xcap", "--and", "--apn", "IMS", "--ip", "v6",
      "--types", "mcx"},
     "updated 3gpp:2: types: ims -> ims,mcx,xcap\n",
     ""},
    {"Dump", {"dump"}, "\nLogs:\n", ""},
};

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
            args.insert(args.begin(), {"--modem", dir.path()});
        } else {
            args.insert(args.begin(), {"--seed", seed});
        }
        return kelctl(args);
    }
};

TEST_P(KelctlCommandTest, RunsAndPrintsItsResult) {
    const CommandCase& command = std::get<1>(GetParam());
    const Outcome outcome = succeeded(runCase());
    EXPECT_THAT(outcome.out, HasSubstr(command.expected));
    if (!command.absent.empty()) {
        EXPECT_THAT(outcome.out, Not(HasSubstr(command.absent)));
    }
    EXPECT_THAT(outcome.err, Not(HasSubstr("kelctl: " + command.args.front() + ":")));
}

// The same command with --json: exactly one document on standard output, whatever it did.
TEST_P(KelctlCommandTest, PrintsOneJsonDocument) {
    const Outcome outcome = succeeded(runCase({"-j"}));
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

TEST_F(KelctlTest, JsonIsValidUtf8WhateverBytesTheProfilesHold) {
    const std::string script = this->script("bytes.kel",
                                            "add --apn \"caf\xc3\xa9\xff.test\" --persistent\n"
                                            "list\n");
    const Outcome outcome = succeeded(seeded({"--json", "run", script}));
    const nlohmann::json document = parsed(outcome.out);
    ASSERT_EQ(document["lines"].size(), 2u) << outcome.out;
    const std::string apn = document["lines"][0]["result"]["settings"].value("apn", "");
    EXPECT_EQ(apn, "caf\xc3\xa9\xef\xbf\xbd.test");  // the stray byte became U+FFFD
    EXPECT_EQ(document["lines"][1]["result"].size(), 6u);
    EXPECT_EQ(document.value("status", -1), 0);
}

// A password with a comma in it is hidden whole in the library's log lines too.
TEST_F(KelctlTest, PasswordsAreHiddenEverywhereUnlessAsked) {
    const std::string script = this->script("secret.kel",
                                            "get 3gpp:3\n"
                                            "list --json\n"
                                            "modify 3gpp:3 --password x,hunter2\n"
                                            "modify 3gpp:3 --pa hunter2\n"
                                            "dump\n");
    for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
             {"run", "--echo", script}, {"--verbose", "run", script}, {"--json", "run", script}}) {
        SCOPED_TRACE(args.front());
        const Outcome hidden = succeeded(seeded(args));
        for (const std::string& text : {hidden.out, hidden.err}) {
            EXPECT_THAT(text, Not(HasSubstr("secret")));
            EXPECT_THAT(text, Not(HasSubstr("hunter2")));
        }
        EXPECT_THAT(hidden.out, HasSubstr("<hidden>"));

        args.insert(args.begin(), "--show-secrets");
        const Outcome shown = succeeded(seeded(args));
        EXPECT_THAT(shown.out, HasSubstr("secret"));
        EXPECT_THAT(shown.out, HasSubstr("hunter2"));
    }
    // The library's log goes to standard error only.
    const Outcome verbose = seeded({"--verbose", "get", "3"});
    EXPECT_THAT(verbose.err, HasSubstr("Password=<hidden>,"));
    EXPECT_THAT(verbose.out, HasSubstr("apn mms.test\n"));
    EXPECT_THAT(verbose.out, Not(HasSubstr("Manager::")));
    EXPECT_THAT(verbose.err, Not(HasSubstr("secret")));
    const Outcome onScriptLine = seeded({"shell"}, RunOptions{"get 3 --show-secrets\n", "", {}});
    EXPECT_THAT(onScriptLine.err, HasSubstr("--show-secrets applies to a whole kelctl run"));
}

}  // namespace
