// End to end: the profile policy (kel::Util) through Manager against the embedded simulated
// modem, seeded with a carrier's profiles. Every test checks what ends up on the modem as well as
// the handles returned and the log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "e2e/SimModemFixture.h"
#include "kel/Util.h"
#include "support/LogObservation.h"

namespace kel {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

using e2e::k3gpp;
using e2e::k3gpp2;

// What a carrier-provisioned modem ships with. 3GPP index 7 is left free so that 3GPP2 profile 7
// has no 3GPP namesake.
constexpr char kCarrierSeed[] = R"(
profile 3gpp index=1 name=Internet apn=internet pdp=ipv4v6 class=3 types=default
profile 3gpp index=2 name=IMS apn=ims pdp=ipv4 class=1 types=ims
profile 3gpp index=3 name=IMS apn=ims pdp=ipv6 class=1 types=ims
profile 3gpp index=4 name=IMS apn=ims pdp=ipv4v6 class=1 types=ims
profile 3gpp index=5 name=MMS apn=mms pdp=ipv4 class=4 types=mms
profile 3gpp index=6 name=SOS apn=sos pdp=ipv4v6 emergency=yes types=emergency
profile 3gpp index=8 name=XCAP apn=xcap pdp=ipv4 types=xcap
profile 3gpp index=9 name=XCAP apn=xcap pdp=ipv6 types=xcap
profile 3gpp2 index=1 apn=internet pdn=ipv4v6 user=cdmauser class=3 types=default
profile 3gpp2 index=2 apn=internet pdn=ipv4v6 user=roamuser class=3 types=default
profile 3gpp2 index=7 apn=ims pdn=ipv4v6 class=1 types=ims
)";

// A carrier without an emergency-capable profile.
constexpr char kNoEmergencySeed[] = R"(
profile 3gpp index=1 name=Internet apn=internet pdp=ipv4v6 class=3 types=default
profile 3gpp index=2 name=IMS apn=ims pdp=ipv4v6 class=1 types=ims
)";

// The library's initial-attach profile, kept by the modem from an earlier boot, next to a
// single-stack carrier profile.
constexpr char kSavedAttachSeed[] = R"(
profile 3gpp index=1 name=IMS apn=ims pdp=ipv4 class=1 types=ims
profile 3gpp index=2 name=kel_profile_ia apn=ia.example pdp=ipv6 types=default,ia
)";

constexpr unsigned int lib(ApnTypes type) {
    return static_cast<unsigned int>(type);
}

// Names each case of a table after its first field.
struct CaseName {
    template <typename Case>
    std::string operator()(const ::testing::TestParamInfo<Case>& test) const {
        return test.param.name;
    }
};

ProfileParams apnParams(const std::string& apn, std::optional<IPType> home = std::nullopt) {
    ProfileParams params;
    params.setApnName(apn);
    if (home) {
        params.setHomeIPType(*home);
    }
    return params;
}

ProfileParams apnTypeEntry(const std::string& apn, IPType home, unsigned int mask) {
    ProfileParams entry = apnParams(apn, home);
    entry.setApnTypesMask(mask);
    return entry;
}

ProfileParams withoutIpType(const std::string& apn, unsigned int mask) {
    ProfileParams entry = apnParams(apn);
    entry.setApnTypesMask(mask);
    return entry;
}

// The shared end-to-end fixture, with Util's Manager (the process-wide one) connected.
class UtilSimModemTest : public e2e::SimModemFixture {
  protected:
    UtilSimModemTest() { config.seedText = kCarrierSeed; }

    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(startModem());
        ASSERT_NO_FATAL_FAILURE(connect(Manager::getInstance(), 0));
        clearLogs();
    }

    // The process-wide Manager outlives the test: park it on a directory where no modem ever
    // runs, while this modem is still up, so that it neither sees this modem go nor finds the
    // next test's modem.
    void TearDown() override {
        ASSERT_EQ(setenv("VEX_SERVICE_DIR", idleDir.path().c_str(), 1), 0);
        Manager::getInstance().init(0, true);
    }

    // The filters that reached the library since the logs were cleared, as it dumped them.
    std::vector<std::string> filtersSent() const {
        std::vector<std::string> filters;
        for (const hostlog::AndroidLogRecord& record :
             capture.androidContaining("Manager::filter > ")) {
            filters.push_back(record.message.substr(std::strlen("Manager::filter > ")));
        }
        return filters;
    }

    // Every profile of the modem, one line each, to show that nothing changed.
    std::vector<std::string> modemSnapshot() const {
        std::vector<std::string> lines;
        for (const vexsim::Profile& profile : modem->profiles(0)) {
            lines.push_back(vexsim::formatProfile(profile));
        }
        return lines;
    }

    testsupport::TempDir idleDir;
    Util util;
};

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
    std::optional<vexsim::Profile> mms = onModem(k3gpp, 5);
    ASSERT_TRUE(mms);
    EXPECT_EQ(mms->settings.pdp_type, WDS_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_STREQ(mms->settings.username, "mmsuser");
    EXPECT_EQ(mms->settings.apn_type_mask, WDS_APN_TYPE_MASK_MMS_V01);
}

