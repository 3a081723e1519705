// The simulated modem: its profile text format, and the service it gives real vex clients over
// its socket (answers, indexes, fan-out, restarts, faults and bad input).
#include <gtest/gtest.h>

#include <set>

#include "VexWire.h"
#include "platform/VexTestClient.h"

namespace {

using namespace vextest;
using vexsim::Profile;

// --- The profile text format ---

Profile parseOne(const std::string& line) {
    std::vector<Profile> parsed;
    std::string error;
    EXPECT_TRUE(vexsim::parseProfiles(line, &parsed, &error)) << line << ": " << error;
    return parsed.empty() ? Profile{} : parsed[0];
}

// That formatting reads back as the same profile is for the seed-text corpus to show, on every
// key; here, what quoting, escapes and named values parse to.
TEST(ProfileTextTest, QuotedTextsEscapesAndNamedValuesParseToTheirSettings) {
    const Profile quoted = parseOne(
        "profile 3gpp sub=1 index=7 persistent=no name=\"My \\\"quoted\\\" APN\\\\#1\" "
        "password=\"p w\\n\" auth=pap_chap types=default,ims,mcx # trailing");
    EXPECT_EQ(quoted.subscription, 1);
    EXPECT_EQ(quoted.index, 7);
    EXPECT_FALSE(quoted.persistent);
    EXPECT_STREQ(quoted.settings.profile_name, "My \"quoted\" APN\\#1");
    EXPECT_STREQ(quoted.settings.password, "p w\n");
    EXPECT_EQ(quoted.settings.apn_type_mask, WDS_APN_TYPE_MASK_DEFAULT_V01 |
                                                 WDS_APN_TYPE_MASK_IMS_V01 |
                                                 WDS_APN_TYPE_MASK_MCX_V01);
    EXPECT_EQ(quoted.settings.authentication_preference, 3);
}

TEST(ProfileTextTest, ParseErrorsNameTheLineAndTheReasonAndKeepNothing) {
    struct Case {
        std::string text;
        std::string error;
    } cases[] = {
        {"profil 3gpp", "line 1: expected 'profile'"},
        {"# ok\nprofile 4g apn=x", "line 2: expected 3gpp or 3gpp2"},
        {"profile 3gpp colour=red", "line 1: unknown key 'colour'"},
        {"profile 3gpp pdn=ipv4", "line 1: unknown key 'pdn'"},
        {"profile 3gpp2 name=x", "line 1: unknown key 'name'"},
        {"profile 3gpp pdp=ipv5", "line 1: bad value for pdp: 'ipv5'"},
        {"profile 3gpp pdp=\"\x1b[2J\"", "line 1: bad value for pdp: '?[2J'"},
        {"profile 3gpp class=256", "line 1: bad value for class"},
        {"profile 3gpp index=0", "line 1: bad value for index"},
        {"profile 3gpp max_pdn_conn_timer=65536", "line 1: bad value for max_pdn_conn_timer"},
        {"profile 3gpp types=default,bogus", "line 1: bad value for types"},
        {"profile 3gpp types=\" -1\"", "line 1: bad value for types"},
        {"profile 3gpp class=\"5\\x00junk\"", "line 1: bad value for class"},
        {"profile 3gpp name=" + std::string(51, 'n'), "line 1: name: longer than 50 characters"},
        {"profile 3gpp apn=\"open", "line 1: unterminated quote"},
        {"profile 3gpp apn=a apn=b", "line 1: 'apn' given twice"},
        {"profile 3gpp apn", "line 1: expected key=value"},
        {"profile 3gpp index=2\nprofile 3gpp index=2", "line 2: index 2 used twice"},
    };
    for (const Case& c : cases) {
        std::vector<Profile> parsed(1);
        std::string error;
        EXPECT_FALSE(vexsim::parseProfiles(c.text, &parsed, &error)) << c.text;
        EXPECT_EQ(error.rfind(c.error, 0), 0u) << c.text << " gave: " << error;
        EXPECT_EQ(parsed.size(), 1u) << c.text;
    }
}

// --- The modem over its socket ---

const char* const kSeed =
    "profile 3gpp index=1 name=internet apn=internet pdp=ipv4v6 types=default,supl\n"
    "profile 3gpp index=2 name=ims apn=ims pdp=ipv4v6 class=1 types=ims\n"
    "profile 3gpp index=3 name=bare apn=bare.example\n"
    "profile 3gpp2 index=1 apn=cdma.example pdn=ipv4 user=u password=p auth=chap\n"
    "profile 3gpp sub=1 index=1 name=second apn=second.example\n";

class SimModemTest : public ::testing::Test {
  protected:
    // Without the ready event, a client hears only the changes a test makes.
    void SetUp() override {
        harness.modem->setProfilesReadyOnRegister(false);
        ASSERT_TRUE(harness.start()) << harness.error;
    }
    vexsim::SimModem& modem() { return *harness.modem; }

