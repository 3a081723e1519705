// kelctl carrier as a process against its embedded modem: an import converges, accounts for every
// entry, and reads back every setting it set or relied on.
#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;

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
    // The network 262 91 of the file, into the state file that starts from the seed.
    Outcome import(const std::vector<std::string>& more = {}, const std::string& from = "") {
        return kelctl(joined({"--seed", from.empty() ? telSeed : from, "--state", state, "carrier",
                              file, "--mcc", "262", "--mnc", "91"},
                             more));
    }

    const std::string telSeed = script("tel.conf", kTelSeed);
    const std::string file = script("tel.xml", kTwoBearers);
};

TEST_F(KelctlCarrierImportTest, SecondIdenticalImportChangesNothingAndSaysSo) {
    const Outcome first = succeeded(import());
    // The spreading and the attach step agree on the profile's types: set once, not undone.
    EXPECT_THAT(first.out, HasSubstr("updated 3gpp:1: max-conns: - -> 4; max-conns-time: - -> 60; "
                                     "types: default -> default,mms,supl,ia\n"));
    EXPECT_THAT(first.out, HasSubstr("attach: updated 3gpp:1 name=web apn=internet.tel"));

    const Outcome plan = succeeded(import({"--dry-run"}));
    EXPECT_THAT(plan.out, HasSubstr("no profile would change\n"));
    EXPECT_THAT(plan.out, HasSubstr("would use 3gpp:1 as it is\n"));

    const Outcome again = succeeded(import());
    EXPECT_THAT(again.out, HasSubstr("no profile changed\n"));
    EXPECT_THAT(again.out, HasSubstr("attach: found 3gpp:1 name=web"));
    EXPECT_THAT(again.out, HasSubstr("0 profiles updated, 0 created\n"));
    const nlohmann::json profile =
        parsed(kelctl({"--seed", telSeed, "--state", state, "get", "3gpp:1", "--json"}).out);
    EXPECT_EQ(profile["types"], nlohmann::json({"default", "mms", "supl", "ia"}));
}

TEST_F(KelctlCarrierImportTest, EveryEntryIsAccountedForAndTheSummaryAddsUp) {
    const Outcome outcome = succeeded(import({"--json"}));
    const nlohmann::json report = parsed(outcome.out);
    EXPECT_EQ(report["entries"], nlohmann::json::parse(R"json([
        {"line":2,"carrier":"Tel Internet","fate":"applied","profiles":["3gpp:1"],
         "attach":false},
        {"line":3,"carrier":"Tel LTE","fate":"applied","profiles":["3gpp:1"],"attach":true},
        {"line":4,"carrier":"Tel MMS","fate":"not_applied",
         "reason":"no profile has APN \"mms.tel\" with IP type v4"},
        {"line":5,"carrier":"Tel Tether","fate":"not_applied",
         "reason":"the carrier disabled it (carrier_enabled=\"false\")"},
        {"line":6,"carrier":"Tel Internet","fate":"merged","merged_into":2}])json"));
    EXPECT_EQ(report["summary"], nlohmann::json::parse(R"json({"entries":5,"applied":2,"merged":1,
        "not_applied":2,"updated":1,"created":0})json"));
    EXPECT_EQ(report["selected"], 5);
}

TEST_F(KelctlCarrierImportTest, CreatedAttachProfileNeverReadsAsNothingChanged) {
    const std::string bare = script("bare.conf",
                                    "profile 3gpp sub=0 index=2 name=ims apn=ims "
                                    "pdp=ipv4v6 class=1 types=ims\n");
    const Outcome outcome = succeeded(import({}, bare));
    EXPECT_THAT(outcome.out, Not(HasSubstr("no profile changed")));
    EXPECT_THAT(outcome.out, HasSubstr("attach: created 3gpp:1 name=kel_profile_ia "
                                       "apn=internet.tel ip=v4v6 roam-ip=v4v6 "
                                       "types=default,mms,supl,ia"));
    EXPECT_THAT(outcome.out, HasSubstr("line 2 (Tel Internet): applied to 3gpp:1\n"));
    EXPECT_THAT(outcome.out, HasSubstr("0 profiles updated, 1 created\n"));
}