TEST_F(UtilSimModemTest, SetupDataCallAddsNonPersistentProfileThatGoesWithItsHandle) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    ProfileParams request = apnParams("corp.example", IPType::V4);
    request.setApnTypesMask(lib(ApnTypes::DEFAULT));

    std::shared_ptr<IProfileKey> key =
        util.findOrCreateProfileForSetupDataCall(TechType::TYPE_3GPP, request);

    ASSERT_TRUE(key);
    EXPECT_TRUE(history("setupDataCall profile added"));
    const int id = key->getProfileId();
    std::optional<vexsim::Profile> added = onModem(k3gpp, id);
    ASSERT_TRUE(added);
    EXPECT_STREQ(added->settings.profile_name, "kel_profile");
    EXPECT_STREQ(added->settings.apn_name, "corp.example");
    EXPECT_EQ(added->settings.pdp_type, WDS_PDP_TYPE_PDP_IPV4_V01);
    EXPECT_FALSE(added->persistent);

    key.reset();
    EXPECT_FALSE(onModem(k3gpp, id)) << "the call's own profile leaves with its last handle";
}

struct UserNameCase {
    const char* name;
    TechType techType;
    const char* userName;
    int expectedId;
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
    EXPECT_EQ(key->getProfileId(), GetParam().expectedId);
    EXPECT_TRUE(history("found existing setupDataCall profile"));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, UtilUserNameSimModemTest,
    ::testing::Values(UserNameCase{"Cdma3gpp2User", TechType::TYPE_3GPP2, "cdmauser", 1},
                      UserNameCase{"Roam3gpp2User", TechType::TYPE_3GPP2, "roamuser", 2},
                      UserNameCase{"UserIgnoredOn3gpp", TechType::TYPE_3GPP, "stranger", 1}),
    CaseName());

TEST_F(UtilSimModemTest, SetupDataCallAdds3gpp2ProfileWhenNoUserNameMatches) {
    ProfileParams request = apnParams("internet", IPType::V4V6);
    request.setUserName("stranger");

    std::shared_ptr<IProfileKey> key =
        util.findOrCreateProfileForSetupDataCall(TechType::TYPE_3GPP2, request);

    ASSERT_TRUE(key);
    EXPECT_EQ(key->getTechType(), TechType::TYPE_3GPP2);
    const int id = key->getProfileId();
    std::optional<vexsim::Profile> added = onModem(k3gpp2, id);
    ASSERT_TRUE(added);
    EXPECT_STREQ(added->settings.user_id, "stranger");
    EXPECT_STREQ(added->settings.apn_string, "internet");

    key.reset();
    EXPECT_FALSE(onModem(k3gpp2, id));
}

// --- Emergency data call ---

TEST_F(UtilSimModemTest, EmergencyCallTakesProfileFoundByNameUnchanged) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    util.setProfileUpdateAllowed(true);
    const std::vector<std::string> before = modemSnapshot();
    ProfileParams request = apnParams("sos", IPType::V4);
    request.setUserName("caller");
    request.setApnTypesMask(lib(ApnTypes::DEFAULT));

    std::shared_ptr<IProfileKey> key = util.findOrCreateProfileForEmergencyDataCall(request);

    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 6);
    EXPECT_TRUE(history("found an emergency profile by name"));
    EXPECT_EQ(filtersSent().size(), 1u);
    EXPECT_EQ(modemSnapshot(), before);
}

struct EmergencyFallbackCase {
    const char* name;
    std::optional<std::string> apn;
    size_t filters;
};

