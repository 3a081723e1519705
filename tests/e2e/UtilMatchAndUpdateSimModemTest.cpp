// Util against the simulated modem: handles found but not taken, whether a profile may serve
// attach, and the carrier updates by APN class and by APN type.
#include "e2e/UtilSimModemFixture.h"

namespace kel {
namespace {

using namespace utiltest;

// --- Handles found but not taken ---

struct HeldResultsCase {
    const char* name;
    std::function<std::shared_ptr<IProfileKey>(Util&)> operation;
    const char* closingLine;
};

void PrintTo(const HeldResultsCase& c, std::ostream* os) {
    *os << c.name;
}

class UtilHeldResultsSimModemTest : public UtilSimModemTest,
                                    public ::testing::WithParamInterface<HeldResultsCase> {};

TEST_P(UtilHeldResultsSimModemTest, HandlesNotTakenAreReleasedOnlyWhenTheOperationEnds) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    util.setProfileUpdateAllowed(true);

    // All three ims profiles match; one is taken, the other two handles go with the operation.
    std::shared_ptr<IProfileKey> key = GetParam().operation(util);

    ASSERT_TRUE(key);
    std::vector<std::string> lines;
    for (const hostlog::AndroidLogRecord& record : capture.android()) {
        lines.push_back(record.message);
    }
    const std::string closingLine = GetParam().closingLine;
    const auto closing = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.rfind(closingLine, 0) == 0;
    });
    ASSERT_NE(closing, lines.end());
    const auto isRelease = [](const std::string& line) {
        return line.rfind("ProfileCache: releaseProfile token=", 0) == 0;
    };
    EXPECT_EQ(std::count_if(lines.begin(), closing, isRelease), 0);
    EXPECT_EQ(std::count_if(closing, lines.end(), isRelease), 2);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, UtilHeldResultsSimModemTest,
    ::testing::Values(HeldResultsCase{"SetupDataCall",
                                      [](Util& util) {
                                          return util.findOrCreateProfileForSetupDataCall(
                                              TechType::TYPE_3GPP, apnParams("ims"));
                                      },
                                      "kel findOrCreateProfileForSetupDataCall < "},
                      HeldResultsCase{"LteAttach",
                                      [](Util& util) {
                                          return util.findOrCreateProfileForLteAttach(
                                              apnParams("ims"));
                                      },
                                      "kel findOrCreateProfileForLteAttach < "}),
    CaseName());

// --- Whether a profile id may serve attach ---

struct MatchModemProfileCase {
    const char* name;
    bool updateAllowed;
    int id;
    const char* apn;
    IPType home;
    bool matches;
};

class UtilMatchAttachSimModemTest : public UtilSimModemTest,
                                    public ::testing::WithParamInterface<MatchModemProfileCase> {};

TEST_P(UtilMatchAttachSimModemTest, MatchAttachOnModemProfileLoosensIpTypesOnlyWithoutUpdates) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    util.setProfileUpdateAllowed(GetParam().updateAllowed);
    const ProfileParams request = apnParams(GetParam().apn, GetParam().home);

    EXPECT_EQ(util.matchLteAttachProfileId(GetParam().id, request), GetParam().matches);

    const std::string id = std::to_string(GetParam().id);
    EXPECT_TRUE(history("kel matchLteAttachProfileId > Profile id = " + id +
                        " Input Params = " + request.dump()));
    EXPECT_EQ(history("kel matchLteAttachList < " + id), GetParam().matches);
    EXPECT_EQ(history("kel matchLteAttachProfileId < did not match input params"),
              !GetParam().matches);
}

// Profile 1 is the carrier's dual-stack internet profile; 7 exists only as a 3GPP2 profile (of
// the same APN); 42 not at all.
INSTANTIATE_TEST_SUITE_P(
    Cases, UtilMatchAttachSimModemTest,
    ::testing::Values(
        MatchModemProfileCase{"FlagOffSubset", false, 1, "internet", IPType::V4, true},
        MatchModemProfileCase{"FlagOffExact", false, 1, "Internet", IPType::V4V6, true},
        MatchModemProfileCase{"FlagOnSubset", true, 1, "internet", IPType::V4, false},
        MatchModemProfileCase{"FlagOnExact", true, 1, "internet", IPType::V4V6, true},
        MatchModemProfileCase{"OtherApn", false, 1, "ims", IPType::V4V6, false},
        MatchModemProfileCase{"Only3gpp2Id", false, 7, "ims", IPType::V4V6, false},
        MatchModemProfileCase{"UnknownId", false, 42, "ims", IPType::V4V6, false}),
    CaseName());

