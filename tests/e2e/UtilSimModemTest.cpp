// End to end: the profile policy (kel::Util) through Manager against the embedded simulated
// modem, seeded with a carrier's profiles. Every test checks what ends up on the modem as well as
// the handles returned and the log.
#include "e2e/UtilSimModemFixture.h"

namespace kel {
namespace {

using namespace utiltest;

// --- Util itself ---

TEST_F(UtilSimModemTest, LogsItsLifetimeAndEveryChangeOfTheUpdateFlag) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    { Util other; }
    util.setProfileUpdateAllowed(true);
    util.setProfileUpdateAllowed(false);

    EXPECT_TRUE(debug("kel::Util: constructor"));
    EXPECT_TRUE(debug("kel::Util: destructor"));
    EXPECT_TRUE(history("kel::Util: profileUpdateAllowed true"));
    EXPECT_TRUE(history("kel::Util: profileUpdateAllowed false"));
}

// --- Setup data call ---

TEST_F(UtilSimModemTest, SetupDataCallFindsDualStackProfileOnlyInSubsetRetry) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    const std::vector<std::string> before = modemSnapshot();

    std::shared_ptr<IProfileKey> key = util.findOrCreateProfileForSetupDataCall(
        TechType::TYPE_3GPP, apnParams("internet", IPType::V4));

    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 1);
    EXPECT_EQ(key->getTechType(), TechType::TYPE_3GPP);
    const std::vector<std::string> filters = filtersSent();
    ASSERT_EQ(filters.size(), 2u);
    EXPECT_THAT(filters[0], Not(HasSubstr("HomeIPSubset")));
    EXPECT_THAT(filters[1], HasSubstr("HomeIPSubset|HomeIPSuperset|"));
    EXPECT_TRUE(history("found existing setupDataCall profile"));
    EXPECT_FALSE(history("Modifying profile with input parameters"));
    EXPECT_TRUE(history("kel findOrCreateProfileForSetupDataCall < " + key->dump()));

    key.reset();
    EXPECT_EQ(modemSnapshot(), before) << "a carrier profile stays when the call drops it";
}

TEST_F(UtilSimModemTest, SetupDataCallWithUpdatesAllowedTakesAnyIpTypeAndModifiesIt) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    util.setProfileUpdateAllowed(true);
    ProfileParams request = apnParams("mms", IPType::V6);
    request.setUserName("mmsuser");

    std::shared_ptr<IProfileKey> key =
        util.findOrCreateProfileForSetupDataCall(TechType::TYPE_3GPP, request);

    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 5);
    EXPECT_EQ(filtersSent().size(), 1u);
    EXPECT_TRUE(history("Modifying profile with input parameters"));
    const vexsim::Profile mms = modemProfile(k3gpp, 5);
    EXPECT_EQ(mms.settings.pdp_type, WDS_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_STREQ(mms.settings.username, "mmsuser");
    EXPECT_EQ(mms.settings.apn_type_mask, WDS_APN_TYPE_MASK_MMS_V01);
}

// A 3GPP2 profile is taken only for its user; with none, one of that user is added, nameless, and
// leaves with its handle.
struct UserNameCase {
    const char* name;
    TechType techType;
    const char* userName;
    int expectedId;  // 0: added
};

class UtilUserNameSimModemTest : public UtilSimModemTest,
                                 public ::testing::WithParamInterface<UserNameCase> {};

TEST_P(UtilUserNameSimModemTest, SetupDataCallFilters3gpp2ProfilesOnUserName) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    ProfileParams request = apnParams("internet", IPType::V4V6);
    request.setUserName(GetParam().userName);

    std::shared_ptr<IProfileKey> key =
        util.findOrCreateProfileForSetupDataCall(GetParam().techType, request);

    ASSERT_TRUE(key);
    EXPECT_EQ(key->getTechType(), GetParam().techType);
    const bool added = GetParam().expectedId == 0;
    EXPECT_EQ(history("found existing setupDataCall profile"), !added);
    if (!added) {
        EXPECT_EQ(key->getProfileId(), GetParam().expectedId);
        return;
    }
    const int id = key->getProfileId();
    const vexsim::Profile profile = modemProfile(k3gpp2, id);
    EXPECT_STREQ(profile.settings.user_id, GetParam().userName);
    EXPECT_STREQ(profile.settings.apn_string, "internet");
    EXPECT_FALSE(profile.settings.profile_name_valid);
    key.reset();
    EXPECT_FALSE(onModem(k3gpp2, id));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, UtilUserNameSimModemTest,
    ::testing::Values(UserNameCase{"Cdma3gpp2User", TechType::TYPE_3GPP2, "cdmauser", 1},
                      UserNameCase{"Roam3gpp2User", TechType::TYPE_3GPP2, "roamuser", 2},
                      UserNameCase{"UserIgnoredOn3gpp", TechType::TYPE_3GPP, "stranger", 1},
                      UserNameCase{"No3gpp2UserAdds", TechType::TYPE_3GPP2, "stranger", 0}),
    CaseName());