    // A client bound and registered for every event of the subscription.
    std::unique_ptr<RecordingClient> registered(int subscription) {
        auto client = std::make_unique<RecordingClient>();
        EXPECT_EQ(client->connect(), VEX_NO_ERR);
        EXPECT_TRUE(client->registerAll(subscription));
        return client;
    }

    ModemHarness harness{kSeed};
};

wds_profile_identifier_type_v01 id3gpp(uint8_t index) {
    return {WDS_PROFILE_TYPE_3GPP_V01, index};
}

// Each sends one request and returns the modem's response; a failed send fails the test.
std::unique_ptr<wds_create_profile_resp_msg_v01> create(RecordingClient& client,
                                                        wds_profile_type_enum_v01 type,
                                                        const wds_profile_settings_v01& settings) {
    auto req = std::make_unique<wds_create_profile_req_msg_v01>();
    req->profile_type = type;
    req->settings = settings;
    return client.call<wds_create_profile_resp_msg_v01>(VEX_WDS_CREATE_PROFILE_REQ_V01, *req);
}

std::unique_ptr<wds_get_profile_settings_resp_msg_v01> getProfile(
    RecordingClient& client, wds_profile_identifier_type_v01 id) {
    wds_get_profile_settings_req_msg_v01 req{id};
    return client.call<wds_get_profile_settings_resp_msg_v01>(VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01,
                                                              req);
}

std::unique_ptr<wds_get_profile_list_resp_msg_v01> listProfiles(RecordingClient& client,
                                                                wds_profile_type_enum_v01 type) {
    wds_get_profile_list_req_msg_v01 req{1, type};
    return client.call<wds_get_profile_list_resp_msg_v01>(VEX_WDS_GET_PROFILE_LIST_REQ_V01, req);
}

vex_response_type_v01 modifyResult(RecordingClient& client, wds_profile_identifier_type_v01 id,
                                   const wds_profile_settings_v01& settings) {
    auto req = std::make_unique<wds_modify_profile_settings_req_msg_v01>();
    req->profile = id;
    req->settings = settings;
    return client
        .call<wds_modify_profile_settings_resp_msg_v01>(VEX_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01,
                                                        *req)
        ->resp;
}

vex_response_type_v01 deleteResult(RecordingClient& client, wds_profile_identifier_type_v01 id) {
    wds_delete_profile_req_msg_v01 req{id};
    return client.call<wds_delete_profile_resp_msg_v01>(VEX_WDS_DELETE_PROFILE_REQ_V01, req)->resp;
}

vex_response_type_v01 bindResult(RecordingClient& client, int subscription) {
    wds_bind_subscription_req_msg_v01 req{
        static_cast<wds_bind_subscription_enum_v01>(subscription)};
    return client.call<wds_bind_subscription_resp_msg_v01>(VEX_WDS_BIND_SUBSCRIPTION_REQ_V01, req)
        ->resp;
}

TEST_F(SimModemTest, AnswersEveryMessageOfTheService) {
    auto client = registered(0);  // bind, indication register, event list: each succeeded

    auto created = create(*client, WDS_PROFILE_TYPE_3GPP_V01, settings3gpp("kel", "new.apn"));
    ASSERT_EQ(created->resp.result, 0);
    EXPECT_EQ(created->profile.profile_type, WDS_PROFILE_TYPE_3GPP_V01);
    EXPECT_EQ(created->profile.profile_index, 4);

    auto list = listProfiles(*client, WDS_PROFILE_TYPE_3GPP_V01);
    ASSERT_EQ(list->resp.result, 0);
    ASSERT_EQ(list->profile_list_len, 4u);
    EXPECT_STREQ(list->profile_list[0].profile_name, "internet");
    EXPECT_EQ(list->profile_list[3].profile_index, 4);
    EXPECT_STREQ(list->profile_list[3].profile_name, "kel");
    auto list2 = listProfiles(*client, WDS_PROFILE_TYPE_3GPP2_V01);
    ASSERT_EQ(list2->profile_list_len, 1u);
    EXPECT_EQ(list2->profile_list[0].profile_type, WDS_PROFILE_TYPE_3GPP2_V01);

    wds_profile_settings_v01 change{};
    change.apn_name_valid = 1;
    std::strcpy(change.apn_name, "changed.apn");
    EXPECT_EQ(modifyResult(*client, id3gpp(4), change).result, 0);
    auto got = getProfile(*client, id3gpp(4));
    ASSERT_EQ(got->resp.result, 0);
    EXPECT_STREQ(got->settings.apn_name, "changed.apn");
    EXPECT_STREQ(got->settings.profile_name, "kel");  // not in the modify: kept

    EXPECT_EQ(deleteResult(*client, id3gpp(4)).result, 0);
    EXPECT_FALSE(modem().profile(0, WDS_PROFILE_TYPE_3GPP_V01, 4).has_value());
    EXPECT_EQ(getProfile(*client, id3gpp(4))->resp.error, VEX_ERR_INVALID_PROFILE_V01);
}

TEST_F(SimModemTest, GetSettingsMarksValidOnlyWhatTheProfileHas) {
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    auto bare = getProfile(client, id3gpp(3));
    const wds_profile_settings_v01& s = bare->settings;
    EXPECT_TRUE(s.profile_name_valid && s.apn_name_valid && s.persistent_valid && s.persistent);
    // Roaming PDP types are always reported, 0xFF meaning "no setting".
    EXPECT_TRUE(s.lte_roaming_pdp_type_valid && s.umts_roaming_pdp_type_valid);
    EXPECT_EQ(s.lte_roaming_pdp_type, WDS_COMMON_PDP_TYPE_PDP_UNUSED_V01);
    EXPECT_FALSE(s.pdp_type_valid || s.username_valid || s.apn_class_valid ||
                 s.apn_type_mask_valid || s.common_pdp_type_valid || s.clat_enabled_valid ||
                 s.apn_string_valid || s.user_id_valid || s.pdn_type_valid);

    auto cdma = getProfile(client, {WDS_PROFILE_TYPE_3GPP2_V01, 1});
    const wds_profile_settings_v01& c = cdma->settings;
    EXPECT_STREQ(c.apn_string, "cdma.example");
    EXPECT_EQ(c.pdn_type, WDS_PROFILE_PDN_TYPE_IPV4_V01);
    EXPECT_STREQ(c.user_id, "u");
    EXPECT_EQ(c.profile_auth_protocol, WDS_PROFILE_AUTH_PROTOCOL_CHAP_V01);
    EXPECT_FALSE(c.profile_name_valid || c.apn_name_valid || c.lte_roaming_pdp_type_valid ||
                 c.pdp_type_valid);
}

TEST_F(SimModemTest, CreateKeepsTheFamilysFieldsAndModifyClearsWithNoSetting) {
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    wds_profile_settings_v01 mixed = settings3gpp("ignored", "ignored");
    mixed.apn_string_valid = 1;
    std::strcpy(mixed.apn_string, "cdma2.example");
    mixed.persistent_valid = 1;
    mixed.persistent = 0;
    ASSERT_EQ(create(client, WDS_PROFILE_TYPE_3GPP2_V01, mixed)->profile.profile_index, 2);
    auto stored = modem().profile(0, WDS_PROFILE_TYPE_3GPP2_V01, 2);
    ASSERT_TRUE(stored.has_value());
    EXPECT_FALSE(stored->persistent);
    EXPECT_EQ(stored->settings.profile_name_valid, 0);
    EXPECT_STREQ(stored->settings.apn_string, "cdma2.example");

    wds_profile_settings_v01 override{};
    override.common_pdp_type_valid = 1;
    override.common_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV4_V01;
    ASSERT_TRUE(modem().modifyProfile(0, WDS_PROFILE_TYPE_3GPP_V01, 1, override));
    EXPECT_EQ(getProfile(client, id3gpp(1))->settings.common_pdp_type_valid, 1);
    override.common_pdp_type = WDS_COMMON_PDP_TYPE_PDP_UNUSED_V01;
    ASSERT_TRUE(modem().modifyProfile(0, WDS_PROFILE_TYPE_3GPP_V01, 1, override));
    EXPECT_EQ(getProfile(client, id3gpp(1))->settings.common_pdp_type_valid, 0);
}

TEST_F(SimModemTest, BadRequestsGetAFailedResultAndChangeNothing) {
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    auto before = modem().profiles(0);
    auto unterminated = settings3gpp("x", "y");
    std::memset(unterminated.apn_name, 'a', sizeof unterminated.apn_name);
    auto badPdp = settings3gpp("x", "y");
    badPdp.pdp_type = static_cast<wds_pdp_type_enum_v01>(9);
    auto badRoam = settings3gpp("x", "y");
    badRoam.lte_roaming_pdp_type_valid = 1;
    badRoam.lte_roaming_pdp_type = static_cast<wds_common_pdp_type_enum_v01>(3);

    struct Case {
        const char* what;
        std::function<vex_response_type_v01()> send;
        int error;
    } cases[] = {
        {"create of an unknown type",
         [&] { return create(client, WDS_PROFILE_TYPE_EPC_V01, settings3gpp("x", "y"))->resp; },
         VEX_ERR_INVALID_PROFILE_TYPE_V01},
        {"create with an unterminated APN",
         [&] { return create(client, WDS_PROFILE_TYPE_3GPP_V01, unterminated)->resp; },
         VEX_ERR_INVALID_ARG_V01},
        {"create with an unknown PDP type",
         [&] { return create(client, WDS_PROFILE_TYPE_3GPP_V01, badPdp)->resp; },
         VEX_ERR_INVALID_ARG_V01},
        {"modify with an unknown roaming type",
         [&] { return modifyResult(client, id3gpp(1), badRoam); }, VEX_ERR_INVALID_ARG_V01},
        {"modify of index 0", [&] { return modifyResult(client, id3gpp(0), {}); },
         VEX_ERR_INVALID_PROFILE_V01},
        {"delete of an absent index", [&] { return deleteResult(client, id3gpp(200)); },
         VEX_ERR_INVALID_PROFILE_V01},
        {"delete of an unknown type",
         [&] {
             return deleteResult(client, {static_cast<wds_profile_type_enum_v01>(7), 1});
         },
         VEX_ERR_INVALID_PROFILE_TYPE_V01},
        {"get of an absent index", [&] { return getProfile(client, id3gpp(9))->resp; },
         VEX_ERR_INVALID_PROFILE_V01},
        {"list of an unknown type",
         [&] { return listProfiles(client, WDS_PROFILE_TYPE_EPC_V01)->resp; },
         VEX_ERR_INVALID_PROFILE_TYPE_V01},
        {"bind to a subscription the modem lacks", [&] { return bindResult(client, 5); },
         VEX_ERR_INVALID_ARG_V01},
    };
    for (const Case& c : cases) {
        vex_response_type_v01 result = c.send();
        EXPECT_EQ(result.result, VEX_RESULT_FAILURE_V01) << c.what;
        EXPECT_EQ(result.error, c.error) << c.what;
    }
    auto after = modem().profiles(0);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); ++i) {
        EXPECT_EQ(vexsim::formatProfile(after[i]), vexsim::formatProfile(before[i]));
    }
}

