// The vex client library against the simulated modem over its socket: service discovery, the
// notifier, synchronous messages and their failures, callbacks, release and decoding.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>

#include "platform/VexTestClient.h"

namespace {

using namespace vextest;

const char* const kSeed =
    "profile 3gpp index=1 name=internet apn=internet pdp=ipv4v6 types=default,supl\n"
    "profile 3gpp index=2 name=ims apn=ims pdp=ipv4v6 class=1 types=ims\n"
    "profile 3gpp index=3 name=mms apn=mms.example pdp=ipv4 types=mms\n";

wds_get_profile_settings_req_msg_v01 getRequest(uint8_t index) {
    wds_get_profile_settings_req_msg_v01 req{};
    req.profile.profile_type = WDS_PROFILE_TYPE_3GPP_V01;
    req.profile.profile_index = index;
    return req;
}

bool allZero(const void* data, size_t len) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    return std::all_of(bytes, bytes + len, [](uint8_t b) { return b == 0; });
}

TEST(WdsServiceObjectTest, ServedOnlyForItsMajorVersionAndNoNewerMinor) {
    struct Case {
        int32_t major;
        int32_t minor;
        bool served;
    } cases[] = {{1, 0xF7, true}, {1, 0, true}, {1, 0xF8, false}, {2, 0xF7, false}, {0, 1, false}};
    for (const Case& c : cases) {
        EXPECT_EQ(wds_get_service_object_internal_v01(c.major, c.minor, 6) != nullptr, c.served)
            << c.major << "." << c.minor;
    }
}

class VexClientTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(harness.start()) << harness.error; }

    ModemHarness harness{kSeed};
    vexsim::SimModem& modem() { return *harness.modem; }
};

TEST_F(VexClientTest, GetAnyServiceFindsTheModemOnlyWhileItIsUp) {
    vex_service_info info{};
    ASSERT_EQ(vex_client_get_any_service(wds(), &info), VEX_NO_ERR);
    EXPECT_EQ(info.service_id, WDS_SERVICE_ID_V01);
    EXPECT_EQ(std::string(info.path), harness.dir.path() + "/wds");

    modem().stop();
    EXPECT_EQ(vex_client_get_any_service(wds(), &info), VEX_ERR_NO_SERVICE);
}

TEST_F(VexClientTest, NotifierReportsAtOnceWhenUpOrWhenTheModemComesUpAndAfterEveryRestart) {
    NotifyCounter early;
    vex_client_type earlyNotifier = early.startNotifier();
    ASSERT_NE(earlyNotifier, nullptr);
    ASSERT_TRUE(early.waitForUps(1));
    EXPECT_NE(early.seen.get().thread, std::this_thread::get_id());

    modem().stop();
    NotifyCounter late;
    vex_client_type lateNotifier = late.startNotifier();
    ASSERT_NE(lateNotifier, nullptr);
    for (int restart = 1; restart <= 2; ++restart) {
        ASSERT_TRUE(modem().start(&harness.error)) << harness.error;
        ASSERT_TRUE(early.waitForUps(1 + restart)) << "restart " << restart;
        ASSERT_TRUE(late.waitForUps(restart)) << "restart " << restart;
        // The notifiers' watch connections are not WDS clients.
        ASSERT_TRUE(modem().waitUntil(
            [&] {
                auto clients = modem().clients();
                return clients.size() == 2 && clients[0].notifierOnly && clients[1].notifierOnly;
            },
            kWait));
        modem().stop();
    }
    EXPECT_EQ(vex_client_release(earlyNotifier), VEX_NO_ERR);
    EXPECT_EQ(vex_client_release(lateNotifier), VEX_NO_ERR);
    EXPECT_EQ(early.seen.get().ups, 3);
    EXPECT_EQ(late.seen.get().ups, 2);
}