// The library's loose search takes a profile whose roaming IP type is not the entry's; the
// import leaves it so and says it.
TEST_F(KelctlCarrierImportTest, AttachProfileThatDiffersFromItsEntryIsNamed) {
    const std::string roamV4 =
        script("roam.conf",
               "profile 3gpp sub=0 index=1 name=web apn=internet.tel pdp=ipv4v6 "
               "lte_roam=ipv4 umts_roam=ipv4 types=default\n");
    const Outcome outcome = succeeded(import({"--json"}, roamV4));
    EXPECT_EQ(
        parsed(outcome.out)["attach"]["differs"],
        nlohmann::json::parse(R"json([{"setting":"roam-ip","entry":"v4v6","profile":"v4"}])json"));
    const Outcome text = import({}, roamV4);
    EXPECT_THAT(text.out, HasSubstr("attach: 3gpp:1 keeps roam-ip=v4 where line 3 (Tel LTE) "
                                    "gives v4v6"));

    // Allowed to update, the import sets it, and reads it back.
    const Outcome updated = succeeded(import({"--allow-update"}, roamV4));
    EXPECT_THAT(updated.out, HasSubstr("roam-ip: v4 -> v4v6"));
    EXPECT_THAT(updated.out, Not(HasSubstr("keeps roam-ip")));
}

// Read-back covers every setting: the attach fix-up's timers refused by the modem are named, in
// the report and in the text.
TEST_F(KelctlCarrierImportTest, ReadBackNamesEverySettingTheModemDidNotTake) {
    RunningModem modem(dir.path(), telSeed);
    modem.control({"fail-next", "50", "0x28"});
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
    EXPECT_EQ(report["updates"], nlohmann::json::array());
    // The report stands under --json although the run failed, with the error beside it.
    EXPECT_EQ(report.value("error", ""),
              "3 settings were not applied (the \"not applied\" lines name them)");
    EXPECT_THAT(outcome.err, ::testing::EndsWith("\nkelctl: carrier: 3 settings were not applied "
                                                 "(the \"not applied\" lines name them)\n"));

    modem.control({"fail-next", "50", "0x28"});
    const Outcome text =
        kelctl({"--modem", dir.path(), "carrier", file, "--mcc", "262", "--mnc", "91"});
    EXPECT_EQ(text.status, 1);
    EXPECT_THAT(text.out, HasSubstr("no profile changed\n"));
    EXPECT_THAT(text.out, HasSubstr("not applied: 3gpp:1 types: asked for default,mms,supl,ia, "
                                    "the modem has default\n"));
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
    const auto importLacking = [&](const std::vector<std::string>& more) {
        return kelctl(joined({"--seed", telSeed, "--state", state, "carrier", lacking, "--mcc",
                              "262", "--mnc", "95"},
                             more));
    };

    const Outcome without = succeeded(importLacking({}));
    EXPECT_THAT(without.out, HasSubstr("line 2 (New MMS): not applied: no profile has APN "
                                       "\"mms.new\" with IP type v4\n"));
    EXPECT_THAT(without.out, HasSubstr("summary: 3 entries: 0 applied, 0 merged, 3 not applied"));

    const Outcome plan = succeeded(importLacking({"--create", "--dry-run"}));
    EXPECT_THAT(plan.out, HasSubstr("create: line 2 (New MMS): would create apn=mms.new ip=v4 "
                                    "roam-ip=v4v6 types=mms auth=pap user=mms password=<hidden> "
                                    "max-conns=3 max-conns-time=30 wait-time=2\n"
                                    "create: line 3 (New Tether): would create apn=tether.new "
                                    "ip=v6 types=dun\n"
                                    "create: line 4 (New Tether 4): would create apn=tether.new "
                                    "ip=v4 types=default,dun\n"));
    EXPECT_THAT(plan.out, HasSubstr("line 2 (New MMS): would be applied to a new profile\n"));
    EXPECT_THAT(plan.out, HasSubstr("0 profiles would be updated, 3 would be created\n"));

    const Outcome created = succeeded(importLacking({"--create", "--json"}));
    const nlohmann::json report = parsed(created.out);
    EXPECT_EQ(report["not_applied"], nlohmann::json::array()) << "every setting read back";
    ASSERT_EQ(report["created"].size(), 3u);
    const std::string mmsProfile = report["created"][0].value("profile", "");
    EXPECT_EQ(report["entries"][0]["profiles"], nlohmann::json({mmsProfile}));
    // A later run finds it: the embedded modem kept it as persistent.
    const nlohmann::json mms = parsed(
        kelctl({"--seed", telSeed, "--state", state, "--show-secrets", "get", mmsProfile, "--json"})
            .out);
    const nlohmann::json expected = nlohmann::json::parse(R"({"apn": "mms.new", "ip": "v4",
        "roam_ip": "v4v6", "auth": "pap", "user": "mms", "password": "pw", "max_conns": 3,
        "max_conns_time": 30, "wait_time": 2})");
    for (const auto& setting : expected.items()) {
        EXPECT_EQ(mms.value(setting.key(), nlohmann::json()), setting.value()) << setting.key();
    }

    const Outcome again = succeeded(importLacking({"--create"}));
    EXPECT_THAT(again.out, HasSubstr("no profile changed\n"));
    EXPECT_THAT(again.out, HasSubstr("summary: 3 entries: 3 applied, 0 merged, 0 not applied; 0 "
                                     "profiles updated, 0 created\n"));
}