// --- Emergency data call ---

// Profile 6 is the carrier's emergency profile: found by the requested APN's name where it
// supports emergency calls, else among every profile that does; either way it stays as it is.
struct EmergencyCase {
    const char* name;
    ProfileParams request;
    bool updateAllowed;
    size_t filters;
    bool byName;
};

class UtilEmergencySimModemTest : public UtilSimModemTest,
                                  public ::testing::WithParamInterface<EmergencyCase> {};

TEST_P(UtilEmergencySimModemTest, EmergencyCallTakesTheEmergencyProfileUnchanged) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    util.setProfileUpdateAllowed(GetParam().updateAllowed);
    const std::vector<std::string> before = modemSnapshot();

    std::shared_ptr<IProfileKey> key =
        util.findOrCreateProfileForEmergencyDataCall(GetParam().request);

    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 6);
    EXPECT_EQ(filtersSent().size(), GetParam().filters);
    EXPECT_EQ(history("found an emergency profile by name"), GetParam().byName);
    EXPECT_EQ(history("found a profile that supports emergency calls"), !GetParam().byName);
    EXPECT_TRUE(history("kel findOrCreateProfileForEmergencyDataCall < " + key->dump()));
    EXPECT_EQ(modemSnapshot(), before);
}

ProfileParams sosRequest() {
    ProfileParams request = apnParams("sos", IPType::V4);
    request.setUserName("caller");
    request.setApnTypesMask(lib(ApnTypes::DEFAULT));
    return request;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, UtilEmergencySimModemTest,
    ::testing::Values(EmergencyCase{"ByNameEvenWithUpdatesAllowed", sosRequest(), true, 1, true},
                      EmergencyCase{"ApnWithoutEmergency", apnParams("internet"), false, 2, false},
                      EmergencyCase{"NoApnSkipsSearchByName", ProfileParams(), false, 1, false}),
    CaseName());

class UtilNoEmergencySimModemTest : public UtilSimModemTest {
  protected:
    UtilNoEmergencySimModemTest() { config.seedText = kNoEmergencySeed; }
};

TEST_F(UtilNoEmergencySimModemTest, EmergencyCallCreatesPersistentEmergencyOnlyProfile) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    ProfileParams request = apnParams("sos", IPType::V4V6);
    request.setApnTypesMask(lib(ApnTypes::DEFAULT) | lib(ApnTypes::IMS));

    std::shared_ptr<IProfileKey> key = util.findOrCreateProfileForEmergencyDataCall(request);

    ASSERT_TRUE(key);
    EXPECT_TRUE(history("emergency profile created"));
    const int id = key->getProfileId();
    const vexsim::Profile created = modemProfile(k3gpp, id);
    EXPECT_STREQ(created.settings.profile_name, "kel_profile");
    EXPECT_STREQ(created.settings.apn_name, "sos");
    EXPECT_TRUE(created.persistent);
    EXPECT_TRUE(created.settings.support_emergency_calls_valid &&
                created.settings.support_emergency_calls);
    EXPECT_EQ(created.settings.apn_type_mask, WDS_APN_TYPE_MASK_EMERGENCY_V01);

    key.reset();
    EXPECT_TRUE(onModem(k3gpp, id)) << "an emergency profile outlives its call";
}

// --- LTE attach ---

TEST_F(UtilSimModemTest, AttachTakesExactModemMatchAndAppliesTheRequestedSettings) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    ProfileParams request = apnParams("internet", IPType::V4V6);
    request.setRoamIPType(IPType::V4V6);
    request.setUserName("attach");
    request.setPassword("secret");
    request.setAuthType(AuthType::CHAP);
    request.setApnTypesMask(lib(ApnTypes::DEFAULT) | lib(ApnTypes::IA));
    request.setMaxPdnsConnPerBlock(20);

    std::shared_ptr<IProfileKey> key = util.findOrCreateProfileForLteAttach(request);

    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 1);
    EXPECT_TRUE(history("kel Found an exact match modem or KEL IA profile for attach"));
    EXPECT_TRUE(history("kel Modifying profile identified for IA"));
    const vexsim::Profile internet = modemProfile(k3gpp, 1);
    EXPECT_STREQ(internet.settings.username, "attach");
    EXPECT_STREQ(internet.settings.password, "secret");
    EXPECT_EQ(internet.settings.authentication_preference, 2);
    EXPECT_EQ(internet.settings.apn_type_mask,
              WDS_APN_TYPE_MASK_DEFAULT_V01 | WDS_APN_TYPE_MASK_IA_V01);
    EXPECT_EQ(internet.settings.max_pdn_conn_per_block, 20);
    EXPECT_EQ(internet.settings.pdp_type, WDS_PDP_TYPE_PDP_IPV4V6_V01);
    EXPECT_TRUE(onModemNamed("kel_profile_ia").empty());
}