TEST(SimModemCapacityTest, AssignsTheLowestFreeIndexAndRefusesWhenTheTableIsFull) {
    vexsim::Config config;
    config.capacity3gpp = 3;
    ModemHarness harness("profile 3gpp index=1 apn=a\nprofile 3gpp index=3 apn=c\n", config);
    ASSERT_TRUE(harness.start()) << harness.error;
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    EXPECT_EQ(
        create(client, WDS_PROFILE_TYPE_3GPP_V01, settings3gpp("b", "b"))->profile.profile_index,
        2);
    auto full = create(client, WDS_PROFILE_TYPE_3GPP_V01, settings3gpp("d", "d"));
    EXPECT_EQ(full->resp.result, VEX_RESULT_FAILURE_V01);
    EXPECT_EQ(full->resp.error, VEX_ERR_NO_MEMORY_V01);
    EXPECT_FALSE(harness.modem->createProfile(0, WDS_PROFILE_TYPE_3GPP_V01, {}, true));
    ASSERT_TRUE(harness.modem->deleteProfile(0, WDS_PROFILE_TYPE_3GPP_V01, 1));
    EXPECT_EQ(
        create(client, WDS_PROFILE_TYPE_3GPP_V01, settings3gpp("e", "e"))->profile.profile_index,
        1);
}