struct NetworkImport : Row {
    const char* file;  // under tests/data, or the shipped one under data/carrier
    std::vector<std::string> selector;
};

const NetworkImport kNetworkImports[] = {
    {"EdgeCases", "tests/data/apns-networks.xml", {"--mcc", "001", "--mnc", "01"}},
    {"OneDigitMnc", "tests/data/apns-networks.xml", {"--mcc", "002", "--mnc", "0"}},
    {"VirtualOperatorGid",
     "tests/data/apns-networks.xml",
     {"--mcc", "003", "--mnc", "30", "--mvno-type", "gid", "--mvno-match", "2A"}},
    {"AttachWithLeftovers", "tests/data/apns-networks.xml", {"--mcc", "005", "--mnc", "02"}},
    {"Quirks", "tests/data/apns-quirks.xml", {"--mcc", "001", "--mnc", "01"}},
    {"Shipped", "data/carrier/apns-conf.xml", {"--mcc", "001", "--mnc", "01"}},
};

class KelctlNetworkConvergenceTest : public KelctlTest,
                                     public ::testing::WithParamInterface<NetworkImport> {};

// Every network and virtual operator, with and without --create and --allow-update: the second
// identical import changes nothing.
TEST_P(KelctlNetworkConvergenceTest, SecondImportChangesNothing) {
    for (const std::vector<std::string>& mode : std::vector<std::vector<std::string>>{
             {}, {"--create"}, {"--allow-update"}, {"--create", "--allow-update"}}) {
        const std::string modeState =
            dir.file("state" + std::to_string(mode.size()) + (mode.empty() ? "" : mode.front()));
        std::vector<std::string> args = joined(
            joined(
                {"--state", modeState, "carrier", testsupport::sourceDir() + "/" + GetParam().file},
                GetParam().selector),
            mode);
        const Outcome first = succeeded(seeded(args));
        args.push_back("--json");
        const Outcome second = succeeded(seeded(args));
        const nlohmann::json report = parsed(second.out);
        EXPECT_EQ(report["updates"], nlohmann::json::array()) << first.out << second.out;
        EXPECT_EQ(report["summary"]["created"], 0) << second.out;
        if (!report["attach"].is_null()) {
            EXPECT_EQ(report["attach"]["action"], "found") << second.out;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Networks, KelctlNetworkConvergenceTest,
                         ::testing::ValuesIn(kNetworkImports), RowName());

// --- Carrier APN configuration ---

TEST_F(KelctlTest, CarrierVerboseDryRunMapsEveryQuirk) {
    const std::string file = dataFile("apns-quirks.xml");
    const Outcome outcome = succeeded(seeded({"--state", state, "carrier", file, "--mcc", "001",
                                              "--mnc", "01", "--dry-run", "--verbose"}));
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

    const Outcome quiet = seeded({"carrier", file, "--mcc", "001", "--mnc", "01", "--dry-run"});
    EXPECT_THAT(quiet.out, Not(HasSubstr("ignored")));
    EXPECT_EQ(quiet.err, "");
}

TEST_F(KelctlTest, CarrierPlanOnTheShippedSeedShowsTheChangesAndChangesNothing) {
    const std::string shippedSeed = testsupport::sourceDir() + "/data/modem-seed.conf";
    const std::string file = testsupport::sourceDir() + "/data/carrier/apns-conf.xml";
    RunningModem modem(dir.path(), shippedSeed);
    const std::string before = modem.control({"profiles"});

    const Outcome plan = succeeded(kelctl(
        {"--modem", dir.path(), "carrier", file, "--mcc", "001", "--mnc", "01", "--dry-run"}));
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
    EXPECT_EQ(modem.control({"profiles"}), before);
}

// The file's first network carries each quirk that once cost an import: an attach entry without
// APN whose IP types are the IMS profile's, an unsupported roaming protocol, entries that differ
// only by network type, and an APN repeated for other bearers.
TEST_F(KelctlTest, CarrierImportLeavesImsAloneAndAppliesTheRestWithWarnings) {
    const std::string file = dataFile("apns-networks.xml");
    const Outcome outcome =
        succeeded(seeded({"--state", state, "carrier", file, "--mcc", "001", "--mnc", "01"}));
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

    EXPECT_THAT(seeded({"--state", state, "get", "3gpp:2"}).out, HasSubstr("types ims,mcx,xcap\n"));
}

TEST_F(KelctlTest, CarrierKeepsEntriesThatDifferOnlyByTheirPassword) {
    const std::string file = script("passwords.xml",
                                    "<apns version=\"8\">\n"
                                    "<apn carrier=\"A\" mcc=\"006\" mnc=\"01\" apn=\"vpn.test\" "
                                    "type=\"default\" user=\"u\" password=\"one\" />\n"
                                    "<apn carrier=\"B\" mcc=\"006\" mnc=\"01\" apn=\"vpn.test\" "
                                    "type=\"default\" user=\"u\" password=\"two\" />\n"
                                    "</apns>\n");
    const Outcome plan = succeeded(
        seeded({"carrier", file, "--mcc", "006", "--mnc", "01", "--dry-run", "--verbose"}));
    EXPECT_THAT(plan.out, HasSubstr("line 2 (A): "));
    EXPECT_THAT(plan.out, HasSubstr("line 3 (B): "));
    EXPECT_THAT(plan.err, Not(HasSubstr("merged"))) << "hidden passwords are not the same";
}

struct NetworkCase : Row {
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
    // The type and a gid match in either case.
    {"OneVirtualOperator",
     {"--mcc", "003", "--mnc", "30", "--mvno-type", "GID", "--mvno-match", "2a"},
     0,
     "apn=two.test"},
    {"UnknownVirtualOperator",
     {"--mcc", "003", "--mnc", "30", "--mvno-type", "spn", "--mvno-match", "Three"},
     2,
     "no entry for mcc 003 mnc 30 spn \"Three\"; its virtual operators: --mvno-type spn "
     "--mvno-match \"One\", --mvno-type gid --mvno-match \"2A\"\n"},
    {"UnknownNetwork", {"--mcc", "998", "--mnc", "01"}, 2, "no entry for mcc 998 mnc 01\n"},
};

class KelctlCarrierNetworkTest : public KelctlTest,
                                 public ::testing::WithParamInterface<NetworkCase> {};

TEST_P(KelctlCarrierNetworkTest, IsSelectedOrNamesWhatToChoose) {
    const NetworkCase& network = GetParam();
    const std::string file = dataFile("apns-networks.xml");
    const Outcome outcome =
        seeded(joined(joined({"carrier", file}, network.selector), {"--dry-run", "--verbose"}));
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
                         RowName());

TEST_F(KelctlTest, CarrierNamesWhatAnEarlierImportLeftOnTheAttachProfile) {
    const std::string file = dataFile("apns-networks.xml");
    const Outcome first =
        succeeded(seeded({"--state", state, "carrier", file, "--mcc", "005", "--mnc", "01"}));
    EXPECT_THAT(first.out, HasSubstr("attach: created 3gpp:5 name=kel_profile_ia apn=lte.first"));

    const Outcome second =
        succeeded(seeded({"--state", state, "carrier", file, "--mcc", "005", "--mnc", "02"}));
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
    const auto noSecret = [](const Outcome& outcome) {
        EXPECT_THAT(outcome.out, Not(HasSubstr("hunter2")));
        EXPECT_THAT(outcome.err, Not(HasSubstr("hunter2")));
    };

    // The plan of a new attach profile: its settings line and its JSON changes.
    const Outcome plan = succeeded(seeded(joined(first, {"--dry-run"})));
    EXPECT_THAT(plan.out, HasSubstr("would create the attach profile: apn=lte.first ip=v4v6 "
                                    "types=default,ia auth=pap user=spy password=<hidden>\n"));
    noSecret(plan);
    const Outcome planJson = succeeded(seeded(joined(first, {"--dry-run", "--json"})));
    const nlohmann::json planned = parsed(planJson.out);  // one document, nothing beside it
    EXPECT_EQ(planned["dry_run"], true);
    EXPECT_THAT(planned["attach"]["changes"].dump(),
                HasSubstr(R"({"from":"-","setting":"password","to":"<hidden>"})"));
    noSecret(planJson);
    EXPECT_THAT(seeded(joined(first, {"--dry-run", "--show-secrets"})).out,
                HasSubstr("user=spy password=hunter2\n"));

    // Applied: the attach summary; then a second network's entry keeps the password.
    const Outcome applied = succeeded(seeded(first));
    EXPECT_THAT(applied.out, HasSubstr("attach: created 3gpp:5 name=kel_profile_ia apn=lte.first "
                                       "ip=v4v6 types=default,ia auth=pap user=spy "
                                       "password=<hidden> flags=kel,ia\n"));
    noSecret(applied);
    const Outcome kept = succeeded(seeded(joined(second, {"--json"})));
    EXPECT_EQ(parsed(kept.out)["attach"]["kept"],
              nlohmann::json({"user=spy", "password=<hidden>", "auth=pap"}));
    noSecret(kept);
    const Outcome shown = seeded(joined(second, {"--show-secrets"}));
    EXPECT_THAT(shown.out, HasSubstr("attach: 3gpp:5 keeps user=spy, password=hunter2, auth=pap "
                                     "from before; line 3 (Open Attach) does not set them\n"));
}

TEST_F(KelctlTest, CarrierValueKelctlCannotMapCostsOnlyThatSetting) {
    const std::string file = script("values.xml",
                                    "<apns>\n"
                                    "<apn mcc=\"001\" mnc=\"01\" apn=\"ims\" type=\"ims,xcap\"\n"
                                    "  max_conns=\"ten\" authtype=\"4\" protocol=\"PPP\"/>\n"
                                    "<apn mcc=\"001\" mnc=\"01\" apn=\"\xFFodd\" type=\"mms\"\n"
                                    "  carrier_enabled=\"maybe\xFE\"/>\n"
                                    "</apns>\n");
    const Outcome outcome = succeeded(seeded({"carrier", file, "--mcc", "001", "--mnc", "01"}));
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

struct MalformedCase : Row {
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

class KelctlMalformedCarrierTest : public KelctlTest,
                                   public ::testing::WithParamInterface<MalformedCase> {};

TEST_P(KelctlMalformedCarrierTest, IsRefusedWithItsLineNumberAndNothingSent) {
    const MalformedCase& bad = GetParam();
    const std::string file = bad.text.empty() ? dataFile(bad.file) : script(bad.file, bad.text);
    RunningModem modem(dir.path(), seed);
    const std::string before = modem.control({"profiles"});

    const Outcome outcome =
        kelctl({"--modem", dir.path(), "carrier", file, "--mcc", "001", "--mnc", "01"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, StartsWith("kelctl: carrier: " + file + ":" + bad.error));
    EXPECT_EQ(countOf(outcome.err, "\n"), 1) << outcome.err;
    EXPECT_EQ(modem.control({"profiles"}), before);
}

INSTANTIATE_TEST_SUITE_P(Files, KelctlMalformedCarrierTest, ::testing::ValuesIn(kMalformedCases),
                         RowName());

}  // namespace
