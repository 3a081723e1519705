// kelctl as a process: hostile bytes from the modem, a seed, a state file or a carrier file never
// reach the terminal raw, in any text output; JSON stays valid.
#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;

// A terminal title escape, a bell, an invalid byte, a C1 control (CSI) and DEL.
const char* const kHostileSeed =
    "profile 3gpp sub=0 index=1 name=\"evil\\x1b]0;owned\\x07\" apn=\"bad\\xff.example\" "
    "pdp=ipv4v6 user=\"csi\\xc2\\x9b2J\" password=\"del\\x7f\" types=default\n";

const char* const kHostileCarrier =
    "<apns version=\"8\">\n"
    "  <apn carrier=\"Evil&#27;[2J\xff\" mcc=\"262\" mnc=\"93\" apn=\"bad\xff.example\" "
    "type=\"default,\x1b[31mia\" protocol=\"IPV4V6\" user=\"u&#7;\" />\n"
    "</apns>\n";

// Nothing a terminal would act on, and nothing that is not UTF-8.
void expectTerminalSafe(const std::string& text, const std::string& what) {
    for (const unsigned char c : text) {
        EXPECT_TRUE(c == '\n' || c == '\t' || (c >= 0x20 && c != 0x7F))
            << what << ": raw byte " << static_cast<int>(c) << " in " << text;
    }
    EXPECT_EQ(text.find("\xc2\x9b"), std::string::npos) << what;
    EXPECT_EQ(text.find('\xff'), std::string::npos) << what;
}

struct OutputPath : Row {
    std::vector<std::string> args;
    const char* shown;  // what the escaped text shows in the output, text only
};

class KelctlTerminalTest : public KelctlTest, public ::testing::WithParamInterface<OutputPath> {
  protected:
    const std::string hostileSeed = script("hostile.conf", kHostileSeed);
    const std::string hostileCarrier = script("hostile.xml", kHostileCarrier);
};

TEST_P(KelctlTerminalTest, ShowsHostileBytesEscapedAndJsonStaysValid) {
    std::vector<std::string> args = {"--seed", hostileSeed, "--show-secrets"};
    for (const auto& arg : GetParam().args) {
        args.push_back(arg == "FILE" ? hostileCarrier : arg);
    }
    const Outcome text = succeeded(kelctl(args));
    expectTerminalSafe(text.out, "stdout");
    expectTerminalSafe(text.err, "stderr");
    EXPECT_THAT(text.out + text.err, HasSubstr(GetParam().shown));

    args.push_back("--json");
    const Outcome json = succeeded(kelctl(args));
    expectTerminalSafe(json.out, "json");
    expectTerminalSafe(json.err, "json stderr");
    EXPECT_FALSE(parsed(json.out).is_discarded());
}

const OutputPath kPaths[] = {
    {"List", {"list"}, "evil\\x1b]0;owned\\x07"},
    {"Get", {"get", "3gpp:1"}, "del\\x7f"},
    {"Dump", {"dump"}, "csi\\xc2\\x9b2J"},
    {"Filter", {"filter", "--apn", "bad\xff.example"}, "bad\\xff.example"},
    {"CarrierPlan",
     {"carrier", "FILE", "--mcc", "262", "--mnc", "93", "--dry-run", "--verbose"},
     "Evil\\x1b[2J\\xff"},
    {"Verbose", {"--verbose", "list"}, "\\x1b]0;owned"},
};

INSTANTIATE_TEST_SUITE_P(Paths, KelctlTerminalTest, ::testing::ValuesIn(kPaths), RowName());

// monitor writes its lines as events come, past the output channel: its initial picture too.
TEST_F(KelctlTest, MonitorShowsHostileBytesEscaped) {
    const std::string hostile = script("hostile.conf", kHostileSeed);
    const Outcome watched =
        kelctl({"--seed", hostile, "monitor", "--count", "1", "--timeout", "1"});
    EXPECT_EQ(watched.status, 1) << "no event came within the timeout: " << watched.err;
    expectTerminalSafe(watched.out, "stdout");
    EXPECT_THAT(watched.out, HasSubstr("name=evil\\x1b]0;owned\\x07 apn=bad\\xff.example"));
}

}  // namespace
