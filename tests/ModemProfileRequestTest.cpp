#include "ModemProfile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "DebugLogFixture.h"
#include "support/LogObservation.h"

#include "ModemProfileTestSupport.h"

namespace kel {
namespace {

using namespace modemprofiletest;

// --- Listeners and reference count ---------------------------------------------------------

class ModemProfileListenerTest : public DebugLogFixture {};

TEST_F(ModemProfileListenerTest, DestructionCallsLiveListenersInOrder) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    auto first = makeKey(TechType::TYPE_3GPP, 1, 1), second = makeKey(TechType::TYPE_3GPP, 1, 2),
         third = makeKey(TechType::TYPE_3GPP, 1, 3);
    std::vector<int> calls;
    auto profile = fullProfile();
    profile->registerExpirationListener([&calls] { calls.push_back(1); }, first);
    profile->registerExpirationListener([&calls] { calls.push_back(2); }, second);
    profile->registerExpirationListener([&calls] { calls.push_back(3); }, third);
    second.reset();
    capture.clear();
    profile.reset();
    EXPECT_EQ(calls, (std::vector<int>{1, 3}));
    EXPECT_EQ(debugLines(),
              (std::vector<std::string>{"~ModemProfile()", "invoke callback", "invoke callback"}));
}

TEST_F(ModemProfileListenerTest, ClearingDropsOnlyListenersOfGoneHandles) {
    auto kept = makeKey(TechType::TYPE_3GPP, 1, 1), gone = makeKey(TechType::TYPE_3GPP, 1, 2);
    auto keptState = std::make_shared<int>(0), goneState = std::make_shared<int>(0);
    auto profile = fullProfile();
    profile->registerExpirationListener([keptState] { ++*keptState; }, kept);
    profile->registerExpirationListener([goneState] { ++*goneState; }, gone);
    gone.reset();
    EXPECT_EQ(goneState.use_count(), 2);
    profile->clearExpiredListeners();
    EXPECT_EQ(goneState.use_count(), 1) << "the gone handle's listener is released";
    EXPECT_EQ(keptState.use_count(), 2);
    profile.reset();
    EXPECT_EQ(*keptState, 1);
    EXPECT_EQ(*goneState, 0);
}

// --- Create and modify records -------------------------------------------------------------

TEST(Modem3gppProfileRequestTest, AddRequestCarriesEverySetting) {
    ProfileParams params = fullParams();
    params.setHomeIPType(IPType::V4);
    params.setRoamIPType(IPType::V6);
    params.setAuthType(AuthType::PAP_CHAP);
    params.setIsApnDisabled(true);
    params.setIsEmergencySupported(false);
    Modem3gppProfile profile(params);
    profile.setProfileName(std::string(60, 'n'));
    profile.setApnName(std::string(200, 'a'));
    profile.setUserName(std::string(200, 'u'));
    profile.setPassword(std::string(200, 'p'));
    profile.setIsPersistent(true);

    const wds_create_profile_req_msg_v01 req = profile.constructAddRequest();
    const wds_profile_settings_v01& s = req.settings;
    EXPECT_EQ(req.profile_type, WDS_PROFILE_TYPE_3GPP_V01);
    EXPECT_TRUE(s.persistent_valid && s.persistent);
    EXPECT_TRUE(s.apn_type_mask_valid);
    EXPECT_EQ(s.apn_type_mask, 0x3u);
    EXPECT_TRUE(s.clat_enabled_valid && s.clat_enabled);
    EXPECT_TRUE(s.profile_name_valid);
    EXPECT_EQ(std::string(s.profile_name), std::string(50, 'n'));
    EXPECT_EQ(std::string(s.apn_name), std::string(150, 'a'));
    EXPECT_EQ(std::string(s.username), std::string(127, 'u'));
    EXPECT_EQ(std::string(s.password), std::string(127, 'p'));
    EXPECT_TRUE(s.pdp_type_valid && s.common_pdp_type_valid);
    EXPECT_EQ(s.pdp_type, WDS_PDP_TYPE_PDP_IPV4V6_V01);
    EXPECT_EQ(s.common_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV4_V01);
    EXPECT_TRUE(s.lte_roaming_pdp_type_valid && s.umts_roaming_pdp_type_valid);
    EXPECT_EQ(s.lte_roaming_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_EQ(s.umts_roaming_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_TRUE(s.max_pdn_conn_per_block_valid && s.max_pdn_conn_timer_valid &&
                s.pdn_req_wait_interval_valid);
    EXPECT_EQ(s.max_pdn_conn_per_block, 20);
    EXPECT_EQ(s.max_pdn_conn_timer, 300);
    EXPECT_EQ(s.pdn_req_wait_interval, 10);
    EXPECT_TRUE(s.apn_disabled_flag_valid && s.apn_disabled_flag);
    EXPECT_TRUE(s.support_emergency_calls_valid);
    EXPECT_EQ(s.support_emergency_calls, 0);
    EXPECT_TRUE(s.authentication_preference_valid);
    EXPECT_EQ(s.authentication_preference, 3);
    EXPECT_TRUE(s.apn_class_valid);
    EXPECT_EQ(s.apn_class, 1);
    EXPECT_FALSE(s.user_id_valid || s.apn_string_valid || s.pdn_type_valid ||
                 s.profile_auth_protocol_valid || s.apn_class_3gpp2_valid);
}

TEST(ModemProfileRequestTest, EmptyProfilesSendOnlyTheirIdentityAndPersistence) {
    for (TechType tech : {TechType::TYPE_3GPP, TechType::TYPE_3GPP2}) {
        std::unique_ptr<ModemProfile> profile;
        if (tech == TechType::TYPE_3GPP) {
            profile = std::make_unique<Modem3gppProfile>(ProfileParams());
        } else {
            profile = std::make_unique<Modem3gpp2Profile>(ProfileParams());
        }
        profile->setProfileId(258);
        wds_create_profile_req_msg_v01 add;
        std::memset(&add, 0, sizeof(add));
        add.profile_type =
            tech == TechType::TYPE_3GPP ? WDS_PROFILE_TYPE_3GPP_V01 : WDS_PROFILE_TYPE_3GPP2_V01;
        add.settings.persistent_valid = 1;
        const wds_create_profile_req_msg_v01 builtAdd = profile->constructAddRequest();
        EXPECT_EQ(std::memcmp(&builtAdd, &add, sizeof(add)), 0) << static_cast<int>(tech);

        wds_modify_profile_settings_req_msg_v01 modify;
        std::memset(&modify, 0, sizeof(modify));
        modify.profile.profile_type = add.profile_type;
        modify.profile.profile_index = 2;
        const wds_modify_profile_settings_req_msg_v01 builtModify =
            profile->constructModifyRequest();
        EXPECT_EQ(std::memcmp(&builtModify, &modify, sizeof(modify)), 0) << static_cast<int>(tech);
    }
}

TEST(Modem3gpp2ProfileRequestTest, CredentialsAndAuthGoToProfileAndPdnLevel) {
    struct Case {
        AuthType auth;
        int expected;
    };
    for (const Case& c : std::vector<Case>{{AuthType::PAP_CHAP, 3}, {AuthType::NONE, 0}}) {
        ProfileParams params = fullParams();
        params.setAuthType(c.auth);
        params.setHomeIPType(IPType::V4);
        params.setUserName(std::string(200, 'u'));
        params.setPassword(std::string(200, 'p'));
        Modem3gpp2Profile profile(params);
        profile.setProfileId(7);
        const wds_create_profile_req_msg_v01 add = profile.constructAddRequest();
        const wds_modify_profile_settings_req_msg_v01 modify = profile.constructModifyRequest();
        EXPECT_EQ(add.profile_type, WDS_PROFILE_TYPE_3GPP2_V01);
        EXPECT_EQ(modify.profile.profile_type, WDS_PROFILE_TYPE_3GPP2_V01);
        EXPECT_EQ(modify.profile.profile_index, 7);
        EXPECT_FALSE(modify.settings.persistent_valid);
        for (const wds_profile_settings_v01* s : {&add.settings, &modify.settings}) {
            EXPECT_TRUE(s->profile_auth_protocol_valid && s->pdn_level_auth_protocol_valid);
            EXPECT_EQ(s->profile_auth_protocol, c.expected);
            EXPECT_EQ(s->pdn_level_auth_protocol, c.expected);
            EXPECT_EQ(std::string(s->user_id), std::string(127, 'u'));
            EXPECT_EQ(std::string(s->pdn_level_user_id), std::string(127, 'u'));
            EXPECT_EQ(std::string(s->auth_password), std::string(127, 'p'));
            EXPECT_EQ(std::string(s->pdn_level_auth_password), std::string(127, 'p'));
            EXPECT_EQ(std::string(s->apn_string), "ims.example.com");
            EXPECT_TRUE(s->pdn_type_valid);
            EXPECT_EQ(s->pdn_type, WDS_PROFILE_PDN_TYPE_IPV4_V01);
            EXPECT_EQ(s->apn_class_3gpp2, 1);
            EXPECT_EQ(s->apn_type_mask, 0x3u);
            EXPECT_FALSE(s->apn_name_valid || s->username_valid || s->pdp_type_valid ||
                         s->max_pdn_conn_timer_valid || s->lte_roaming_pdp_type_valid);
        }
    }
}

// --- Reading get-settings responses --------------------------------------------------------

class ModemProfileResponseTest : public DebugLogFixture {};

// A record as the library sends it, with the values only a modem sends put in.
TEST_F(ModemProfileResponseTest, Reads3gppSettings) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    ProfileParams params = fullParams();
    params.setRoamIPType(IPType::V6);
    params.setHomeIPType(IPType::V4);
    params.setMaxPdnConnTimer(65535);
    params.setIsApnDisabled(true);
    Modem3gppProfile sent(params);
    sent.setProfileName("kel_profile_ia");
    sent.setIsPersistent(true);
    wds_get_profile_settings_resp_msg_v01 resp = emptyResponse();
    wds_profile_settings_v01& s = resp.settings;
    s = sent.constructAddRequest().settings;
    std::strcpy(s.apn_name, "IMS");
    s.apn_class = 3;
    s.support_emergency_calls = 2;
    s.authentication_preference = 0x05;
    s.apn_type_mask = (1ull << 40) | 0x2;
    s.clat_enabled = 0;
    s.user_id_valid = 1;  // 3GPP2 fields are not read for 3GPP
    std::strcpy(s.user_id, "cdma");

    Modem3gppProfile profile(4, resp);
    EXPECT_TRUE(profile.getIsPersistent());
    EXPECT_FALSE(profile.getIsKelCreated());
    EXPECT_EQ(profile.dump(),
              "TechType=3GPP,ProfileId=4,ApnName=ims,UserName=bob,Password=pw,AuthType=PAP,"
              "CommonIPType=V4V6,ApnTypesMask=1099511627778,ApnClass=INET,IsClatEnabled=false,"
              "OverrideHomeIPType=V4,LteRoamIP=V6,UmtsRoamIP=V6,MaxPdnsConnPerBlock=20,"
              "MaxPdnConnTimer=65535,PdnReqWaitInterval=10,IsApnDisabled=true,"
              "IsEmergencySupported=true,ProfileName=kel_profile_ia,");
    EXPECT_TRUE(debugLines().empty());
}

TEST_F(ModemProfileResponseTest, RoamingTypesOf255AreAbsentAndPppIsUnknown) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    wds_get_profile_settings_resp_msg_v01 resp = emptyResponse();
    resp.settings.pdp_type_valid = 1;
    resp.settings.pdp_type = WDS_PDP_TYPE_PDP_PPP_V01;
    resp.settings.lte_roaming_pdp_type_valid = 1;
    resp.settings.lte_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_UNUSED_V01;
    resp.settings.umts_roaming_pdp_type_valid = 1;
    resp.settings.umts_roaming_pdp_type = static_cast<wds_common_pdp_type_enum_v01>(7);
    // Fields not marked valid are ignored whatever they hold.
    std::strcpy(resp.settings.apn_name, "ignored");
    resp.settings.apn_class = 3;

    Modem3gppProfile profile(1, resp);
    EXPECT_EQ(profile.getCommonIPType(), IPType::UNKNOWN);
    EXPECT_FALSE(profile.hasLteRoamIPType());
    EXPECT_EQ(profile.getUmtsRoamIPType(), IPType::UNKNOWN);
    EXPECT_FALSE(profile.hasApnName());
    EXPECT_FALSE(profile.hasApnClass());
    EXPECT_EQ(debugLines(),
              (std::vector<std::string>{"Unknown pdp_type_enum 1", "Unknown pdp_type_enum 7"}));

    // With LTE absent, a present UMTS type still blocks falling back to the PDP type.
    FilterProfileParams filter;
    filter.setRoamIPType(IPType::UNKNOWN);
    EXPECT_FALSE(profile.match(filter));
}

TEST_F(ModemProfileResponseTest, UnterminatedTextsStayWithinTheirFieldsAndCredentialLimits) {
    wds_get_profile_settings_resp_msg_v01 resp = emptyResponse();
    wds_profile_settings_v01& s = resp.settings;
    s.profile_name_valid = s.apn_name_valid = s.username_valid = s.password_valid = 1;
    std::memset(s.profile_name, 'N', sizeof(s.profile_name));
    std::memset(s.apn_name, 'A', sizeof(s.apn_name));
    std::memset(s.username, 'U', sizeof(s.username));
    std::memset(s.password, 'P', sizeof(s.password));
    // The bytes after each text are nonzero, so reading on would show up as extra characters.
    s.pdp_type_valid = 'X';
    s.authentication_preference_valid = 'X';
    Modem3gppProfile profile(1, resp);
    EXPECT_EQ(profile.getProfileName(), std::string(51, 'N'));
    // An APN name is read to its field's end, then stored at 150 characters as every APN name is.
    EXPECT_EQ(profile.getApnName(), std::string(150, 'a'));
    // Credentials are at most 127 characters, even when the modem fills all 128 bytes.
    EXPECT_EQ(profile.getUserName(), std::string(127, 'U'));
    EXPECT_EQ(profile.getPassword(), std::string(127, 'P'));

    s.user_id_valid = s.apn_string_valid = 1;
    std::memset(s.user_id, 'I', sizeof(s.user_id));
    std::memset(s.apn_string, 'S', sizeof(s.apn_string));
    Modem3gpp2Profile cdma(1, resp);
    EXPECT_EQ(cdma.getUserName(), std::string(127, 'I'));
    EXPECT_EQ(cdma.getApnName(), std::string(150, 's'));
}

TEST_F(ModemProfileResponseTest, Reads3gpp2SettingsButNotThePassword) {
    ProfileParams params = fullParams();
    params.setHomeIPType(IPType::V6);
    params.setApnClass(ApnClass::ADMN);
    wds_get_profile_settings_resp_msg_v01 resp = emptyResponse();
    wds_profile_settings_v01& s = resp.settings;
    s = Modem3gpp2Profile(params).constructAddRequest().settings;
    std::strcpy(s.apn_string, "CDMA.Apn");
    s.profile_auth_protocol = static_cast<wds_profile_auth_protocol_enum_v01>(5);
    s.common_pdp_type_valid = 1;
    s.common_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01;

    Modem3gpp2Profile profile(3, resp);
    EXPECT_EQ(profile.dump(),
              "TechType=3GPP2,ProfileId=3,ApnName=cdma.apn,UserName=bob,AuthType=NONE,"
              "CommonIPType=V6,ApnTypesMask=3,ApnClass=ADMN,IsClatEnabled=true,");
    EXPECT_EQ(profile.getOverrideHomeIPType(), IPType::V4V6);
}

}  // namespace
}  // namespace kel
