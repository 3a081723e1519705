// End to end: what kel::Manager tells a client of its modem link (getModemStatus) and waiting
// for a usable link (waitForModem), against the embedded simulated modem: before init, a healthy
// link, the modem going down and coming back, registrations the modem refuses, a failed profile
// list, failed and late messages, and readers on many threads while the link changes.
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

    ModemStatus status() {
        std::optional<ModemStatus> now = manager.getModemStatus();
        EXPECT_TRUE(now);
        return now.value_or(ModemStatus());
    }

    LogWatch watch;
};

TEST(ModemStatusBeforeInitTest, IsEmptyAndNothingIsWaitedFor) {
    kel::LocalLogBuffer::getInstance()->flush();
    Manager manager;

    EXPECT_FALSE(manager.getModemStatus());
    testsupport::Watchdog watchdog("waitForModem before init", kWatchdog);
    EXPECT_FALSE(manager.waitForModem(kForever));
    // Without init no writer may be installed yet; the history keeps the lines all the same.
    const std::vector<std::string> history = kel::LocalLogBuffer::getInstance()->getLogs();
    ASSERT_EQ(history.size(), 2u);
    for (const std::string& line : history) {
        EXPECT_NE(line.find("[KEL]Manager not initialized!"), std::string::npos) << line;
    }
}

TEST_F(ModemStatusSimModemTest, AHealthyLinkIsReadyWithItsCacheFilled) {
    manager.init(0, true);

    EXPECT_TRUE(manager.waitForModem(kTimeout));
    const ModemStatus now = status();
    EXPECT_EQ(now.subscriptionId, 0);
    EXPECT_TRUE(now.connected);
    EXPECT_TRUE(now.bound);
    EXPECT_TRUE(now.registered);
    EXPECT_TRUE(now.cacheLoaded);
    EXPECT_EQ(now.failedMessages, 0u);
    EXPECT_EQ(now.timedOutMessages, 0u);
    EXPECT_EQ(now.connections, 1u);
    EXPECT_EQ(manager.filter(kel::FilterProfileParams()).size(), modem->profiles(0).size())
        << "ready means the cache holds the modem's profiles";
    EXPECT_TRUE(inHistory("Manager::waitForModem < true"));
    EXPECT_TRUE(
        inHistory("Manager::getModemStatus < SubscriptionId=0,Connected=true,Bound=true,"
                  "Registered=true,CacheLoaded=true,FailedMessages=0,TimedOutMessages=0,"
                  "Connections=1,ListFailed=false,Unread=,"));
}

TEST_F(ModemStatusSimModemTest, FollowsTheModemGoingDownAndComingBack) {
    connect(manager, 0);
    ASSERT_TRUE(manager.waitForModem(kTimeout));
    watch.install();

    modem->stop();
    ASSERT_TRUE(watch.waitFor("Handling modem down"));
    ModemStatus down = status();
    EXPECT_FALSE(down.connected);
    EXPECT_FALSE(down.bound);
    EXPECT_FALSE(down.registered);
    EXPECT_FALSE(down.cacheLoaded);
    EXPECT_EQ(down.connections, 1u);
    EXPECT_FALSE(manager.waitForModem(std::chrono::milliseconds(50))) << "it waits out its time";

    std::string why;
    ASSERT_TRUE(modem->start(&why)) << why;
    EXPECT_TRUE(manager.waitForModem(kTimeout));
    ModemStatus back = status();
    EXPECT_TRUE(back.isReady());
    EXPECT_EQ(back.connections, 2u);
    EXPECT_EQ(back.failedMessages, 0u);
}