TEST_F(VexClientTest, InvalidHandlesAreRejectedByEveryCall) {
    vex_client_type notifier = nullptr;
    vex_client_os_params os{};
    ASSERT_EQ(vex_client_notifier_init(wds(), &os, &notifier), VEX_NO_ERR);
    RecordingClient released;
    ASSERT_EQ(released.connect(), VEX_NO_ERR);
    vex_client_type stale = released.handle;
    released.release();

    auto req = getRequest(1);
    wds_get_profile_settings_resp_msg_v01 resp;
    for (vex_client_type handle : {static_cast<vex_client_type>(nullptr), stale, notifier}) {
        std::memset(&resp, 0xAB, sizeof resp);
        EXPECT_EQ(vex_client_send_msg_sync(handle, VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01, &req,
                                           sizeof req, &resp, sizeof resp, 1000),
                  VEX_ERR_INVALID_CLIENT);
        EXPECT_TRUE(allZero(&resp, sizeof resp));
        EXPECT_EQ(vex_client_register_error_cb(
                      handle, [](vex_client_type, vex_client_error_type, void*) {}, nullptr),
                  VEX_ERR_INVALID_CLIENT);
    }
    EXPECT_EQ(vex_client_release(stale), VEX_ERR_INVALID_CLIENT);
    EXPECT_EQ(vex_client_release(nullptr), VEX_ERR_INVALID_CLIENT);
    EXPECT_EQ(vex_client_release(notifier), VEX_NO_ERR);
    EXPECT_EQ(vex_client_release(notifier), VEX_ERR_INVALID_CLIENT);
}

TEST_F(VexClientTest, WronglySizedOrUnknownMessagesAreRejectedBeforeSending) {
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    std::vector<uint8_t> req(4096), resp(16384);
    struct Case {
        const char* what;
        unsigned int msgId;
        unsigned int reqLen;
        unsigned int respLen;
    } cases[] = {
        {"unknown id", 0x0999, 8, 8},
        {"indication id", VEX_WDS_PROFILE_CHANGED_IND_V01, 16, 8},
        {"short request", VEX_WDS_CREATE_PROFILE_REQ_V01, 3255, 24},
        {"long request", VEX_WDS_BIND_SUBSCRIPTION_REQ_V01, 5, 8},
        {"short response", VEX_WDS_GET_PROFILE_LIST_REQ_V01, 184, 14299},
        {"long response", VEX_WDS_DELETE_PROFILE_REQ_V01, 8, 24},
    };
    for (const Case& c : cases) {
        std::fill(resp.begin(), resp.end(), 0xAB);
        EXPECT_EQ(vex_client_send_msg_sync(client.handle, c.msgId, req.data(), c.reqLen,
                                           resp.data(), c.respLen, 1000),
                  VEX_ERR_BAD_MESSAGE)
            << c.what;
        EXPECT_TRUE(allZero(resp.data(), c.respLen)) << c.what;
    }
    EXPECT_EQ(vex_client_send_msg_sync(client.handle, VEX_WDS_BIND_SUBSCRIPTION_REQ_V01, nullptr, 4,
                                       resp.data(), 8, 1000),
              VEX_ERR_PARAM);
    // None of them reached the modem.
    auto clients = harness.waitForClients(1);
    ASSERT_EQ(clients.size(), 1u);
    EXPECT_EQ(clients[0].requestsServed, 0u);
}

TEST_F(VexClientTest, TimedOutRequestLeavesZerosAndItsLateResponseReachesNoOtherRequest) {
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    modem().setResponseDelay(400ms, VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01);
    auto first = getRequest(1);
    wds_get_profile_settings_resp_msg_v01 resp;
    std::memset(&resp, 0xAB, sizeof resp);
    EXPECT_EQ(client.send(VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01, first, resp, 50), VEX_ERR_TIMEOUT);
    EXPECT_TRUE(allZero(&resp, sizeof resp));

    // The next answer comes after the late one; the late one must not be taken for it.
    modem().setResponseDelay(800ms, VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01);
    auto second = getRequest(3);
    ASSERT_EQ(client.send(VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01, second, resp, 10000), VEX_NO_ERR);
    EXPECT_STREQ(resp.settings.profile_name, "mms");
}

