// kelctl carrier as a process against its embedded modem: an import converges, accounts for every
// entry, and reads back every setting it set or relied on.
#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;
using ::testing::HasSubstr;
using ::testing::Not;

// A network's internet APN written twice for other bearers, one entry with mms, the other with
// ia: the modem keeps one profile for both.
const char* const kTwoBearers =
    "<apns version=\"8\">\n"
    "  <apn carrier=\"Tel Internet\" mcc=\"262\" mnc=\"91\" apn=\"internet.tel\" "
    "type=\"default,supl,mms\" protocol=\"IPV4V6\" roaming_protocol=\"IPV4V6\" "
    "network_type_bitmask=\"1|2|3\" />\n"
    "  <apn carrier=\"Tel LTE\" mcc=\"262\" mnc=\"91\" apn=\"internet.tel\" "
    "type=\"default,supl,ia\" protocol=\"IPV4V6\" roaming_protocol=\"IPV4V6\" "
    "network_type_bitmask=\"13\" max_conns=\"4\" max_conns_time=\"60\" />\n"
    "  <apn carrier=\"Tel MMS\" mcc=\"262\" mnc=\"91\" apn=\"mms.tel\" type=\"mms\" "
    "protocol=\"IP\" />\n"
    "  <apn carrier=\"Tel Tether\" mcc=\"262\" mnc=\"91\" apn=\"tether.tel\" type=\"dun\" "
    "protocol=\"IPV4V6\" carrier_enabled=\"false\" />\n"
    "  <apn carrier=\"Tel Internet\" mcc=\"262\" mnc=\"91\" apn=\"internet.tel\" "
    "type=\"default,supl,mms\" protocol=\"IPV4V6\" roaming_protocol=\"IPV4V6\" "
    "network_type_bitmask=\"1|2|3\" />\n"
    "</apns>\n";

const char* const kTelSeed =
    "profile 3gpp sub=0 index=1 name=web apn=internet.tel pdp=ipv4v6 lte_roam=ipv4v6 "
    "umts_roam=ipv4v6 types=default\n"
    "profile 3gpp sub=0 index=2 name=ims apn=ims pdp=ipv4v6 class=1 types=ims\n";

class KelctlCarrierImportTest : public KelctlTest {
  protected:
    Outcome import(const std::vector<std::string>& more = {}) {
        std::vector<std::string> args = {"--seed", telSeed, "--state", state,   "carrier",
                                         file,     "--mcc", "262",     "--mnc", "91"};
        args.insert(args.end(), more.begin(), more.end());
        return kelctl(args);
    }

    const std::string telSeed = script("tel.conf", kTelSeed);
    const std::string file = script("tel.xml", kTwoBearers);
};

TEST_F(KelctlCarrierImportTest, SecondIdenticalImportChangesNothingAndSaysSo) {
    const Outcome first = import();
    ASSERT_EQ(first.status, 0) << first.err;
    // The spreading and the attach step agree on the profile's types: set once, not undone.
    EXPECT_THAT(first.out, HasSubstr("updated 3gpp:1: max-conns: - -> 4; max-conns-time: - -> 60; "
                                     "types: default -> default,mms,supl,ia\n"));
    EXPECT_THAT(first.out, HasSubstr("attach: updated 3gpp:1 name=web apn=internet.tel"));

    const Outcome plan = import({"--dry-run"});
    EXPECT_EQ(plan.status, 0) << plan.err;
    EXPECT_THAT(plan.out, HasSubstr("no profile would change\n"));
    EXPECT_THAT(plan.out, HasSubstr("would use 3gpp:1 as it is\n"));

    for (int run = 0; run < 2; ++run) {
        const Outcome again = import();
        EXPECT_EQ(again.status, 0) << again.err;
        EXPECT_THAT(again.out, HasSubstr("no profile changed\n"));
        EXPECT_THAT(again.out, HasSubstr("attach: found 3gpp:1 name=web"));
        EXPECT_THAT(again.out, Not(HasSubstr("\nupdated ")));
        EXPECT_THAT(again.out, HasSubstr("0 profiles updated, 0 created\n"));
    }
    const nlohmann::json profile =
        parsed(kelctl({"--seed", telSeed, "--state", state, "get", "3gpp:1", "--json"}).out);
    EXPECT_EQ(profile["types"], nlohmann::json({"default", "mms", "supl", "ia"}));
}