TEST(SimModemCapacityTest, SeedThatDoesNotFitKeepsTheModemDown) {
    struct Case {
        const char* seed;
        const char* error;
    } cases[] = {
        {"profile 3gpp index=4 apn=a", "index out of range"},
        {"profile 3gpp sub=2 apn=a", "profile for subscription 2"},
        {"profile 3gpp apn=a\nprofile 3gpp apn=b\nprofile 3gpp apn=c\nprofile 3gpp apn=d",
         "too many profiles"},
        {"profile 3gpp pdp=ipv5", "seed: line 1: bad value for pdp"},
    };
    for (const Case& c : cases) {
        vexsim::Config config;
        config.capacity3gpp = 3;
        ModemHarness harness(c.seed, config);
        EXPECT_FALSE(harness.start()) << c.seed;
        EXPECT_NE(harness.error.find(c.error), std::string::npos) << harness.error;
        EXPECT_FALSE(harness.modem->isUp());
    }
}

TEST_F(SimModemTest, ChangesReachRegisteredClientsOfTheSubscriptionThatCoverTheProfile) {
    auto maker = registered(0);
    auto peer = registered(0);
    auto otherSub = registered(1);
    // Bound, but not registered for indications.
    RecordingClient silent;
    ASSERT_EQ(silent.connect(), VEX_NO_ERR);
    ASSERT_EQ(bindResult(silent, 0).result, VEX_RESULT_SUCCESS_V01);
    // Registered for everything, then narrowed to 3GPP2 profiles: the new list replaces the old.
    auto cdmaOnly = registered(0);
    ASSERT_TRUE(cdmaOnly->registerAll(0, WDS_PROFILE_TYPE_3GPP2_V01));

    const uint8_t index =
        create(*maker, WDS_PROFILE_TYPE_3GPP_V01, settings3gpp("n", "n"))->profile.profile_index;
    ASSERT_TRUE(modem().deleteProfile(0, WDS_PROFILE_TYPE_3GPP_V01, index));
    ASSERT_TRUE(modem().modifyProfile(0, WDS_PROFILE_TYPE_3GPP2_V01, 1, {}));
    modem().announceSubscriptionChange(1);

    for (RecordingClient* client : {maker.get(), peer.get()}) {
        ASSERT_TRUE(client->waitForIndications(4));
        auto events = client->events();
        ASSERT_EQ(events.size(), 4u);
        EXPECT_EQ(events[0].profile_change_evt, WDS_PROFILE_CREATE_EVT_V01);
        EXPECT_EQ(events[0].profile_index, index);
        EXPECT_EQ(events[1].profile_change_evt, WDS_PROFILE_MODIFY_EVT_V01);
        EXPECT_EQ(events[1].profile_index, index);
        EXPECT_EQ(events[2].profile_change_evt, WDS_PROFILE_DELETE_EVT_V01);
        EXPECT_EQ(events[3].profile_type, WDS_PROFILE_TYPE_3GPP2_V01);
    }
    // Each connection is ordered, so the first event a client gets proves the earlier ones
    // were never sent to it.
    ASSERT_TRUE(cdmaOnly->waitForIndications(1));
    EXPECT_EQ(cdmaOnly->events().at(0).profile_type, WDS_PROFILE_TYPE_3GPP2_V01);
    ASSERT_TRUE(otherSub->waitForIndications(1));
    EXPECT_EQ(otherSub->events().at(0).profile_change_evt, WDS_PROFILE_SUBSCRIPTION_CHANGE_EVT_V01);
    for (const auto& info : modem().clients()) {
        if (info.bound && !info.indicationsRegistered) {
            EXPECT_EQ(info.indicationsSent, 0u);
        }
    }
    EXPECT_TRUE(silent.received().empty());
}