TEST_F(UtilSimModemTest, MatchAttachRefusesALibraryDataCallProfileAndComparesAnIAOneExactly) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> dataCall = util.findOrCreateProfileForSetupDataCall(
        TechType::TYPE_3GPP, apnParams("corp.example", IPType::V4));
    std::shared_ptr<IProfileKey> ia =
        util.findOrCreateProfileForLteAttach(apnParams("ia.example", IPType::V4V6));
    ASSERT_TRUE(dataCall && ia);
    const int id = dataCall->getProfileId();
    clearLogs();

    EXPECT_FALSE(util.matchLteAttachProfileId(id, apnParams("corp.example", IPType::V4)));
    EXPECT_TRUE(error("Profile id " + std::to_string(id) +
                      " is a KEL profile which is not an IA profile, cannot be used for attach"));
    EXPECT_FALSE(history("kel matchLteAttachProfileId < did not match input params"));

    const int iaId = ia->getProfileId();
    EXPECT_TRUE(util.matchLteAttachProfileId(iaId, apnParams("IA.example", IPType::V4V6)));
    EXPECT_TRUE(history("kel matchLteAttachList < " + std::to_string(iaId)));
    EXPECT_FALSE(util.matchLteAttachProfileId(iaId, apnParams("ia.example", IPType::V4)));
}

// --- Updates by APN class ---

TEST_F(UtilSimModemTest, ApnClassWithoutProfileAddsAPersistentProfileOfEachTechType) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    ProfileParams entry = apnParams("admin.example", IPType::V4V6);
    entry.setApnClass(ApnClass::ADMN);
    const size_t before = modem->profiles(0).size();

    util.updateModemProfileByApnClass({entry}, {entry});

    EXPECT_TRUE(history("kel updateModemProfileByApnClass > "));
    EXPECT_TRUE(history("  3gpp:"));
    EXPECT_TRUE(history("  3gpp2:"));
    EXPECT_TRUE(history("    " + entry.dump()));
    EXPECT_TRUE(
        debug("Did not find a match for APN class and tech type, create a persistent profile"));
    EXPECT_FALSE(error("Could not add profile by APN class"));
    ASSERT_EQ(modem->profiles(0).size(), before + 2);
    bool added3gpp = false;
    bool added3gpp2 = false;
    for (const vexsim::Profile& profile : modem->profiles(0)) {
        const wds_profile_settings_v01& s = profile.settings;
        if (profile.type == k3gpp && s.apn_class_valid && s.apn_class == 2) {
            added3gpp = true;
            EXPECT_STREQ(s.profile_name, "kel_profile");
            EXPECT_STREQ(s.apn_name, "admin.example");
            EXPECT_TRUE(profile.persistent);
        }
        if (profile.type == k3gpp2 && s.apn_class_3gpp2_valid && s.apn_class_3gpp2 == 2) {
            added3gpp2 = true;
            EXPECT_STREQ(s.apn_string, "admin.example");
            EXPECT_TRUE(profile.persistent);
        }
    }
    EXPECT_TRUE(added3gpp);
    EXPECT_TRUE(added3gpp2);
}

// An entry without a class only logs, and an add the modem refuses is logged; neither stops the
// next entry, whose class matches: every profile of that class and tech type is modified.
TEST_F(UtilSimModemTest, ApnClassMatchModifiesEveryProfileOfTheClassAfterEntriesThatFail) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    ProfileParams refused = apnParams("admin.example");
    refused.setApnClass(ApnClass::ADMN);
    ProfileParams ims;
    ims.setApnClass(ApnClass::IMS);
    ims.setUserName("imsuser");
    ims.setApnTypesMask(lib(ApnTypes::IMS) | lib(ApnTypes::XCAP));
    const std::string cdmaIms = vexsim::formatProfile(modemProfile(k3gpp2, 7));
    modem->failNext(1, VEX_WDS_CREATE_PROFILE_REQ_V01);
    const size_t before = modem->profiles(0).size();

    util.updateModemProfileByApnClass({apnParams("noclass.example"), refused, ims}, {});

    EXPECT_TRUE(debug("kel either tech type or apn class is missing"));
    EXPECT_TRUE(error("Could not add profile by APN class"));
    EXPECT_TRUE(debug("Found a match for APN class and tech type, modify the profile"));
    EXPECT_TRUE(history("kel updateModemProfileByApnClass < OK"));
    EXPECT_EQ(modem->profiles(0).size(), before);
    const wds_pdp_type_enum_v01 pdpTypes[] = {WDS_PDP_TYPE_PDP_IPV4_V01, WDS_PDP_TYPE_PDP_IPV6_V01,
                                              WDS_PDP_TYPE_PDP_IPV4V6_V01};
    for (int index = 2; index <= 4; ++index) {
        const vexsim::Profile profile = modemProfile(k3gpp, index);
        EXPECT_STREQ(profile.settings.username, "imsuser") << index;
        EXPECT_EQ(profile.settings.apn_type_mask,
                  WDS_APN_TYPE_MASK_IMS_V01 | WDS_APN_TYPE_MASK_XCAP_V01)
            << index;
        EXPECT_EQ(profile.settings.pdp_type, pdpTypes[index - 2]) << index;
    }
    EXPECT_EQ(vexsim::formatProfile(modemProfile(k3gpp2, 7)), cdmaIms) << "another tech type";
}