TEST_F(KelctlCarrierImportTest, EveryEntryIsAccountedForAndTheSummaryAddsUp) {
    const Outcome outcome = import({"--json"});
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    const nlohmann::json report = parsed(outcome.out);
    EXPECT_EQ(report["entries"], nlohmann::json::parse(R"json([
        {"line":2,"carrier":"Tel Internet","fate":"applied","profiles":["3gpp:1"],
         "attach":false},
        {"line":3,"carrier":"Tel LTE","fate":"applied","profiles":["3gpp:1"],"attach":true},
        {"line":4,"carrier":"Tel MMS","fate":"not_applied",
         "reason":"no profile has APN \"mms.tel\" with IP type v4"},
        {"line":5,"carrier":"Tel Tether","fate":"not_applied",
         "reason":"the carrier disabled it (carrier_enabled=\"false\")"
},
        {"line":6,"carrier":"Tel Internet","fate":"merged","merged_into":2}])json"));
    EXPECT_EQ(report["summary"], nlohmann::json::parse(R"json({"entries":5,"applied":2,"merged":1,
        "not_applied":2,"updated":1,"created":0})json"));
    EXPECT_EQ(report["selected"], 5);

    // The text says the same, line for line, and never that nothing changed.
    const Outcome text = import({"--dry-run"});
    EXPECT_THAT(text.out, HasSubstr("line 4 (Tel MMS): would not be applied: no profile has APN "
                                    "\"mms.tel\" with IP type v4\n"
                                    "line 5 (Tel Tether): would not be applied: the carrier "
                                    "disabled it (carrier_enabled=\"false\")\n"
                                    "line 6 (Tel Internet): merged into line 2\n"));
}

TEST_F(KelctlCarrierImportTest, CreatedAttachProfileNeverReadsAsNothingChanged) {
    const std::string bare = script("bare.conf",
                                    "profile 3gpp sub=0 index=2 name=ims apn=ims "
                                    "pdp=ipv4v6 class=1 types=ims\n");
    const Outcome outcome =
        kelctl({"--seed", bare, "--state", state, "carrier", file, "--mcc", "262", "--mnc", "91"});
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_THAT(outcome.out, Not(HasSubstr("no profile changed")));
    EXPECT_THAT(outcome.out, HasSubstr("attach: created 3gpp:1 name=kel_profile_ia "
                                       "apn=internet.tel ip=v4v6 roam-ip=v4v6 "
                                       "types=default,mms,supl,ia"));
    EXPECT_THAT(outcome.out, HasSubstr("line 2 (Tel Internet): applied to 3gpp:1\n"));
    EXPECT_THAT(outcome.out, HasSubstr("0 profiles updated, 1 created\n"));

    const Outcome again =
        kelctl({"--seed", bare, "--state", state, "carrier", file, "--mcc", "262", "--mnc", "91"});
    EXPECT_THAT(again.out, HasSubstr("no profile changed\n"));
    EXPECT_THAT(again.out, HasSubstr("attach: found 3gpp:1"));
}

// The library's loose search takes a profile whose roaming IP type is not the entry's; the
// import leaves it so and says it.
TEST_F(KelctlCarrierImportTest, AttachProfileThatDiffersFromItsEntryIsNamed) {
    const std::string roamV4 =
        script("roam.conf",
               "profile 3gpp sub=0 index=1 name=web apn=internet.tel pdp=ipv4v6 "
               "lte_roam=ipv4 umts_roam=ipv4 types=default\n");
    const Outcome outcome = kelctl({"--seed", roamV4, "--state", state, "carrier", file, "--mcc",
                                    "262", "--mnc", "91", "--json"});
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(
        parsed(outcome.out)["attach"]["differs"],
        nlohmann::json::parse(R"json([{"setting":"roam-ip","entry":"v4v6","profile":"v4"}])json"));
    const Outcome text = kelctl(
        {"--seed", roamV4, "--state", state, "carrier", file, "--mcc", "262", "--mnc", "91"});
    EXPECT_THAT(text.out, HasSubstr("attach: 3gpp:1 keeps roam-ip=v4 where line 3 (Tel LTE) "
                                    "gives v4v6"));

    // Allowed to update, the import sets it, and reads it back.
    const Outcome updated = kelctl({"--seed", roamV4, "--state", state, "carrier", file, "--mcc",
                                    "262", "--mnc", "91", "--allow-update"});
    EXPECT_EQ(updated.status, 0) << updated.err;
    EXPECT_THAT(updated.out, HasSubstr("roam-ip: v4 -> v4v6"));
    EXPECT_THAT(updated.out, Not(HasSubstr("keeps roam-ip")));
}