class UtilEmergencyFallbackSimModemTest
    : public UtilSimModemTest,
      public ::testing::WithParamInterface<EmergencyFallbackCase> {};

TEST_P(UtilEmergencyFallbackSimModemTest, EmergencyCallFallsBackToAnyEmergencyProfile) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    ProfileParams request;
    if (GetParam().apn) {
        request.setApnName(*GetParam().apn);
    }

    std::shared_ptr<IProfileKey> key = util.findOrCreateProfileForEmergencyDataCall(request);

    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 6);
    EXPECT_EQ(filtersSent().size(), GetParam().filters);
    EXPECT_FALSE(history("found an emergency profile by name"));
    EXPECT_TRUE(history("found a profile that supports emergency calls"));
    EXPECT_TRUE(history("kel findOrCreateProfileForEmergencyDataCall < " + key->dump()));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, UtilEmergencyFallbackSimModemTest,
    ::testing::Values(EmergencyFallbackCase{"ApnWithoutEmergency", "internet", 2},
                      EmergencyFallbackCase{"NoApnSkipsSearchByName", std::nullopt, 1}),
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
    std::optional<vexsim::Profile> created = onModem(k3gpp, id);
    ASSERT_TRUE(created);
    EXPECT_STREQ(created->settings.profile_name, "kel_profile");
    EXPECT_STREQ(created->settings.apn_name, "sos");
    EXPECT_TRUE(created->persistent);
    EXPECT_TRUE(created->settings.support_emergency_calls_valid &&
                created->settings.support_emergency_calls);
    EXPECT_EQ(created->settings.apn_type_mask, WDS_APN_TYPE_MASK_EMERGENCY_V01);

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
    std::optional<vexsim::Profile> internet = onModem(k3gpp, 1);
    ASSERT_TRUE(internet);
    EXPECT_STREQ(internet->settings.username, "attach");
    EXPECT_STREQ(internet->settings.password, "secret");
    EXPECT_EQ(internet->settings.authentication_preference, 2);
    EXPECT_EQ(internet->settings.apn_type_mask,
              WDS_APN_TYPE_MASK_DEFAULT_V01 | WDS_APN_TYPE_MASK_IA_V01);
    EXPECT_EQ(internet->settings.max_pdn_conn_per_block, 20);
    EXPECT_EQ(internet->settings.pdp_type, WDS_PDP_TYPE_PDP_IPV4V6_V01);
    EXPECT_TRUE(onModemNamed("kel_profile_ia").empty());
}

TEST_F(UtilSimModemTest, AttachNeverTakesOverADataCallProfileAndCreatesAPersistentIAProfile) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> dataCall = util.findOrCreateProfileForSetupDataCall(
        TechType::TYPE_3GPP, apnParams("corp.example", IPType::V4));
    ASSERT_TRUE(dataCall);
    const int dataCallId = dataCall->getProfileId();
    clearLogs();

    std::shared_ptr<IProfileKey> attach =
        util.findOrCreateProfileForLteAttach(apnParams("corp.example", IPType::V4));

    ASSERT_TRUE(attach);
    EXPECT_NE(attach->getProfileId(), dataCallId);
    EXPECT_FALSE(history("kel Found an exact match modem or KEL IA profile for attach"));
    EXPECT_FALSE(history("kel Found a loose match profile for attach"));
    EXPECT_TRUE(history("kel KEL IA profile created for attach"));
    const int attachId = attach->getProfileId();
    std::optional<vexsim::Profile> ia = onModem(k3gpp, attachId);
    ASSERT_TRUE(ia);
    EXPECT_STREQ(ia->settings.profile_name, "kel_profile_ia");
    EXPECT_STREQ(ia->settings.apn_name, "corp.example");
    EXPECT_TRUE(ia->persistent);
    std::optional<vexsim::Profile> call = onModem(k3gpp, dataCallId);
    ASSERT_TRUE(call);
    EXPECT_STREQ(call->settings.profile_name, "kel_profile");

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
    std::optional<vexsim::Profile> mms = onModem(k3gpp, 5);
    ASSERT_TRUE(mms);
    EXPECT_EQ(mms->settings.pdp_type, GetParam().mmsPdpAfter);
    EXPECT_STREQ(mms->settings.profile_name, "MMS");
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