// --- Updates by APN type ---

struct ModemMask {
    wds_profile_type_enum_v01 type;
    int index;
    wds_apn_type_mask_v01 mask;
};

struct ApnTypeCase {
    const char* name;
    bool updateAllowed;
    std::vector<ProfileParams> entries;
    std::vector<std::string> debugLines;
    std::vector<ModemMask> expected;
};

class UtilApnTypeSimModemTest : public UtilSimModemTest,
                                public ::testing::WithParamInterface<ApnTypeCase> {};

TEST_P(UtilApnTypeSimModemTest, ApnTypesAreDistributedOverTheProfilesOfTheApn) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    util.setProfileUpdateAllowed(GetParam().updateAllowed);
    const std::list<ProfileParams> entries(GetParam().entries.begin(), GetParam().entries.end());
    const std::vector<std::string> before = modemSnapshot();

    util.updateAPNTypeBitmaskOnModemProfile(entries);

    for (const std::string& line : GetParam().debugLines) {
        EXPECT_TRUE(debug(line)) << line;
    }
    EXPECT_TRUE(history("kel updateAPNTypeBitmaskOnModemProfile < OK"));
    for (const ModemMask& want : GetParam().expected) {
        const vexsim::Profile profile = modemProfile(want.type, want.index);
        EXPECT_EQ(profile.settings.apn_type_mask, want.mask) << want.type << ":" << want.index;
    }
    if (GetParam().expected.empty()) {
        EXPECT_EQ(modemSnapshot(), before) << "an APN without profiles creates nothing";
    }
}

constexpr wds_apn_type_mask_v01 kDefault = WDS_APN_TYPE_MASK_DEFAULT_V01;
constexpr wds_apn_type_mask_v01 kIms = WDS_APN_TYPE_MASK_IMS_V01;
constexpr wds_apn_type_mask_v01 kSupl = WDS_APN_TYPE_MASK_SUPL_V01;
constexpr wds_apn_type_mask_v01 kEmergency = WDS_APN_TYPE_MASK_EMERGENCY_V01;

