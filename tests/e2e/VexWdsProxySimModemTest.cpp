// End to end: the library's connection to the modem's data service, through kel::Manager against
// the embedded simulated modem.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "SimModemFixture.h"
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

TEST_F(VexWdsProxySimModemTest, ListCountBeyondTheRecordReadsNoFurtherThanTheRecord) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    modem->overstateProfileLists(100000);
    const std::uint64_t before = served();
    manager.refresh(PDCRefreshStatus::Completed);
    sync();
    // Two lists, and a read of each entry the record can hold.
    EXPECT_EQ(served() - before, 2u + 2u * WDS_PROFILE_LIST_MAX_V01);
    // Each read fails, so the history has moved past this line; the Android log has it.
    EXPECT_EQ(
        count(ANDROID_LOG_ERROR, "VexWdsProxy profile list length 100000 exceeds 255, reading 255"),
        2);
}

}  // namespace
}  // namespace e2e