TEST_F(UtilSimModemTest, AttachReusesTheLibraryIAProfileOfTheSameApn) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> first =
        util.findOrCreateProfileForLteAttach(apnParams("ia.example", IPType::V4V6));
    ASSERT_TRUE(first);
    const size_t profiles = modem->profiles(0).size();
    clearLogs();

    std::shared_ptr<IProfileKey> second =
        util.findOrCreateProfileForLteAttach(apnParams("ia.example", IPType::V6));

    ASSERT_TRUE(second);
    EXPECT_EQ(second->getProfileId(), first->getProfileId());
    EXPECT_TRUE(history("kel Found a KEL IA profile that matches APN name for attach"));
    EXPECT_EQ(modem->profiles(0).size(), profiles);
    std::optional<vexsim::Profile> ia = onModem(k3gpp, second->getProfileId());
    ASSERT_TRUE(ia);
    EXPECT_EQ(ia->settings.pdp_type, WDS_PDP_TYPE_PDP_IPV6_V01);
}

TEST_F(UtilSimModemTest, AttachGivesAnyLibraryIAProfileTheRequestedApn) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> first =
        util.findOrCreateProfileForLteAttach(apnParams("ia.example", IPType::V4V6));
    ASSERT_TRUE(first);
    clearLogs();

    std::shared_ptr<IProfileKey> second =
        util.findOrCreateProfileForLteAttach(apnParams("LTE.Example", IPType::V4));

    ASSERT_TRUE(second);
    EXPECT_EQ(second->getProfileId(), first->getProfileId());
    EXPECT_FALSE(history("kel Found a KEL IA profile that matches APN name for attach"));
    EXPECT_TRUE(history("kel Found any KEL IA profile for attach"));
    std::optional<vexsim::Profile> ia = onModem(k3gpp, second->getProfileId());
    ASSERT_TRUE(ia);
    EXPECT_STREQ(ia->settings.apn_name, "lte.example");
    EXPECT_EQ(ia->settings.pdp_type, WDS_PDP_TYPE_PDP_IPV4_V01);
    EXPECT_EQ(onModemNamed("kel_profile_ia").size(), 1u);
}

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
    std::optional<vexsim::Profile> ia = onModem(k3gpp, 2);
    ASSERT_TRUE(ia);
    EXPECT_STREQ(ia->settings.apn_name, "ia.example");
    // Home and roaming types differ, so the modem's PDP type covers both.
    EXPECT_EQ(ia->settings.pdp_type, WDS_PDP_TYPE_PDP_IPV4V6_V01);
    EXPECT_EQ(ia->settings.common_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV4_V01);
    EXPECT_EQ(ia->settings.lte_roaming_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_EQ(modem->profiles(0).size(), profiles);
}

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
    const char* apn;
    IPType home;
    bool matches;
};

class UtilMatchAttachSimModemTest : public UtilSimModemTest,
                                    public ::testing::WithParamInterface<MatchModemProfileCase> {};

TEST_P(UtilMatchAttachSimModemTest, MatchAttachOnModemProfileLoosensIpTypesOnlyWithoutUpdates) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    util.setProfileUpdateAllowed(GetParam().updateAllowed);

    EXPECT_EQ(util.matchLteAttachProfileId(1, apnParams(GetParam().apn, GetParam().home)),
              GetParam().matches);

    EXPECT_EQ(history("kel matchLteAttachList < 1"), GetParam().matches);
    EXPECT_EQ(history("kel matchLteAttachProfileId < did not match input params"),
              !GetParam().matches);
}

// Profile 1 is the carrier's dual-stack internet profile.
INSTANTIATE_TEST_SUITE_P(
    Cases, UtilMatchAttachSimModemTest,
    ::testing::Values(MatchModemProfileCase{"FlagOffSubset", false, "internet", IPType::V4, true},
                      MatchModemProfileCase{"FlagOffExact", false, "Internet", IPType::V4V6, true},
                      MatchModemProfileCase{"FlagOnSubset", true, "internet", IPType::V4, false},
                      MatchModemProfileCase{"FlagOnExact", true, "internet", IPType::V4V6, true},
                      MatchModemProfileCase{"OtherApn", false, "ims", IPType::V4V6, false}),
    CaseName());