TEST(SimModemReadyTest, ProfilesReadyFollowsACompleteRegistrationUnlessSwitchedOff) {
    ModemHarness harness(kSeed);
    ASSERT_TRUE(harness.start()) << harness.error;
    RecordingClient first;
    ASSERT_EQ(first.connect(), VEX_NO_ERR);
    ASSERT_TRUE(first.registerAll(1));
    ASSERT_TRUE(first.waitForIndications(1));
    auto events = first.events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].profile_change_evt, WDS_PROFILES_READY_EVT_V01);
    auto clients = harness.waitForClients(1);
    ASSERT_EQ(clients.size(), 1u);
    EXPECT_TRUE(clients[0].profilesReadySent);
    EXPECT_EQ(clients[0].subscription, 1);
    // Switched off, as in SimModemTest's fixture, a client's first event is the first change.
}

TEST(SimModemStateTest, StateFileCarriesPersistentProfilesToTheNextModem) {
    testsupport::TempDir state;
    vexsim::Config config;
    config.stateFile = state.file("modem.state");
    {
        ModemHarness harness(
            "profile 3gpp name=seeded apn=s\n"
            "profile 3gpp name=volatile apn=v persistent=no\n",
            config);
        ASSERT_TRUE(harness.start()) << harness.error;
        ASSERT_TRUE(harness.modem->createProfile(0, WDS_PROFILE_TYPE_3GPP_V01,
                                                 settings3gpp("mine", "m"), true));
        ASSERT_TRUE(harness.modem->createProfile(0, WDS_PROFILE_TYPE_3GPP_V01,
                                                 settings3gpp("temp", "t"), false));
        ASSERT_TRUE(harness.modem->modifyProfile(0, WDS_PROFILE_TYPE_3GPP_V01, 1,
                                                 settings3gpp("seeded", "changed")));
    }
    // A new modem with another seed: the state file wins.
    ModemHarness next("profile 3gpp name=other apn=o\n", config);
    ASSERT_TRUE(next.start()) << next.error;
    auto profiles = next.modem->profiles(0);
    ASSERT_EQ(profiles.size(), 2u);
    EXPECT_STREQ(profiles[0].settings.profile_name, "seeded");
    EXPECT_STREQ(profiles[0].settings.apn_name, "changed");
    EXPECT_EQ(profiles[1].index, 3);
    EXPECT_STREQ(profiles[1].settings.profile_name, "mine");
}