INSTANTIATE_TEST_SUITE_P(
    Cases, UtilApnTypeSimModemTest,
    ::testing::Values(
        // Only dual-stack profiles: the single-stack types fold into them, on both techs.
        ApnTypeCase{"FoldIntoDualStack",
                    false,
                    {apnTypeEntry("internet", IPType::V4, lib(ApnTypes::DEFAULT)),
                     apnTypeEntry("internet", IPType::V6, lib(ApnTypes::IMS))},
                    {"kel processing APN name internet, V4 mask:0x1, v6 mask0x40:, v4v6 mask:0x0",
                     "kel updating profile id:1, tech type:0, with mask0x41:"},
                    {{k3gpp, 1, kDefault | kIms},
                     {k3gpp2, 1, kDefault | kIms},
                     {k3gpp2, 2, kDefault | kIms}}},
        // Only single-stack profiles: each also receives the dual-stack types.
        ApnTypeCase{"SpreadOverSingleStack",
                    false,
                    {apnTypeEntry("xcap", IPType::V4, lib(ApnTypes::DEFAULT)),
                     apnTypeEntry("xcap", IPType::V6, lib(ApnTypes::IMS)),
                     apnTypeEntry("xcap", IPType::V4V6, lib(ApnTypes::SUPL))},
                    {"kel processing APN name xcap, V4 mask:0x1, v6 mask0x40:, v4v6 mask:0x4",
                     "kel updating profile id:8, tech type:0, with mask0x5:",
                     "kel updating profile id:9, tech type:0, with mask0x44:"},
                    {{k3gpp, 8, kDefault | kSupl}, {k3gpp, 9, kIms | kSupl}}},
        // Ims and ims are one APN; its dual-stack 3GPP profile keeps its types because both
        // single-stack profiles exist, while 3GPP2 has only the dual-stack one.
        ApnTypeCase{"NamesIgnoreCase",
                    false,
                    {apnTypeEntry("Ims", IPType::V4, lib(ApnTypes::IMS)),
                     apnTypeEntry("ims", IPType::V6, lib(ApnTypes::EMERGENCY))},
                    {"kel processing APN name ims, V4 mask:0x40, v6 mask0x200:, v4v6 mask:0x0",
                     "kel updating profile id:2, tech type:0, with mask0x40:",
                     "kel updating profile id:3, tech type:0, with mask0x200:"},
                    {{k3gpp, 2, kIms},
                     {k3gpp, 3, kEmergency},
                     {k3gpp, 4, kIms},
                     {k3gpp2, 7, kIms | kEmergency}}},
        ApnTypeCase{"UpdatesAllowedGiveEveryProfileTheUnion",
                    true,
                    {apnTypeEntry("Ims", IPType::V4, lib(ApnTypes::IMS)),
                     apnTypeEntry("ims", IPType::V6, lib(ApnTypes::EMERGENCY))},
                    {"kel updating profile id:4, tech type:0, with combined mask0x240:",
                     "kel updating profile id:7, tech type:1, with combined mask0x240:"},
                    {{k3gpp, 2, kIms | kEmergency},
                     {k3gpp, 3, kIms | kEmergency},
                     {k3gpp, 4, kIms | kEmergency},
                     {k3gpp2, 7, kIms | kEmergency},
                     {k3gpp, 1, kDefault}}},
        ApnTypeCase{"ApnWithoutProfilesCreatesNothing",
                    false,
                    {apnTypeEntry("unknown.example", IPType::V4, lib(ApnTypes::DEFAULT))},
                    {"kel no match found for apn name:unknown.example, ip type:1, tech type:0",
                     "kel no match found for apn name:unknown.example, ip type:3, tech type:0",
                     "kel no match found for apn name:unknown.example, ip type:2, tech type:0",
                     "kel no match found for apn name:unknown.example, ip type:1, tech type:1",
                     "kel no match found for apn name:unknown.example, ip type:3, tech type:1",
                     "kel no match found for apn name:unknown.example, ip type:2, tech type:1"},
                    {}}),
    CaseName());

TEST_F(UtilSimModemTest, ApnTypeEntriesWithMissingFieldsAreDefaultedAndLogged) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    ProfileParams noMask = apnParams("mms", IPType::V4);
    ProfileParams noIpType = apnParams("xcap");
    noIpType.setApnTypesMask(lib(ApnTypes::DUN));
    ProfileParams noApn;
    noApn.setApnTypesMask(lib(ApnTypes::FOTA));
    const std::list<ProfileParams> entries{noMask, noIpType, noApn};

    util.updateAPNTypeBitmaskOnModemProfile(entries);

    EXPECT_TRUE(error("kel APN type mask not present, setting to 0"));
    EXPECT_TRUE(error("kel Home IP type not present, setting to v4v6"));
    EXPECT_TRUE(history("kel update APN type bitmask on modem profile for " + noMask.dump()));
    EXPECT_TRUE(debug("kel processing APN name mms, V4 mask:0x0, v6 mask0x0:, v4v6 mask:0x0"));
    const vexsim::Profile mms = modemProfile(k3gpp, 5);
    EXPECT_EQ(mms.settings.apn_type_mask, WDS_APN_TYPE_MASK_MMS_V01) << "a zero mask is no update";
    // Without an IP type an entry counts as dual-stack: xcap has no dual-stack profile, so its
    // types spread over both single-stack ones.
    for (int index : {8, 9}) {
        const vexsim::Profile xcap = modemProfile(k3gpp, index);
        EXPECT_EQ(xcap.settings.apn_type_mask, WDS_APN_TYPE_MASK_DUN_V01) << index;
    }
    EXPECT_THAT(capture.androidContaining("kel processing APN name"), ::testing::SizeIs(2))
        << "an entry without APN name takes part in no update";
}

}  // namespace
}  // namespace kel