TEST_F(UtilSimModemTest, MatchAttachRefusesALibraryDataCallProfile) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> dataCall = util.findOrCreateProfileForSetupDataCall(
        TechType::TYPE_3GPP, apnParams("corp.example", IPType::V4));
    ASSERT_TRUE(dataCall);
    const int id = dataCall->getProfileId();
    clearLogs();

    EXPECT_FALSE(util.matchLteAttachProfileId(id, apnParams("corp.example", IPType::V4)));

    EXPECT_TRUE(error("Profile id " + std::to_string(id) +
                      " is a KEL profile which is not an IA profile, cannot be used for attach"));
    EXPECT_FALSE(history("kel matchLteAttachProfileId < did not match input params"));
}

TEST_F(UtilSimModemTest, MatchAttachComparesTheLibraryIAProfileExactly) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> ia =
        util.findOrCreateProfileForLteAttach(apnParams("ia.example", IPType::V4V6));
    ASSERT_TRUE(ia);
    const int id = ia->getProfileId();

    EXPECT_TRUE(util.matchLteAttachProfileId(id, apnParams("IA.example", IPType::V4V6)));
    EXPECT_TRUE(history("kel matchLteAttachList < " + std::to_string(id)));
    EXPECT_FALSE(util.matchLteAttachProfileId(id, apnParams("ia.example", IPType::V4)));
}

class UtilMatchAttachIdSimModemTest : public UtilSimModemTest,
                                      public ::testing::WithParamInterface<int> {};

TEST_P(UtilMatchAttachIdSimModemTest, MatchAttachRefusesIdsWithout3gppProfile) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    EXPECT_FALSE(util.matchLteAttachProfileId(GetParam(), apnParams("ims", IPType::V4V6)));

    EXPECT_TRUE(history("kel matchLteAttachProfileId > Profile id = " + std::to_string(GetParam()) +
                        " Input Params = " + apnParams("ims", IPType::V4V6).dump()));
    EXPECT_TRUE(history("kel matchLteAttachProfileId < did not match input params"));
}

// 7 exists only as a 3GPP2 profile (of the same APN); 42 not at all.
INSTANTIATE_TEST_SUITE_P(Ids, UtilMatchAttachIdSimModemTest, ::testing::Values(7, 42));

// --- Updates by APN class ---

TEST_F(UtilSimModemTest, ApnClassEntryWithoutClassOnlyLogs) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    const std::vector<std::string> before = modemSnapshot();

    util.updateModemProfileByApnClass({apnParams("admin.example")}, {apnParams("internet")});

    EXPECT_TRUE(debug("kel either tech type or apn class is missing"));
    EXPECT_TRUE(history("kel updateModemProfileByApnClass < OK"));
    EXPECT_EQ(modemSnapshot(), before);
}

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

TEST_F(UtilSimModemTest, ApnClassMatchModifiesEveryProfileOfTheClassAndTechType) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    ProfileParams entry;
    entry.setApnClass(ApnClass::IMS);
    entry.setUserName("imsuser");
    entry.setApnTypesMask(lib(ApnTypes::IMS) | lib(ApnTypes::XCAP));
    const std::optional<vexsim::Profile> cdmaIms = onModem(k3gpp2, 7);

    util.updateModemProfileByApnClass({entry}, {});

    EXPECT_TRUE(debug("Found a match for APN class and tech type, modify the profile"));
    const wds_pdp_type_enum_v01 pdpTypes[] = {WDS_PDP_TYPE_PDP_IPV4_V01, WDS_PDP_TYPE_PDP_IPV6_V01,
                                              WDS_PDP_TYPE_PDP_IPV4V6_V01};
    for (int index = 2; index <= 4; ++index) {
        std::optional<vexsim::Profile> ims = onModem(k3gpp, index);
        ASSERT_TRUE(ims) << index;
        EXPECT_STREQ(ims->settings.username, "imsuser") << index;
        EXPECT_EQ(ims->settings.apn_type_mask,
                  WDS_APN_TYPE_MASK_IMS_V01 | WDS_APN_TYPE_MASK_XCAP_V01)
            << index;
        EXPECT_EQ(ims->settings.pdp_type, pdpTypes[index - 2]) << index;
    }
    std::optional<vexsim::Profile> cdmaImsAfter = onModem(k3gpp2, 7);
    ASSERT_TRUE(cdmaIms && cdmaImsAfter);
    EXPECT_EQ(vexsim::formatProfile(*cdmaImsAfter), vexsim::formatProfile(*cdmaIms));
}

