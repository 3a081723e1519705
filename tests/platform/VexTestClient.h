// Helpers of the platform tests: a modem in a fresh service directory, and a vex client that
// records its callbacks so a test can wait for them.
#ifndef KELR_TESTS_PLATFORM_VEX_TEST_CLIENT_H
#define KELR_TESTS_PLATFORM_VEX_TEST_CLIENT_H

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "VexWire.h"
#include "support/Guarded.h"
#include "support/TestSupport.h"
#include "vex/vex_client.h"
#include "vex/wireless_data_service_v01.h"
#include "vexsim/SimModem.h"

namespace vextest {

using namespace std::chrono_literals;

constexpr auto kWait = std::chrono::milliseconds(10000);

inline vex_idl_service_object_type wds() {
    return wds_get_service_object_v01();
}

// A modem serving in its own temporary directory, which VEX_SERVICE_DIR names for the clients.
struct ModemHarness {
    explicit ModemHarness(const std::string& seed = "", vexsim::Config config = {}) {
        config.serviceDir = dir.path();
        config.seedText = seed;
        serviceDir.emplace("VEX_SERVICE_DIR", dir.path().c_str());
        modem = std::make_unique<vexsim::SimModem>(config);
    }
    bool start() { return modem->start(&error); }
    // The WDS clients (not notifiers) once there are exactly count of them.
    std::vector<vexsim::ClientInfo> waitForClients(size_t count) {
        std::vector<vexsim::ClientInfo> found;
        modem->waitUntil(
            [&] {
                found.clear();
                for (const auto& info : modem->clients()) {
                    if (!info.notifierOnly) {
                        found.push_back(info);
                    }
                }
                return found.size() == count;
            },
            kWait);
        return found;
    }

    testsupport::TempDir dir;
    std::optional<testsupport::ScopedEnv> serviceDir;  // names dir for the clients
    std::unique_ptr<vexsim::SimModem> modem;
    std::string error;
};

inline wds_profile_settings_v01 settings3gpp(const std::string& name, const std::string& apn) {
    wds_profile_settings_v01 s{};
    s.profile_name_valid = 1;
    std::strncpy(s.profile_name, name.c_str(), WDS_PROFILE_NAME_MAX_V01);
    s.apn_name_valid = 1;
    std::strncpy(s.apn_name, apn.c_str(), WDS_APN_NAME_MAX_V01);
    s.pdp_type_valid = 1;
    s.pdp_type = WDS_PDP_TYPE_PDP_IPV4V6_V01;
    return s;
}

using testsupport::Guarded;

// One vex client whose callbacks are recorded.
class RecordingClient {
  public:
    RecordingClient() = default;
    ~RecordingClient() { release(); }
    RecordingClient(const RecordingClient&) = delete;
    RecordingClient& operator=(const RecordingClient&) = delete;

    // Connects; the error callback is registered at once unless the test does it later.
    vex_client_error_type connect(bool withErrorCallback = true) {
        vex_service_info info{};
        vex_client_error_type rc = vex_client_get_any_service(wds(), &info);
        if (rc != VEX_NO_ERR) {
            return rc;
        }
        vex_client_os_params os{};
        rc = vex_client_init(&info, wds(), &RecordingClient::onIndication, this, &os, &handle);
        if (rc != VEX_NO_ERR) {
            return rc;
        }
        return withErrorCallback ? registerErrorCallback() : VEX_NO_ERR;
    }
    vex_client_error_type registerErrorCallback() {
        return vex_client_register_error_cb(handle, &RecordingClient::onError, this);
    }

    vex_client_error_type release() {
        vex_client_error_type rc = VEX_NO_ERR;
        if (handle != nullptr) {
            rc = vex_client_release(handle);
            handle = nullptr;
        }
        return rc;
    }

    template <typename Req, typename Resp>
    vex_client_error_type send(unsigned int msgId, Req& req, Resp& resp,
                               unsigned int timeoutMs = 5000) {
        return vex_client_send_msg_sync(handle, msgId, &req, sizeof req, &resp, sizeof resp,
                                        timeoutMs);
    }