// The data call's own profile is not persistent and leaves with its last handle.
TEST_F(UtilSimModemTest, AttachPassesOverAnAddedDataCallProfileLettingGoOfItAndCreatesAnIAProfile) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> dataCall = util.findOrCreateProfileForSetupDataCall(
        TechType::TYPE_3GPP, apnParams("corp.example", IPType::V4));
    ASSERT_TRUE(dataCall);
    EXPECT_TRUE(history("setupDataCall profile added"));
    const int dataCallId = dataCall->getProfileId();
    const vexsim::Profile added = modemProfile(k3gpp, dataCallId);
    EXPECT_STREQ(added.settings.profile_name, "kel_profile");
    EXPECT_STREQ(added.settings.apn_name, "corp.example");
    EXPECT_EQ(added.settings.pdp_type, WDS_PDP_TYPE_PDP_IPV4_V01);
    EXPECT_FALSE(added.persistent);
    const std::string release =
        "ProfileCache: releaseProfile token=" + std::to_string(e2e::tokenOf(dataCall));
    clearLogs();

    std::shared_ptr<IProfileKey> attach =
        util.findOrCreateProfileForLteAttach(apnParams("corp.example", IPType::V4));

    ASSERT_TRUE(attach);
    EXPECT_NE(attach->getProfileId(), dataCallId);
    EXPECT_FALSE(history("kel Found an exact match modem or KEL IA profile for attach"));
    EXPECT_FALSE(history("kel Found a loose match profile for attach"));
    EXPECT_TRUE(history("kel KEL IA profile created for attach"));
    // The history keeps the filters and releases (History level), in order, after a time stamp.
    std::vector<std::string> lines;
    for (const std::string& line : LocalLogBuffer::getInstance()->getLogs()) {
        lines.push_back(line.substr(line.find("[KEL]") + 5));
    }
    const auto isFilter = [](const std::string& line) {
        return line.rfind("Manager::filter > ", 0) == 0;
    };
    const auto exactFilter = std::find_if(lines.begin(), lines.end(), isFilter);
    ASSERT_NE(exactFilter, lines.end());
    const auto looseFilter = std::find_if(std::next(exactFilter), lines.end(), isFilter);
    ASSERT_NE(looseFilter, lines.end());
    // The data-call profile's handle from the exact search, and only that one, goes in between;
    // the test's own handle keeps the profile.
    EXPECT_EQ(std::count(exactFilter, looseFilter, release), 1);
    EXPECT_EQ(std::count(looseFilter, lines.end(), release), 0);
    const int attachId = attach->getProfileId();
    const vexsim::Profile ia = modemProfile(k3gpp, attachId);
    EXPECT_STREQ(ia.settings.profile_name, "kel_profile_ia");
    EXPECT_STREQ(ia.settings.apn_name, "corp.example");
    EXPECT_TRUE(ia.persistent);

    dataCall.reset();
    attach.reset();
    EXPECT_FALSE(onModem(k3gpp, dataCallId));
    EXPECT_TRUE(onModem(k3gpp, attachId));
}

struct LooseAttachCase {
    const char* name;
    bool updateAllowed;
    IPType home;
    bool takesMms;
    wds_pdp_type_enum_v01 mmsPdpAfter;
};

class UtilLooseAttachSimModemTest : public UtilSimModemTest,
                                    public ::testing::WithParamInterface<LooseAttachCase> {};

