// End to end: the library's connection to the modem's data service, through kel::Manager against
// the embedded simulated modem: registration, the modem going down and coming back, and
// indications the library must survive. One test uses a scripted modem on the same socket, for a
// profile list that the simulated modem never sends.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "SimModemFixture.h"
#include "VexWire.h"
#include "support/LogObservation.h"

namespace e2e {
namespace {

using kel::IProfileKey;
using kel::PDCRefreshStatus;

// --- Connecting ---

class VexWdsProxySimModemTest : public SimModemFixture {};

// Starts the modem only; each test connects the library itself.
class VexWdsProxyConnectTest : public SimModemFixture {
  protected:
    void SetUp() override { startModem(); }
};

TEST_F(VexWdsProxyConnectTest, BindsRegistersAndReleasesItsNotifier) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    connect(manager, 0);

    ASSERT_TRUE(modem->waitUntil([this] { return modem->clients().size() == 1; }, kTimeout))
        << "only the WDS client stays connected; the notifier is released";
    vexsim::ClientInfo client = modem->clients()[0];
    EXPECT_FALSE(client.notifierOnly);
    EXPECT_TRUE(isRegistered(client));
    EXPECT_EQ(client.subscription, 0);
    EXPECT_TRUE(history("KEL thread started"));
    EXPECT_TRUE(history("VexWdsProxy::registerVexSvcUp"));
    EXPECT_TRUE(debug("VexWdsProxy service is up, trying to initialize svc client"));
    EXPECT_TRUE(debug("vex_client_register_error_cb result: 0"));
    EXPECT_TRUE(debug("VexWdsProxy bind register request successful!"));
    EXPECT_TRUE(debug("VexWdsProxy indication register request successful!"));
    EXPECT_TRUE(debug("VexWdsProxy config register request successful!"));
}

// --- The modem going down and coming back ---

TEST_F(VexWdsProxySimModemTest, ReconnectsAndRereadsTheModemAfterItsLinkBreaks) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> old = profile3gpp1();
    const int oldClient = newestClientId();
    ASSERT_TRUE(modem->dropClient(oldClient));
    ASSERT_TRUE(waitUntilFilled(oldClient, 0));
    sync();

    EXPECT_EQ(wdsClients().size(), 1u);
    EXPECT_TRUE(debug("src/VexWdsProxy:163:vexErrorCb"));
    EXPECT_TRUE(debug("src/VexWdsProxy:232:handleError"));
    EXPECT_TRUE(info("Handling modem down"));
    EXPECT_TRUE(history("VexWdsProxy::registerVexSvcUp"));
    EXPECT_FALSE(manager.getProfile(old)) << "the cache was read again";
    EXPECT_TRUE(profile3gpp1());
}

TEST_F(VexWdsProxySimModemTest, AfterReconnectingReadsTheModemOnlyWhenItAnnouncesItsProfiles) {
    modem->setProfilesReadyOnRegister(false);
    std::shared_ptr<IProfileKey> key = profile3gpp1();
    const int oldClient = newestClientId();
    ASSERT_TRUE(modem->dropClient(oldClient));
    ASSERT_TRUE(waitUntilRegistered(oldClient));
    sync();
    EXPECT_EQ(served(), kRegistrationRequests);
    EXPECT_TRUE(manager.getProfile(key)) << "the cache is kept until the modem announces";

    modem->announceProfilesReady(0);
    ASSERT_TRUE(waitUntilServed(kRegistrationRequests + 2 + modem->profiles(0).size()));
    sync();
    EXPECT_FALSE(manager.getProfile(key));
}

// --- Indications ---

TEST_F(VexWdsProxySimModemTest, HandlesABurstOfIndicationsInArrivalOrderIgnoringOtherMessages) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    const std::uint64_t before = served();
    modem->sendUnknownIndication(0, 0x1234);
    modem->sendIndicationBurst(0, 3);
    ASSERT_TRUE(waitUntilServed(before + 3));
    sync();

    std::vector<std::string> seen;
    for (const hostlog::AndroidLogRecord& record :
         capture.androidContaining("ProfileCache: onIndication < ")) {
        seen.push_back(record.message);
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"ProfileCache: onIndication < 3GPP:1 Modify",
                                              "ProfileCache: onIndication < 3GPP:2 Modify",
                                              "ProfileCache: onIndication < 3GPP2:1 Modify"}));
    EXPECT_TRUE(verbose("Unknown message ID 4660 received"));
}

// --- A modem that claims more profiles than its list holds ---