    // Sends one request and returns its response; a failed send fails the test.
    template <typename Resp, typename Req>
    std::unique_ptr<Resp> call(unsigned int msgId, Req& req) {
        auto resp = std::make_unique<Resp>();
        EXPECT_EQ(send(msgId, req, *resp), VEX_NO_ERR) << "message " << msgId;
        return resp;
    }

    // Binds to the subscription, registers for indications and hears every profile event (of
    // one profile type, when given), as the library does.
    bool registerAll(int subscription, int profileType = 0xFF) {
        wds_bind_subscription_req_msg_v01 bind{
            static_cast<wds_bind_subscription_enum_v01>(subscription)};
        wds_indication_register_req_msg_v01 reg{};
        reg.report_profile_changed_events_valid = 1;
        reg.report_profile_changed_events = 1;
        auto config = std::make_unique<wds_configure_profile_event_list_req_msg_v01>();
        config->profile_event_register_valid = 1;
        config->profile_event_register_len = 1;
        config->profile_event_register[0] = {static_cast<wds_profile_type_enum_v01>(profileType),
                                             0xFF};
        config->report_profile_events_valid = 1;
        config->report_profile_events = 1;
        return call<wds_bind_subscription_resp_msg_v01>(VEX_WDS_BIND_SUBSCRIPTION_REQ_V01, bind)
                       ->resp.result == 0 &&
               call<wds_indication_register_resp_msg_v01>(VEX_WDS_INDICATION_REGISTER_REQ_V01, reg)
                       ->resp.result == 0 &&
               call<wds_configure_profile_event_list_resp_msg_v01>(
                   VEX_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01, *config)
                       ->resp.result == 0;
    }

    struct Indication {
        unsigned int msgId;
        std::vector<uint8_t> bytes;
        std::thread::id thread;
    };

    // What the callbacks reported: every indication, and the errors with the last one's thread.
    struct Seen {
        std::vector<Indication> indications;
        int errors = 0;
        vex_client_error_type lastError = VEX_NO_ERR;
        std::thread::id errorThread;
    };

    bool waitForIndications(size_t count) {
        return seen.waitUntil([&](const Seen& now) { return now.indications.size() >= count; });
    }
    bool waitForErrors(int count) {
        return seen.waitUntil([&](const Seen& now) { return now.errors >= count; });
    }
    std::vector<Indication> received() { return seen.get().indications; }
    // The profile-changed events received so far, decoded; an undecodable one is skipped.
    std::vector<wds_profile_changed_ind_type_v01> events() {
        std::vector<wds_profile_changed_ind_type_v01> out;
        for (const Indication& ind : received()) {
            wds_profile_changed_ind_msg_v01 msg{};
            if (ind.msgId == VEX_WDS_PROFILE_CHANGED_IND_V01 &&
                vex_client_message_decode(handle, VEX_IDL_INDICATION, ind.msgId, ind.bytes.data(),
                                          static_cast<unsigned int>(ind.bytes.size()), &msg,
                                          sizeof msg) == VEX_NO_ERR) {
                out.push_back(msg.profile_changed_ind);
            }
        }
        return out;
    }
    vex_client_type handle = nullptr;
    // Runs on the library's thread before each indication is recorded; set before connect().
    std::function<void(unsigned int msgId)> beforeIndication;
    Guarded<Seen> seen;

