// End to end: what kel::Manager tells a client of its modem link (getModemStatus, waitForModem),
// against the embedded simulated modem.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "SimModemFixture.h"

namespace e2e {
namespace {

using kel::Manager;
using kel::ModemStatus;
using kel::PDCRefreshStatus;

// Longer than any test may take: a waitForModem given it that returns did not wait it out.
constexpr std::chrono::hours kForever{1};
// A watchdog's bound on something that must return at once.
constexpr std::chrono::seconds kWatchdog{30};

// The modem runs; each test connects the library itself.
class ModemStatusSimModemTest : public SimModemFixture {
  protected:
    void SetUp() override { startModem(); }
};

TEST_F(ModemStatusSimModemTest, AHealthyLinkIsReadyWithItsCacheFilled) {
    manager.init(0, true);

    EXPECT_TRUE(manager.waitForModem(kTimeout));
    EXPECT_TRUE(status().isReady());
    EXPECT_EQ(manager.filter(kel::FilterProfileParams()).size(), modem->profiles(0).size())
        << "ready means the cache holds the modem's profiles";
    EXPECT_TRUE(inHistory("Manager::waitForModem < true"));
    // Every field, as the reader above got them.
    EXPECT_TRUE(
        inHistory("Manager::getModemStatus < SubscriptionId=0,Connected=true,Bound=true,"
                  "Registered=true,CacheLoaded=true,FailedMessages=0,TimedOutMessages=0,"
                  "Connections=1,ListFailed=false,Unread=,"));
}

// A link that comes up with a bind or registration the modem refused. None is retried and the
// others are still sent, so waiting for it ends at once, and the library goes on as it always did.
struct BrokenLink {
    const char* name;
    int subscription;                    // the modem serves 0 and 1
    std::optional<unsigned int> refuse;  // the registration message the modem answers with an error
    const char* logged;
    bool bound;
    bool registered;
};

class ModemStatusBrokenLinkTest : public ModemStatusSimModemTest,
                                  public ::testing::WithParamInterface<BrokenLink> {};

TEST_P(ModemStatusBrokenLinkTest, ShowsWhatFailedAndWaitingEndsAtOnce) {
    if (GetParam().refuse) {
        modem->failNext(1, *GetParam().refuse);
    }
    manager.init(GetParam().subscription, true);

    {
        testsupport::Watchdog watchdog("waitForModem on a broken link", kWatchdog);
        EXPECT_FALSE(manager.waitForModem(kForever));
    }
    const ModemStatus now = status();
    EXPECT_EQ(now.subscriptionId, GetParam().subscription);
    EXPECT_TRUE(now.connected);
    EXPECT_EQ(now.bound, GetParam().bound);
    EXPECT_EQ(now.registered, GetParam().registered);
    EXPECT_TRUE(now.isBroken());
    EXPECT_FALSE(now.cacheLoaded) << "the modem announces its profiles only to registered clients";
    EXPECT_EQ(now.failedMessages, 1u);
    EXPECT_TRUE(error(GetParam().logged));
    const vexsim::ClientInfo client = *libraryClient();
    EXPECT_EQ(client.bound, GetParam().bound);
    EXPECT_EQ(client.indicationsRegistered && client.eventListConfigured, GetParam().registered);
    EXPECT_EQ(client.bound + client.indicationsRegistered + client.eventListConfigured, 2);
    EXPECT_EQ(client.requestsServed, kRegistrationRequests) << "nothing is retried";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ModemStatusBrokenLinkTest,
    ::testing::Values(BrokenLink{"BindToAMissingSubscription", 2, std::nullopt,
                                 "Unable send bind req message", false, true},
                      BrokenLink{"Bind", 0, VEX_WDS_BIND_SUBSCRIPTION_REQ_V01,
                                 "Unable send bind req message", false, true},
                      BrokenLink{"IndicationRegistration", 0, VEX_WDS_INDICATION_REGISTER_REQ_V01,
                                 "Unable send indication req message", true, false},
                      BrokenLink{"EventListConfiguration", 0,
                                 VEX_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01,
                                 "Unable send config req message", true, false}),
    CaseName());

TEST_F(ModemStatusSimModemTest, AFailedProfileListLeavesTheCacheUnloadedUntilARefreshReadsIt) {
    modem->failNext(1, VEX_WDS_GET_PROFILE_LIST_REQ_V01);
    manager.init(0, true);
    ASSERT_TRUE(waitUntilServed(kRegistrationRequests + 1));
    sync();

    ModemStatus failed = status();
    EXPECT_TRUE(failed.connected);
    EXPECT_TRUE(failed.bound);
    EXPECT_TRUE(failed.registered);
    EXPECT_FALSE(failed.cacheLoaded);
    EXPECT_FALSE(failed.isBroken()) << "a later refresh can still fill the cache";
    EXPECT_EQ(failed.failedMessages, 1u);
    EXPECT_TRUE(failed.profileListFailed);
    EXPECT_FALSE(failed.isComplete());
    EXPECT_NE(failed.dump().find("ListFailed=true"), std::string::npos) << failed.dump();
    EXPECT_FALSE(manager.waitForModem(std::chrono::milliseconds(50)));
    EXPECT_TRUE(manager.filter(kel::FilterProfileParams()).empty());
    EXPECT_EQ(served(), kRegistrationRequests + 1)
        << "the 3GPP2 list is not asked for once the 3GPP list failed";
    EXPECT_TRUE(error("Unable send VEX_WDS_GET_PROFILE_LIST_REQ_V01 message"));

    manager.refresh(PDCRefreshStatus::Completed);
    EXPECT_TRUE(Manager::lastOutcome().ok());
    EXPECT_TRUE(status().cacheLoaded);
    EXPECT_FALSE(status().profileListFailed);
    EXPECT_TRUE(status().isComplete());
    EXPECT_TRUE(manager.waitForModem(kTimeout));
}

TEST_F(ModemStatusSimModemTest, ReadersOnManyThreadsSeeOnlyWholeSnapshots) {
    connect(manager, 0);
    ASSERT_TRUE(manager.waitForModem(kTimeout));
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::atomic<int> reads{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([&] {
            while (!stop) {
                std::optional<ModemStatus> now = manager.getModemStatus();
                // A client that is gone takes its bind, registrations and cache with it.
                if (!now || now->subscriptionId != 0 ||
                    (!now->connected && (now->bound || now->registered || now->cacheLoaded))) {
                    ++torn;
                }
                ++reads;
            }
        });
    }

    const int oldClient = newestClientId();
    ASSERT_TRUE(modem->dropClient(oldClient));
    ASSERT_TRUE(waitUntilFilled(oldClient, 0));
    EXPECT_TRUE(manager.waitForModem(kTimeout));
    stop = true;
    joinAll(readers);
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(status().connections, 2u);
}

}  // namespace
}  // namespace e2e