TEST_F(VexClientTest, DroppedConnectionReportsTheErrorOnceAndFailsLaterSends) {
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    auto clients = harness.waitForClients(1);
    ASSERT_EQ(clients.size(), 1u);
    ASSERT_TRUE(modem().dropClient(clients[0].id));
    ASSERT_TRUE(client.waitForErrors(1));
    EXPECT_EQ(client.seen.get().lastError, VEX_ERR_CONNECTION_LOST);
    EXPECT_NE(client.seen.get().errorThread, std::this_thread::get_id());

    auto req = getRequest(1);
    wds_get_profile_settings_resp_msg_v01 resp{};
    EXPECT_EQ(client.send(VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01, req, resp),
              VEX_ERR_CONNECTION_LOST);
    // Going down afterwards, or another modem event, does not report the loss again; every
    // client still connected hears of the going down, once.
    RecordingClient first, second;
    ASSERT_EQ(first.connect(), VEX_NO_ERR);
    ASSERT_EQ(second.connect(), VEX_NO_ERR);
    modem().stop();
    ASSERT_TRUE(first.waitForErrors(1));
    ASSERT_TRUE(second.waitForErrors(1));
    RecordingClient witness;
    ASSERT_TRUE(modem().start(&harness.error));
    ASSERT_EQ(witness.connect(), VEX_NO_ERR);
    for (RecordingClient* each : {&client, &first, &second}) {
        each->release();
        EXPECT_EQ(each->seen.get().errors, 1);
    }
}

TEST_F(VexClientTest, ErrorCallbackRegisteredAfterTheLossRunsOnceOnTheLibraryThread) {
    RecordingClient client;
    ASSERT_EQ(client.connect(false), VEX_NO_ERR);
    modem().stop();
    auto req = getRequest(1);
    wds_get_profile_settings_resp_msg_v01 resp{};
    // The loss is seen by the first send after it at the latest.
    EXPECT_EQ(client.send(VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01, req, resp),
              VEX_ERR_CONNECTION_LOST);
    ASSERT_EQ(client.registerErrorCallback(), VEX_NO_ERR);
    ASSERT_TRUE(client.waitForErrors(1));
    EXPECT_NE(client.seen.get().errorThread, std::this_thread::get_id());
    EXPECT_EQ(client.release(), VEX_NO_ERR);
    EXPECT_EQ(client.seen.get().errors, 1);
}

TEST_F(VexClientTest, IndicationsArriveInOrderOnTheLibraryThread) {
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    ASSERT_TRUE(client.registerAll(0));
    ASSERT_TRUE(client.waitForIndications(1));  // profiles ready
    modem().sendIndicationBurst(0, 300);
    ASSERT_TRUE(client.waitForIndications(301));
    auto events = client.events();
    ASSERT_EQ(events.size(), 301u);
    EXPECT_EQ(events[0].profile_change_evt, WDS_PROFILES_READY_EVT_V01);
    for (size_t i = 1; i < events.size(); ++i) {
        EXPECT_EQ(events[i].profile_change_evt, WDS_PROFILE_MODIFY_EVT_V01);
        EXPECT_EQ(events[i].profile_index, (i - 1) % 3 + 1) << i;
    }
    for (const auto& ind : client.received()) {
        EXPECT_NE(ind.thread, std::this_thread::get_id());
    }
}

TEST_F(VexClientTest, ReleaseWaitsForTheCallbackInFlight) {
    std::promise<void> entered, go;
    std::shared_future<void> goFuture = go.get_future().share();
    std::atomic<bool> finished{false};
    std::atomic<int> calls{0};
    RecordingClient client;
    client.beforeIndication = [&](unsigned int) {
        if (calls.fetch_add(1) == 0) {
            entered.set_value();
            goFuture.wait();
            finished = true;
        }
    };
    modem().setProfilesReadyOnRegister(false);
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    ASSERT_TRUE(client.registerAll(0));
    modem().sendUnknownIndication(0, 0x0777);
    ASSERT_EQ(entered.get_future().wait_for(kWait), std::future_status::ready);

    auto released = std::async(std::launch::async, [&] {
        vex_client_error_type rc = client.release();
        return std::make_pair(rc, finished.load());
    });
    go.set_value();
    auto [rc, finishedBeforeReturn] = released.get();
    EXPECT_EQ(rc, VEX_NO_ERR);
    EXPECT_TRUE(finishedBeforeReturn);
}