  private:
    static void onIndication(vex_client_type, unsigned int msgId, void* buf, unsigned int len,
                             void* data) {
        auto* self = static_cast<RecordingClient*>(data);
        if (self->beforeIndication) {
            self->beforeIndication(msgId);
        }
        const auto* bytes = static_cast<const uint8_t*>(buf);
        self->seen.change([&](Seen& now) {
            now.indications.push_back(
                {msgId, std::vector<uint8_t>(bytes, bytes + len), std::this_thread::get_id()});
        });
    }
    static void onError(vex_client_type, vex_client_error_type error, void* data) {
        static_cast<RecordingClient*>(data)->seen.change([&](Seen& now) {
            ++now.errors;
            now.lastError = error;
            now.errorThread = std::this_thread::get_id();
        });
    }
};

// A client's greeting, and a request with transaction id 9, as they go on the wire.
inline std::vector<uint8_t> helloFrame() {
    vexwire::FrameHeader header;
    header.kind = vexwire::FrameKind::Hello;
    header.msgId = WDS_SERVICE_ID_V01;
    const uint8_t role = 0;
    return vexwire::encodeFrame(header, &role, 1);
}
inline std::vector<uint8_t> requestFrame(unsigned int msgId, const std::vector<uint8_t>& payload) {
    vexwire::FrameHeader header;
    header.msgId = msgId;
    header.txnId = 9;
    return vexwire::encodeFrame(header, payload.data(), payload.size());
}

// Raw bytes on the service socket, as a broken or hostile peer would send them.
class RawPeer {
  public:
    explicit RawPeer(const std::string& dir)
        : fd(vexwire::connectUnix(vexwire::servicePath(dir, wds()),
                                  vexwire::Clock::now() + kWait)) {}
    bool ok() const { return static_cast<bool>(fd); }
    void send(const std::vector<uint8_t>& bytes) {
        vexwire::writeAll(fd.get(), bytes.data(), bytes.size(),
                          vexwire::Clock::now() + std::chrono::seconds(5));
    }
    void hello() { send(helloFrame()); }
    void request(unsigned int msgId, const std::vector<uint8_t>& payload) {
        send(requestFrame(msgId, payload));
    }
    // The next frame, or nothing when the modem closes the connection.
    std::optional<vexwire::Frame> next() {
        auto deadline = vexwire::Clock::now() + kWait;
        vexwire::Frame frame;
        while (vexwire::Clock::now() < deadline) {
            if (reader.next(&frame) == vexwire::FrameReader::Result::Frame) {
                return frame;
            }
            pollfd pfd{fd.get(), POLLIN, 0};
            ::poll(&pfd, 1, 1000);
            if (pfd.revents != 0 && !reader.fill(fd.get())) {
                return reader.next(&frame) == vexwire::FrameReader::Result::Frame
                           ? std::optional<vexwire::Frame>(frame)
                           : std::nullopt;
            }
        }
        ADD_FAILURE() << "the modem neither answered nor closed";
        return std::nullopt;
    }

  private:
    vexwire::UniqueFd fd;
    vexwire::FrameReader reader;
};

// Counts a notifier's service-up reports.
class NotifyCounter {
  public:
    // A notifier that reports to this counter; null when it cannot be made.
    vex_client_type startNotifier() {
        vex_client_type notifier = nullptr;
        vex_client_os_params os{};
        if (vex_client_notifier_init(wds(), &os, &notifier) != VEX_NO_ERR ||
            vex_client_register_notify_cb(notifier, &NotifyCounter::onNotify, this) != VEX_NO_ERR) {
            return nullptr;
        }
        return notifier;
    }
    static void onNotify(vex_client_type, vex_idl_service_object_type,
                         vex_client_notify_event_type event, void* data) {
        static_cast<NotifyCounter*>(data)->seen.change([&](Ups& now) {
            now.ups += event == VEX_CLIENT_SERVICE_COUNT_INCREASING ? 1 : 0;
            now.thread = std::this_thread::get_id();
        });
    }
    bool waitForUps(int count) {
        return seen.waitUntil([&](const Ups& now) { return now.ups >= count; });
    }

    struct Ups {
        int ups = 0;
        std::thread::id thread;  // the last report's
    };
    Guarded<Ups> seen;
};

}  // namespace vextest

#endif  // KELR_TESTS_PLATFORM_VEX_TEST_CLIENT_H