// Serves WDS on the real socket by script: registrations succeed, every profile read returns
// empty settings, and every profile list claims `claimed` entries. Threads: its own serving
// thread; the counters are atomic.
class OverclaimingModem {
  public:
    OverclaimingModem(const std::string& dir, std::uint32_t claimedCount) : claimed(claimedCount) {
        std::string why;
        listener =
            vexwire::listenUnix(vexwire::servicePath(dir, wds_get_service_object_v01()), &why);
        wake = vexwire::makeWakeFd();
        thread = std::thread([this] { serve(); });
    }
    ~OverclaimingModem() {
        stopping = true;
        vexwire::signalWakeFd(wake.get());
        thread.join();
    }

    // The library has sent its three registrations and had them answered.
    bool waitUntilRegistered() {
        std::unique_lock<std::mutex> lock(mutex);
        return registered.wait_for(lock, kTimeout, [this] { return registrations >= 3; });
    }

    std::atomic<int> lists{0};
    std::atomic<int> reads{0};

  private:
    struct Peer {
        vexwire::UniqueFd fd;
        vexwire::FrameReader reader;
    };

    void serve() {
        std::vector<std::unique_ptr<Peer>> peers;
        while (!stopping) {
            std::vector<pollfd> fds = {{wake.get(), POLLIN, 0}, {listener.get(), POLLIN, 0}};
            for (const auto& peer : peers) {
                fds.push_back({peer->fd.get(), POLLIN, 0});
            }
            ::poll(fds.data(), fds.size(), -1);
            if (fds[1].revents != 0) {
                vexwire::UniqueFd fd(::accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK));
                if (fd) {
                    peers.push_back(std::make_unique<Peer>(Peer{std::move(fd), {}}));
                }
            }
            for (size_t i = 2; i < fds.size(); ++i) {
                if (fds[i].revents != 0) {
                    Peer& peer = *peers[i - 2];
                    if (!peer.reader.fill(peer.fd.get())) {
                        peer.fd.reset();
                    }
                    vexwire::Frame frame;
                    while (peer.fd &&
                           peer.reader.next(&frame) == vexwire::FrameReader::Result::Frame) {
                        answer(peer, frame);
                    }
                }
            }
            peers.erase(std::remove_if(peers.begin(), peers.end(),
                                       [](const auto& peer) { return !peer->fd; }),
                        peers.end());
        }
    }

    void answer(Peer& peer, const vexwire::Frame& request) {
        if (request.header.kind != vexwire::FrameKind::Request) {
            return;
        }
        std::vector<std::uint8_t> payload;
        switch (request.header.msgId) {
            case VEX_WDS_GET_PROFILE_LIST_REQ_V01: {
                ++lists;
                auto list = std::make_unique<wds_get_profile_list_resp_msg_v01>();
                list->profile_list_len = claimed;
                payload = bytesOf(*list);
                break;
            }
            case VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01:
                ++reads;
                payload = bytesOf(*std::make_unique<wds_get_profile_settings_resp_msg_v01>());
                break;
            default: {
                std::lock_guard<std::mutex> lock(mutex);
                ++registrations;
                registered.notify_all();
                payload = bytesOf(vex_response_type_v01{});
                break;
            }
        }
        vexwire::FrameHeader header = request.header;
        header.kind = vexwire::FrameKind::Response;
        auto bytes = vexwire::encodeFrame(header, payload.data(), payload.size());
        vexwire::writeAll(peer.fd.get(), bytes.data(), bytes.size(),
                          vexwire::Clock::now() + std::chrono::seconds(1));
    }

    template <typename T>
    static std::vector<std::uint8_t> bytesOf(const T& record) {
        const auto* at = reinterpret_cast<const std::uint8_t*>(&record);
        return std::vector<std::uint8_t>(at, at + sizeof(record));
    }

    const std::uint32_t claimed;
    std::mutex mutex;  // guards registrations
    std::condition_variable registered;
    int registrations = 0;
    vexwire::UniqueFd listener;
    vexwire::UniqueFd wake;
    std::atomic<bool> stopping{false};
    std::thread thread;
};

TEST(VexWdsProxyOverclaimingModemTest, ListCountBeyondTheRecordReadsNoFurtherThanTheRecord) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    testsupport::TempDir dir;
    hostlog::LogCapture capture;
    testsupport::ScopedEnv serviceDir("VEX_SERVICE_DIR", dir.path().c_str());
    OverclaimingModem modem(dir.path(), 100000);
    kel::Manager manager;
    manager.init(0, true);
    ASSERT_TRUE(modem.waitUntilRegistered());
    // The worker answered the last registration before taking this round trip.
    manager.getProfile(nullptr);

    manager.refresh(PDCRefreshStatus::Completed);

    EXPECT_EQ(modem.lists.load(), 2);
    EXPECT_EQ(modem.reads.load(), 2 * WDS_PROFILE_LIST_MAX_V01);
    EXPECT_FALSE(
        capture.androidContaining("VexWdsProxy profile list length 100000 exceeds 255").empty());
}

}  // namespace
}  // namespace e2e