TEST_F(VexClientTest, ReleasingAClientFromANotifierCallbackIsSafe) {
    struct Context {
        vex_client_type client = nullptr;
        std::promise<vex_client_error_type> result;
    } context;
    vex_service_info info{};
    ASSERT_EQ(vex_client_get_any_service(wds(), &info), VEX_NO_ERR);
    vex_client_os_params os{};
    ASSERT_EQ(vex_client_init(&info, wds(), nullptr, nullptr, &os, &context.client), VEX_NO_ERR);
    vex_client_type notifier = nullptr;
    ASSERT_EQ(vex_client_notifier_init(wds(), &os, &notifier), VEX_NO_ERR);
    ASSERT_EQ(vex_client_register_notify_cb(
                  notifier,
                  [](vex_client_type, vex_idl_service_object_type, vex_client_notify_event_type,
                     void* data) {
                      auto* c = static_cast<Context*>(data);
                      if (c->client != nullptr) {
                          c->result.set_value(vex_client_release(c->client));
                          c->client = nullptr;
                      }
                  },
                  &context),
              VEX_NO_ERR);
    auto result = context.result.get_future();
    ASSERT_EQ(result.wait_for(kWait), std::future_status::ready);
    EXPECT_EQ(result.get(), VEX_NO_ERR);
    EXPECT_EQ(vex_client_release(notifier), VEX_NO_ERR);
    ASSERT_TRUE(modem().waitUntil([&] { return modem().clients().empty(); }, kWait));
}

TEST_F(VexClientTest, ConcurrentSendersOnOneHandleEachGetTheirOwnResponse) {
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    const char* const apns[] = {"internet", "ims", "mms.example"};
    std::vector<std::thread> senders;
    std::atomic<int> mismatches{0};
    for (uint8_t index = 1; index <= 3; ++index) {
        senders.emplace_back([&, index] {
            auto req = getRequest(index);
            for (int i = 0; i < 40; ++i) {
                wds_get_profile_settings_resp_msg_v01 resp{};
                if (client.send(VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01, req, resp) != VEX_NO_ERR ||
                    std::string(resp.settings.apn_name) != apns[index - 1]) {
                    ++mismatches;
                }
            }
        });
    }
    for (auto& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(mismatches.load(), 0);
    auto clients = harness.waitForClients(1);
    ASSERT_EQ(clients.size(), 1u);
    EXPECT_EQ(clients[0].requestsServed, 120u);
}

// --- Decoding (what any input decodes to is the decode corpus's to replay) ---

using VexDecodeTest = VexClientTest;

TEST_F(VexDecodeTest, NeedsAHandleThatNamesTheServiceButNotALiveConnection) {
    // A modify event for 3GPP2 profile 3, as it goes on the wire.
    const std::vector<uint8_t> modify3 = {0x10, 0x06, 0x00, 0x01, 0x03, 0x03, 0x00, 0x00, 0x00};
    wds_profile_changed_ind_msg_v01 ind{};
    auto decode = [&](vex_client_type handle) {
        return vex_client_message_decode(
            handle, VEX_IDL_INDICATION, VEX_WDS_PROFILE_CHANGED_IND_V01, modify3.data(),
            static_cast<unsigned int>(modify3.size()), &ind, sizeof ind);
    };
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    EXPECT_EQ(decode(nullptr), VEX_ERR_INVALID_CLIENT);
    // Indications queued before a release are still decoded after it.
    vex_client_type stale = client.handle;
    client.release();
    EXPECT_EQ(decode(stale), VEX_NO_ERR);
    EXPECT_EQ(ind.profile_changed_ind.profile_index, 3);
}

}  // namespace