TEST_P(UtilLooseAttachSimModemTest, AttachLooseSearchFollowsTheUpdateFlag) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    util.setProfileUpdateAllowed(GetParam().updateAllowed);

    std::shared_ptr<IProfileKey> key =
        util.findOrCreateProfileForLteAttach(apnParams("mms", GetParam().home));

    ASSERT_TRUE(key);
    EXPECT_EQ(history("kel Found a loose match profile for attach"), GetParam().takesMms);
    EXPECT_EQ(history("kel KEL IA profile created for attach"), !GetParam().takesMms);
    EXPECT_EQ(key->getProfileId() == 5, GetParam().takesMms);
    const vexsim::Profile mms = modemProfile(k3gpp, 5);
    EXPECT_EQ(mms.settings.pdp_type, GetParam().mmsPdpAfter);
    EXPECT_STREQ(mms.settings.profile_name, "MMS");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, UtilLooseAttachSimModemTest,
    ::testing::Values(
        // A dual-stack request accepts the single-stack profile as it is.
        LooseAttachCase{"FlagOffSuperset", false, IPType::V4V6, true, WDS_PDP_TYPE_PDP_IPV4_V01},
        LooseAttachCase{"FlagOffDisjointIpType", false, IPType::V6, false,
                        WDS_PDP_TYPE_PDP_IPV4_V01},
        // The profile is changed to the requested IP type instead.
        LooseAttachCase{"FlagOnAnyIpType", true, IPType::V6, true, WDS_PDP_TYPE_PDP_IPV6_V01}),
    CaseName());

// A second attach reuses the library's IA profile with the requested settings: the one of its
// APN or, for another APN, any of them, which then takes that APN.
struct IAReuseCase {
    const char* name;
    const char* apn;
    IPType home;
    bool byName;
    const char* apnAfter;
    wds_pdp_type_enum_v01 pdpAfter;
};

class UtilIAReuseSimModemTest : public UtilSimModemTest,
                                public ::testing::WithParamInterface<IAReuseCase> {};

TEST_P(UtilIAReuseSimModemTest, AttachReusesTheLibraryIAProfile) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> first =
        util.findOrCreateProfileForLteAttach(apnParams("ia.example", IPType::V4V6));
    ASSERT_TRUE(first);
    const size_t profiles = modem->profiles(0).size();
    clearLogs();

    std::shared_ptr<IProfileKey> second =
        util.findOrCreateProfileForLteAttach(apnParams(GetParam().apn, GetParam().home));

    ASSERT_TRUE(second);
    EXPECT_EQ(second->getProfileId(), first->getProfileId());
    EXPECT_EQ(history("kel Found a KEL IA profile that matches APN name for attach"),
              GetParam().byName);
    EXPECT_EQ(history("kel Found any KEL IA profile for attach"), !GetParam().byName);
    EXPECT_EQ(modem->profiles(0).size(), profiles);
    const vexsim::Profile ia = modemProfile(k3gpp, second->getProfileId());
    EXPECT_STREQ(ia.settings.apn_name, GetParam().apnAfter);
    EXPECT_EQ(ia.settings.pdp_type, GetParam().pdpAfter);
}

INSTANTIATE_TEST_SUITE_P(Cases, UtilIAReuseSimModemTest,
                         ::testing::Values(IAReuseCase{"SameApn", "ia.example", IPType::V6, true,
                                                       "ia.example", WDS_PDP_TYPE_PDP_IPV6_V01},
                                           IAReuseCase{"OtherApn", "LTE.Example", IPType::V4, false,
                                                       "lte.example", WDS_PDP_TYPE_PDP_IPV4_V01}),
                         CaseName());

class UtilSavedAttachSimModemTest : public UtilSimModemTest {
  protected:
    UtilSavedAttachSimModemTest() { config.seedText = kSavedAttachSeed; }
};

TEST_F(UtilSavedAttachSimModemTest, AttachWithoutApnReusesTheIAProfileAndKeepsItsApn) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    ProfileParams request;
    request.setHomeIPType(IPType::V4);
    request.setRoamIPType(IPType::V6);
    const size_t profiles = modem->profiles(0).size();

    std::shared_ptr<IProfileKey> key = util.findOrCreateProfileForLteAttach(request);

    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 2);
    EXPECT_TRUE(history("kel NULL apn scenario"));
    EXPECT_FALSE(history("kel Found an exact match modem or KEL IA profile for attach"));
    EXPECT_FALSE(history("kel Found a loose match profile for attach"));
    // Without an APN name the search by name takes any of the library's IA profiles.
    EXPECT_TRUE(history("kel Found a KEL IA profile that matches APN name for attach"));
    const vexsim::Profile ia = modemProfile(k3gpp, 2);
    EXPECT_STREQ(ia.settings.apn_name, "ia.example");
    // Home and roaming types differ, so the modem's PDP type covers both.
    EXPECT_EQ(ia.settings.pdp_type, WDS_PDP_TYPE_PDP_IPV4V6_V01);
    EXPECT_EQ(ia.settings.common_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV4_V01);
    EXPECT_EQ(ia.settings.lte_roaming_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_EQ(modem->profiles(0).size(), profiles);
}

}  // namespace
}  // namespace kel