TEST_F(SimModemTest, FailNextFailsOnlyTheChosenRequestsThenRecovers) {
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    modem().failNext(2, VEX_WDS_GET_PROFILE_LIST_REQ_V01, VEX_ERR_EXTENDED_INTERNAL_V01);
    EXPECT_EQ(getProfile(client, id3gpp(1))->resp.result, VEX_RESULT_SUCCESS_V01);
    for (int i = 0; i < 2; ++i) {
        auto list = listProfiles(client, WDS_PROFILE_TYPE_3GPP_V01);
        EXPECT_EQ(list->resp.result, VEX_RESULT_FAILURE_V01);
        EXPECT_EQ(list->resp.error, VEX_ERR_EXTENDED_INTERNAL_V01);
        EXPECT_EQ(list->profile_list_len, 0u);
    }
    EXPECT_EQ(listProfiles(client, WDS_PROFILE_TYPE_3GPP_V01)->profile_list_len, 3u);

    modem().failNext(1);
    const vex_response_type_v01 bound = bindResult(client, 0);
    EXPECT_EQ(bound.result, VEX_RESULT_FAILURE_V01);
    EXPECT_EQ(bound.error, VEX_ERR_INTERNAL_V01);
    EXPECT_FALSE(harness.waitForClients(1).at(0).bound);
}

TEST_F(SimModemTest, WrongSizeOrUnknownRequestIsRejectedAndTheConnectionStays) {
    RawPeer peer(harness.dir.path());
    ASSERT_TRUE(peer.ok());
    peer.hello();
    struct Case {
        unsigned int msgId;
        size_t length;
    } cases[] = {{VEX_WDS_BIND_SUBSCRIPTION_REQ_V01, 3},
                 {VEX_WDS_CREATE_PROFILE_REQ_V01, 3257},
                 {0x0999, 8}};
    for (const Case& c : cases) {
        peer.request(c.msgId, std::vector<uint8_t>(c.length, 0));
        auto frame = peer.next();
        ASSERT_TRUE(frame.has_value()) << c.msgId;
        EXPECT_EQ(frame->header.kind, vexwire::FrameKind::Response);
        EXPECT_EQ(frame->header.status, vexwire::FrameStatus::Rejected);
        EXPECT_EQ(frame->header.msgId, c.msgId);
        EXPECT_EQ(frame->header.txnId, 9u);
        EXPECT_TRUE(frame->payload.empty());
    }
    peer.request(VEX_WDS_BIND_SUBSCRIPTION_REQ_V01, std::vector<uint8_t>(4, 0));
    auto frame = peer.next();
    ASSERT_TRUE(frame.has_value());
    EXPECT_EQ(frame->header.status, vexwire::FrameStatus::Ok);
    EXPECT_EQ(frame->payload.size(), sizeof(wds_bind_subscription_resp_msg_v01));
}

