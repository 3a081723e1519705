// kelctl run and kelctl shell.
#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;

TEST_F(KelctlTest, NamedHandleKeepsItsProfileUntilDroppedAnUnnamedOneToTheEndOfItsLine) {
    const std::string path = script("keep.kel",
                                    "# data calls whose profiles the library makes\n"
                                    "data-call --apn brief.test\n"
                                    "h1 = data-call --apn keep.test --ip v4v6\n"
                                    "list\n"
                                    "drop h1\n"
                                    "list\n");
    const Outcome outcome = succeeded(seeded({"run", path}));
    EXPECT_EQ(outcome.err, path +
                               ":2: note: 3gpp:5 is not persistent and no name holds its "
                               "handle, so the library deletes it again now (NAME = data-call "
                               "... keeps it)\n");
    const std::size_t table = outcome.out.find("TOKEN");
    const std::size_t dropped = outcome.out.find("dropped h1: the library deleted 3gpp:5\n");
    ASSERT_LT(table, dropped) << outcome.out;
    EXPECT_THAT(outcome.out.substr(0, table), HasSubstr("h1 = 3gpp:5\n"));
    EXPECT_THAT(outcome.out.substr(table, dropped - table), HasSubstr("keep.test"));
    EXPECT_THAT(outcome.out.substr(table), Not(HasSubstr("brief.test")));
    EXPECT_THAT(outcome.out.substr(dropped), Not(HasSubstr("keep.test")));
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

// A script is checked whole before its first line runs; the wrong line is named, its text escaped.
TEST_F(KelctlTest, ScriptWithAWrongLineRunsNothing) {
    const std::pair<std::string, std::string> kScripts[] = {
        {"h1 = add --apn first.test --persistent\n\nmodify h1 --ip v5\nget h2\n",
         ":3: modify: --ip: \"v5\" is not one of v4, v6, v4v6\n"},
        {"get h2\n", ":1: get: no handle is named \"h2\" at this point of the script\n"},
        {"list\nlst\xFF\x1B[2J\n",
         ":2: unknown command \"lst\\xff\\x1b[2J\" (help lists the commands)\n"},
    };
    for (const auto& [text, error] : kScripts) {
        SCOPED_TRACE(error);
        const std::string path = script("wrong.kel", text);
        const Outcome outcome = seeded({"--state", state, "run", path});
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, path + error);
        EXPECT_FALSE(exists(state));
    }
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
    const Outcome outcome =
        succeeded(kelctl({"run", "--echo", "tools/kelctl/bringup.kel"}, fromTop));
    EXPECT_EQ(outcome.err, "");
    for (const char* part : {"> carrier data/carrier/apns-conf.xml", "carrier mcc 001 mnc 01: ",
                             "ia = 3gpp:", "internet = 3gpp:", "ims = 3gpp:", "sos = 3gpp:",
                             "hotspot = 3gpp:", "dropped hotspot: the library deleted"}) {
        EXPECT_THAT(outcome.out, HasSubstr(part));
    }
    EXPECT_EQ(countOf(outcome.out, "TOKEN"), 2);
}

}  // namespace