// A link that comes up with a bind or registration the modem refused. Neither is retried, so
// waiting for it ends at once, and the library goes on as it always did.
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
    EXPECT_TRUE(inHistory(GetParam().logged));
    EXPECT_EQ(libraryClient()->requestsServed, kRegistrationRequests) << "nothing is retried";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ModemStatusBrokenLinkTest,
    ::testing::Values(BrokenLink{"BindToAMissingSubscription", 2, std::nullopt,
                                 "Unable send bind req message", false, true},
                      BrokenLink{"IndicationRegistration", 0, VEX_WDS_INDICATION_REGISTER_REQ_V01,
                                 "Unable send indication req message", true, false},
                      BrokenLink{"EventListConfiguration", 0,
                                 VEX_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01,
                                 "Unable send config req message", true, false}),
    [](const ::testing::TestParamInfo<BrokenLink>& param) { return param.param.name; });

TEST_F(ModemStatusSimModemTest, AFailedBindStillOnlyLogsAndProfilesLandOnTheDefaultSubscription) {
    // Subscription 2 of a modem that serves two.
    manager.init(2, true);
    ASSERT_TRUE(waitUntilServed(kRegistrationRequests));
    sync();
    const std::size_t before = modem->profiles(0).size();

    std::shared_ptr<kel::IProfileKey> key = manager.addProfile(addParams("unbound.example", true));

    ASSERT_TRUE(key) << "the add is made and reported as before";
    EXPECT_EQ(modem->profiles(0).size(), before + 1);
    EXPECT_EQ(onModemNamed("kel_profile").size(), 1u);
    EXPECT_FALSE(status().bound) << "which only the status shows";
}

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
    EXPECT_FALSE(manager.waitForModem(std::chrono::milliseconds(50)));
    EXPECT_TRUE(manager.filter(kel::FilterProfileParams()).empty());

    manager.refresh(PDCRefreshStatus::Completed);
    EXPECT_TRUE(status().cacheLoaded);
    EXPECT_TRUE(manager.waitForModem(kTimeout));
}

TEST_F(ModemStatusSimModemTest, CountsFailedAndTimedOutMessages) {
    connect(manager, 0);
    modem->failNext(1, VEX_WDS_CREATE_PROFILE_REQ_V01);
    EXPECT_FALSE(manager.addProfile(addParams("refused.example")));
    ModemStatus refused = status();
    EXPECT_EQ(refused.failedMessages, 1u);
    EXPECT_EQ(refused.timedOutMessages, 0u);

    modem->setResponseDelay(std::chrono::milliseconds(1500), VEX_WDS_CREATE_PROFILE_REQ_V01);
    EXPECT_FALSE(manager.addProfile(addParams("late.example")));
    ModemStatus late = status();
    EXPECT_EQ(late.failedMessages, 2u);
    EXPECT_EQ(late.timedOutMessages, 1u);
    EXPECT_TRUE(late.isReady()) << "failed messages do not make the link unusable";
}

TEST_F(ModemStatusSimModemTest, WaitingOnTheWorkerThreadIsRefused) {
    connect(manager, 0);
    std::shared_ptr<kel::IProfileKey> added = manager.addProfile(addParams("waits.example"));
    ASSERT_TRUE(added);
    std::shared_ptr<kel::IProfileKey> watcher = manager.filter(byApn("waits.example")).front();
    std::atomic<bool> waited{true};
    std::atomic<bool> read{false};
    Calls calls;
    std::function<void()> counted = calls.callback();
    watcher->registerExpirationListener([this, &waited, &read, counted] {
        waited = manager.waitForModem(kForever);
        read = manager.getModemStatus().has_value();
        counted();
    });

    testsupport::Watchdog watchdog("waitForModem in a listener", kWatchdog);
    EXPECT_TRUE(manager.deleteProfile(added));
    ASSERT_TRUE(calls.waitFor(1));
    EXPECT_FALSE(waited.load());
    EXPECT_TRUE(read.load()) << "reading the status blocks nobody, so it is answered";
    EXPECT_TRUE(
        inHistory("kel::ClientRequestManager: request on the worker thread refused: "
                  "waitForModem"));
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
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(status().connections, 2u);
}

}  // namespace
}  // namespace e2e