TEST_F(SimModemTest, GarbageAndVanishingPeersNeitherCrashNorBlockTheModem) {
    // The greeting, then a bare frame header of the given kind and announced length.
    auto greetedThen = [](uint8_t kind, uint32_t length) {
        vexwire::FrameHeader h;
        h.kind = static_cast<vexwire::FrameKind>(kind);
        const auto frame = vexwire::encodeFrame(h, nullptr, 0);
        std::vector<uint8_t> bytes = helloFrame();
        bytes.insert(bytes.end(), frame.begin(), frame.end());
        std::memcpy(&bytes[bytes.size() - frame.size() + 12], &length, sizeof length);
        return bytes;
    };
    const std::pair<const char*, std::vector<uint8_t>> closing[] = {
        {"text instead of frames",
         {'G', 'E', 'T', ' ', '/', '\r', '\n', 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"request before hello", requestFrame(VEX_WDS_BIND_SUBSCRIPTION_REQ_V01, {0, 0, 0, 0})},
        {"oversized length", greetedThen(2, 0xFFFFFFFF)},
        {"unknown frame kind", greetedThen(9, 0)},
        {"indication from a client", greetedThen(4, 0)},
    };
    for (const auto& [what, bytes] : closing) {
        RawPeer peer(harness.dir.path());
        ASSERT_TRUE(peer.ok()) << what;
        peer.send(bytes);
        EXPECT_FALSE(peer.next().has_value()) << what << ": the modem kept the connection";
    }
    // Peers that vanish halfway through a frame or before their answer.
    for (int i = 0; i < 20; ++i) {
        RawPeer peer(harness.dir.path());
        peer.send(i % 2 == 0 ? greetedThen(2, 100) : helloFrame());
        if (i % 2 != 0) {
            peer.request(VEX_WDS_CREATE_PROFILE_REQ_V01,
                         std::vector<uint8_t>(sizeof(wds_create_profile_req_msg_v01), 0));
        }
    }
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    EXPECT_EQ(getProfile(client, id3gpp(1))->resp.result, VEX_RESULT_SUCCESS_V01);
    EXPECT_EQ(harness.waitForClients(1).size(), 1u);
}

TEST_F(SimModemTest, ConcurrentClientsGetDistinctIndexesAndHearEveryChange) {
    constexpr int kClients = 4, kEach = 5;
    std::vector<std::unique_ptr<RecordingClient>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.push_back(registered(0));
    }
    std::vector<std::vector<uint8_t>> indexes(kClients);
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([&, i] {
            for (int n = 0; n < kEach; ++n) {
                std::string name = "c" + std::to_string(i) + "_" + std::to_string(n);
                auto resp = create(*clients[static_cast<size_t>(i)], WDS_PROFILE_TYPE_3GPP_V01,
                                   settings3gpp(name, name));
                if (resp->resp.result == 0) {
                    indexes[static_cast<size_t>(i)].push_back(resp->profile.profile_index);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    std::set<uint8_t> all;
    for (const auto& mine : indexes) {
        EXPECT_EQ(mine.size(), static_cast<size_t>(kEach));
        all.insert(mine.begin(), mine.end());
    }
    EXPECT_EQ(all.size(), static_cast<size_t>(kClients * kEach));
    EXPECT_EQ(*all.begin(), 4);
    EXPECT_EQ(*all.rbegin(), 3 + kClients * kEach);
    for (auto& client : clients) {
        ASSERT_TRUE(client->waitForIndications(2 * kClients * kEach));
        EXPECT_EQ(client->events().size(), static_cast<size_t>(2 * kClients * kEach));
    }
}

}  // namespace