// Read-back covers every setting: the attach fix-up's timers refused by the modem are named.
TEST_F(KelctlCarrierImportTest, ReadBackNamesEverySettingTheModemDidNotTake) {
    RunningModem modem(dir.path(), telSeed);
    ASSERT_TRUE(modem.isServing());
    ASSERT_THAT(modem.control(dir.path(), {"fail-next", "50", "0x28"}),
                HasSubstr("failing the next 50 requests"));
    const Outcome outcome =
        kelctl({"--modem", dir.path(), "carrier", file, "--mcc", "262", "--mnc", "91", "--json"});
    EXPECT_EQ(outcome.status, 1);
    const nlohmann::json report = parsed(outcome.out);
    EXPECT_EQ(report["not_applied"], nlohmann::json::parse(R"json([
        {"profile":"3gpp:1","setting":"max-conns","wanted":"4","got":"-"},
        {"profile":"3gpp:1","setting":"max-conns-time","wanted":"60","got":"-"},
        {"profile":"3gpp:1","setting":"types","wanted":"default,mms,supl,ia","got":"default"}])json"));
    EXPECT_EQ(report["entries"][0]["fate"], "not_applied");
    EXPECT_EQ(report["summary"]["applied"], 0);
}

// Reading a large file is kelctl's own work: --timeout stops it, says so, and blames no modem.
TEST_F(KelctlCarrierImportTest, TimeoutBoundsReadingTheFileAndSaysWhatRanOut) {
    std::string big = "<apns version=\"8\">\n";
    for (int i = 0; i < 20000; ++i) {
        big += "<apn carrier=\"N\" mcc=\"262\" mnc=\"92\" apn=\"a" + std::to_string(i) +
               ".tel\" type=\"default\" />\n";
    }
    const std::string bigFile = script("big.xml", big + "</apns>\n");
    for (const bool json : {false, true}) {
        std::vector<std::string> args = {"--seed", telSeed, "--timeout", "0.001", "carrier",
                                         bigFile,  "--mcc", "262",       "--mnc", "92"};
        if (json) {
            args.push_back("--json");
        }
        const Outcome outcome = kelctl(args);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_THAT(outcome.err, HasSubstr("--timeout ran out after "));
        EXPECT_THAT(outcome.err, HasSubstr(" of 20000 entries of the network were read; nothing "
                                           "was sent to the modem\n"));
        EXPECT_THAT(outcome.err, Not(HasSubstr("modem answers")));
        if (json) {
            EXPECT_THAT(parsed(outcome.out).value("error", ""), HasSubstr("--timeout ran out"));
        } else {
            EXPECT_EQ(outcome.out, "");
        }
    }
}

// A network whose APNs the modem lacks: without --create nothing of it lands, and it says so;
// with it, each APN and IP type gets a persistent profile with every setting its entry gives.
TEST_F(KelctlCarrierImportTest, CreateAddsAPersistentProfileForEachMissingApn) {
    const std::string lacking =
        script("lacking.xml",
               "<apns version=\"8\">\n"
               "  <apn carrier=\"New MMS\" mcc=\"262\" mnc=\"95\" apn=\"MMS.new\" type=\"mms\" "
               "protocol=\"IP\" roaming_protocol=\"IPV4V6\" authtype=\"1\" user=\"mms\" "
               "password=\"pw\" max_conns=\"3\" max_conns_time=\"30\" wait_time=\"2\" />\n"
               "  <apn carrier=\"New Tether\" mcc=\"262\" mnc=\"95\" apn=\"tether.new\" "
               "type=\"dun\" protocol=\"IPV6\" />\n"
               "  <apn carrier=\"New Tether 4\" mcc=\"262\" mnc=\"95\" apn=\"tether.new\" "
               "type=\"dun,default\" protocol=\"IP\" />\n"
               "</apns>\n");
    const auto run = [&](std::vector<std::string> more) {
        std::vector<std::string> args = {"--seed", telSeed, "--state", state,   "carrier",
                                         lacking,  "--mcc", "262",     "--mnc", "95"};
        args.insert(args.end(), more.begin(), more.end());
        return kelctl(args);
    };

    const Outcome without = run({});
    EXPECT_EQ(without.status, 0) << without.err;
    EXPECT_THAT(without.out, HasSubstr("line 2 (New MMS): not applied: no profile has APN "
                                       "\"mms.new\" with IP type v4\n"));
    EXPECT_THAT(without.out, HasSubstr("summary: 3 entries: 0 applied, 0 merged, 3 not applied"));

    const Outcome plan = run({"--create", "--dry-run"});
    EXPECT_EQ(plan.status, 0) << plan.err;
    EXPECT_THAT(plan.out, HasSubstr("create: line 2 (New MMS): would create apn=mms.new ip=v4 "
                                    "roam-ip=v4v6 types=mms auth=pap user=mms password=<hidden> "
                                    "max-conns=3 max-conns-time=30 wait-time=2\n"
                                    "create: line 3 (New Tether): would create apn=tether.new "
                                    "ip=v6 types=dun\n"
                                    "create: line 4 (New Tether 4): would create apn=tether.new "
                                    "ip=v4 types=default,dun\n"));
    EXPECT_THAT(plan.out, HasSubstr("line 2 (New MMS): would be applied to a new profile\n"));
    EXPECT_THAT(plan.out, HasSubstr("0 profiles would be updated, 3 would be created\n"));

    const Outcome created = run({"--create", "--json"});
    ASSERT_EQ(created.status, 0) << created.err;
    const nlohmann::json report = parsed(created.out);
    EXPECT_EQ(report["not_applied"], nlohmann::json::array()) << "every setting read back";
    ASSERT_EQ(report["created"].size(), 3u);
    const std::string mmsProfile = report["created"][0].value("profile", "");
    EXPECT_EQ(report["entries"][0]["profiles"], nlohmann::json({mmsProfile}));
    // A later run finds it: the embedded modem kept it as persistent.
    const nlohmann::json mms = parsed(
        kelctl({"--seed", telSeed, "--state", state, "--show-secrets", "get", mmsProfile, "--json"})
            .out);
    for (const auto& [key, value] : std::map<std::string, nlohmann::json>{{"apn", "mms.new"},
                                                                          {"ip", "v4"},
                                                                          {"roam_ip", "v4v6"},
                                                                          {"auth", "pap"},
                                                                          {"user", "mms"},
                                                                          {"password", "pw"},
                                                                          {"max_conns", 3},
                                                                          {"max_conns_time", 30},
                                                                          {"wait_time", 2}}) {
        EXPECT_EQ(mms.value(key, nlohmann::json()), value) << key;
    }

    const Outcome again = run({"--create"});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_THAT(again.out, HasSubstr("no profile changed\n"));
    EXPECT_THAT(again.out, HasSubstr("summary: 3 entries: 3 applied, 0 merged, 0 not applied; 0 "
                                     "profiles updated, 0 created\n"));
}