TEST_F(UtilSimModemTest, ApnClassAddRefusedByModemIsLoggedAndTheRestGoesOn) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    ProfileParams refused = apnParams("admin.example");
    refused.setApnClass(ApnClass::ADMN);
    ProfileParams ims;
    ims.setApnClass(ApnClass::IMS);
    ims.setUserName("imsuser");
    modem->failNext(1, VEX_WDS_CREATE_PROFILE_REQ_V01);
    const size_t before = modem->profiles(0).size();

    util.updateModemProfileByApnClass({refused, ims}, {});

    EXPECT_TRUE(error("Could not add profile by APN class"));
    EXPECT_TRUE(history("kel updateModemProfileByApnClass < OK"));
    EXPECT_EQ(modem->profiles(0).size(), before);
    std::optional<vexsim::Profile> imsProfile = onModem(k3gpp, 2);
    ASSERT_TRUE(imsProfile);
    EXPECT_STREQ(imsProfile->settings.username, "imsuser");
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

    util.updateAPNTypeBitmaskOnModemProfile(entries);

    for (const std::string& line : GetParam().debugLines) {
        EXPECT_TRUE(debug(line)) << line;
    }
    EXPECT_TRUE(history("kel updateAPNTypeBitmaskOnModemProfile < OK"));
    for (const ModemMask& want : GetParam().expected) {
        std::optional<vexsim::Profile> profile = onModem(want.type, want.index);
        ASSERT_TRUE(profile) << want.type << ":" << want.index;
        EXPECT_EQ(profile->settings.apn_type_mask, want.mask) << want.type << ":" << want.index;
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
                     {k3gpp, 1, kDefault}}}),
    CaseName());

TEST_F(UtilSimModemTest, ApnTypeEntriesWithMissingFieldsAreDefaultedAndLogged) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    ProfileParams noMask = apnParams("mms", IPType::V4);
    ProfileParams noIpType = withoutIpType("xcap", lib(ApnTypes::DUN));
    ProfileParams noApn;
    noApn.setApnTypesMask(lib(ApnTypes::FOTA));
    const std::list<ProfileParams> entries{noMask, noIpType, noApn};

    util.updateAPNTypeBitmaskOnModemProfile(entries);

    EXPECT_TRUE(error("kel APN type mask not present, setting to 0"));
    EXPECT_TRUE(error("kel Home IP type not present, setting to v4v6"));
    EXPECT_TRUE(history("kel update APN type bitmask on modem profile for " + noMask.dump()));
    EXPECT_TRUE(debug("kel processing APN name mms, V4 mask:0x0, v6 mask0x0:, v4v6 mask:0x0"));
    std::optional<vexsim::Profile> mms = onModem(k3gpp, 5);
    ASSERT_TRUE(mms);
    EXPECT_EQ(mms->settings.apn_type_mask, WDS_APN_TYPE_MASK_MMS_V01) << "a zero mask is no update";
    // Without an IP type an entry counts as dual-stack: xcap has no dual-stack profile, so its
    // types spread over both single-stack ones.
    for (int index : {8, 9}) {
        std::optional<vexsim::Profile> xcap = onModem(k3gpp, index);
        ASSERT_TRUE(xcap);
        EXPECT_EQ(xcap->settings.apn_type_mask, WDS_APN_TYPE_MASK_DUN_V01) << index;
    }
    EXPECT_THAT(capture.androidContaining("kel processing APN name"), ::testing::SizeIs(2))
        << "an entry without APN name takes part in no update";
}

TEST_F(UtilSimModemTest, ApnTypesForAnApnWithoutProfilesCreateNothing) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    const std::vector<std::string> before = modemSnapshot();

    util.updateAPNTypeBitmaskOnModemProfile(
        {apnTypeEntry("unknown.example", IPType::V4, lib(ApnTypes::DEFAULT))});

    for (int tech = 0; tech <= 1; ++tech) {
        for (int ipType : {1, 3, 2}) {
            EXPECT_TRUE(debug("kel no match found for apn name:unknown.example, ip type:" +
                              std::to_string(ipType) + ", tech type:" + std::to_string(tech)))
                << tech << "/" << ipType;
        }
    }
    EXPECT_EQ(modemSnapshot(), before);
}

}  // namespace
}  // namespace kel