struct NetworkImport {
    const char* name;
    const char* file;  // under tests/data, or the shipped one under data/carrier
    std::vector<std::string> selector;
};

const NetworkImport kNetworkImports[] = {
    {"EdgeCases", "tests/data/apns-networks.xml", {"--mcc", "001", "--mnc", "01"}},
    {"OneDigitMnc", "tests/data/apns-networks.xml", {"--mcc", "002", "--mnc", "0"}},
    {"VirtualOperatorGid",
     "tests/data/apns-networks.xml",
     {"--mcc", "003", "--mnc", "30", "--mvno-type", "gid", "--mvno-match", "2A"}},
    {"VirtualOperatorSpn",
     "tests/data/apns-networks.xml",
     {"--mcc", "003", "--mnc", "30", "--mvno-type", "spn", "--mvno-match", "One"}},
    {"AttachWithLeftovers", "tests/data/apns-networks.xml", {"--mcc", "005", "--mnc", "02"}},
    {"Quirks", "tests/data/apns-quirks.xml", {"--mcc", "001", "--mnc", "01"}},
    {"Shipped", "data/carrier/apns-conf.xml", {"--mcc", "001", "--mnc", "01"}},
};

void PrintTo(const NetworkImport& network, std::ostream* os) {
    *os << network.name;
}

class KelctlNetworkConvergenceTest : public KelctlTest,
                                     public ::testing::WithParamInterface<NetworkImport> {};

// Every network and virtual operator, with and without --create and --allow-update: the second
// identical import changes nothing.
TEST_P(KelctlNetworkConvergenceTest, SecondImportChangesNothing) {
    for (const std::vector<std::string>& mode : std::vector<std::vector<std::string>>{
             {}, {"--create"}, {"--allow-update"}, {"--create", "--allow-update"}}) {
        const std::string modeState =
            dir.file("state" + std::to_string(mode.size()) + (mode.empty() ? "" : mode.front()));
        std::vector<std::string> args = {"--state", modeState, "carrier",
                                         testsupport::sourceDir() + "/" + GetParam().file};
        args.insert(args.end(), GetParam().selector.begin(), GetParam().selector.end());
        args.insert(args.end(), mode.begin(), mode.end());
        const Outcome first = seeded(args);
        ASSERT_EQ(first.status, 0) << first.err;
        args.push_back("--json");
        const Outcome second = seeded(args);
        ASSERT_EQ(second.status, 0) << second.err;
        const nlohmann::json report = parsed(second.out);
        EXPECT_EQ(report["updates"], nlohmann::json::array()) << first.out << second.out;
        EXPECT_EQ(report["summary"]["created"], 0) << second.out;
        if (!report["attach"].is_null()) {
            EXPECT_EQ(report["attach"]["action"], "found") << second.out;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Networks, KelctlNetworkConvergenceTest,
                         ::testing::ValuesIn(kNetworkImports),
                         [](const auto& testCase) { return std::string(testCase.param.name); });

}  // namespace
