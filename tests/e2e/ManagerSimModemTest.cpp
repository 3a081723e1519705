// End to end: the kel::Manager facade and its request pipeline against the embedded simulated
// modem.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "SimModemFixture.h"
#include "support/LogObservation.h"

namespace e2e {
namespace {

using kel::FilterProfileParams;
using kel::IProfileKey;
using kel::Manager;
using kel::ModifyProfileParams;
using kel::PDCRefreshStatus;
using Keys = std::list<std::shared_ptr<IProfileKey>>;

// --- Before init ---

class UninitializedManagerTest : public ::testing::Test {
  protected:
    void SetUp() override { kel::LocalLogBuffer::getInstance()->flush(); }
    Manager manager;
};

// Each operation runs on a thread of its own, whose outcome starts clean. Nothing is waited for,
// and without init no writer may be installed yet: the history keeps the lines all the same.
TEST_F(UninitializedManagerTest, EveryOperationFailsAndSaysWhyOnce) {
    kel::AddProfileParams add(false, kel::TechType::TYPE_3GPP, false);
    struct Operation {
        std::function<bool()> fails;
        bool isCall;  // status and waiting are no calls: they tell no outcome
    };
    const std::vector<Operation> operations = {
        {[&] { return manager.addProfile(add) == nullptr; }, true},
        {[&] { return !manager.modifyProfile(ModifyProfileParams(), nullptr); }, true},
        {[&] { return !manager.deleteProfile(nullptr); }, true},
        {[&] { return manager.filter(FilterProfileParams()).empty(); }, true},
        {[&] { return !manager.getProfile(nullptr).has_value(); }, true},
        {[&] { return !manager.match(FilterProfileParams(), nullptr); }, true},
        {[&] { return manager.refresh(PDCRefreshStatus::Completed), true; }, true},
        {[&] { return !manager.getModemStatus(); }, false},
        {[&] { return !manager.waitForModem(std::chrono::hours(1)); }, false},
    };
    testsupport::Watchdog watchdog("calls before init", std::chrono::seconds(30));
    for (size_t i = 0; i < operations.size(); ++i) {
        SCOPED_TRACE("operation " + std::to_string(i));
        const size_t before = kel::LocalLogBuffer::getInstance()->getLogs().size();
        bool failed = false;
        kel::Outcome::Kind kind = kel::Outcome::Kind::Done;
        std::thread([&] {
            failed = operations[i].fails();
            kind = Manager::lastOutcome().kind;
        }).join();
        EXPECT_TRUE(failed);
        EXPECT_EQ(kind, operations[i].isCall ? kel::Outcome::Kind::NotInitialized
                                             : kel::Outcome::Kind::Done);
        const std::vector<std::string> logs = kel::LocalLogBuffer::getInstance()->getLogs();
        ASSERT_EQ(logs.size(), before + 1);
        EXPECT_NE(logs.back().find("[KEL]Manager not initialized!"), std::string::npos);
    }
}

TEST_F(UninitializedManagerTest, DumpIsAnEmptyLineLogsAndTheHistory) {
    manager.getProfile(nullptr);
    const std::vector<std::string> history = kel::LocalLogBuffer::getInstance()->getLogs();
    std::vector<std::string> expected = {"", "Logs:"};
    expected.insert(expected.end(), history.begin(), history.end());
    EXPECT_EQ(manager.dump(), expected);
}

// --- Traces ---

class ManagerSimModemTest : public SimModemFixture {};

TEST_F(ManagerSimModemTest, TracesEveryCallAndItsAnswer) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    kel::AddProfileParams add(false, kel::TechType::TYPE_3GPP, false);
    add.setApnName("trace.example");
    std::shared_ptr<IProfileKey> key = manager.addProfile(add);
    ASSERT_TRUE(key);
    const std::string handle = key->dump();
    manager.modifyProfile(newApn("traced.example"), key);
    manager.match(byApn("traced.example"), key);
    manager.getProfile(key);
    manager.filter(byApn("nothing.example"));
    manager.deleteProfile(key);
    manager.refresh(PDCRefreshStatus::Completed);

    for (const std::string& line : std::vector<std::string>{
             "Manager::addProfile > Add 3GPP persist=false: "
             "ApnName=trace.example,IsIAProfile=false,",
             "Manager::addProfile < Add Success " + handle,
             "Manager::modifyProfile > Modify " + handle + " ApnName=traced.example,",
             "Manager::modifyProfile < Modify Success",
             "Manager::match > Match " + handle + " None: ApnName=traced.example,",
             "Manager::match < Match Success true",
             "Manager::getProfile > Get " + handle,
             "Manager::filter > Filter params: None: ApnName=nothing.example,",
             "Manager::filter < Filter Success ",
             "Manager::deleteProfile > Delete " + handle,
             "Manager::deleteProfile < Delete Success",
             "Manager::refresh > Refresh ",
             "Manager::refresh < Refresh Success",
         }) {
        EXPECT_TRUE(history(line)) << line;
    }
    EXPECT_TRUE(logged("Manager::getProfile < Get Success ApnName=traced.example,"));
    EXPECT_TRUE(info("KEL refresh completed"));
}

// --- The refresh gate ---

TEST_F(ManagerSimModemTest, RefreshGateFailsEveryOperationUntilTheRefreshCompletes) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> key = manager.addProfile(addParams("gate.example"));
    ASSERT_TRUE(key);
    const int id = key->getProfileId();
    manager.refresh(PDCRefreshStatus::Started);
    EXPECT_TRUE(info("KEL refresh started"));
    EXPECT_TRUE(Manager::lastOutcome().ok()) << "starting a refresh is served";
    const std::uint64_t before = served();

    EXPECT_FALSE(manager.addProfile(addParams("closed.example")));
    EXPECT_EQ(Manager::lastOutcome().kind, kel::Outcome::Kind::RefreshInProgress);
    EXPECT_FALSE(manager.modifyProfile(newApn("closed.example"), key));
    EXPECT_FALSE(manager.match(byApn("gate.example"), key));
    EXPECT_FALSE(manager.getProfile(key));
    EXPECT_TRUE(manager.filter(FilterProfileParams()).empty());
    EXPECT_TRUE(history("Manager::filter < Filter Failure "));
    EXPECT_EQ(Manager::lastOutcome().kind, kel::Outcome::Kind::RefreshInProgress);
    EXPECT_FALSE(manager.deleteProfile(key));
    key.reset();
    EXPECT_TRUE(onModem(k3gpp, id)) << "a release during the refresh is refused";
    EXPECT_EQ(served(), before) << "nothing reaches the modem while the gate is closed";

    manager.refresh(PDCRefreshStatus::Completed);
    EXPECT_TRUE(Manager::lastOutcome().ok());
    EXPECT_EQ(served(), before + 2 + modem->profiles(0).size()) << "the cache is re-read";
    EXPECT_TRUE(manager.addProfile(addParams("open.example")));
    EXPECT_TRUE(Manager::lastOutcome().ok());
}

// --- A second init ---

class ManagerSecondInitTest : public SimModemFixture {
  protected:
    ManagerSecondInitTest() {
        config.seedText += "profile 3gpp sub=1 index=5 name=Second apn=second.example pdp=ipv4\n";
    }
};

TEST_F(ManagerSecondInitTest, ServesTheNewSubscriptionAndCutsOffOldHandles) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> old = manager.addProfile(addParams("first.example"));
    ASSERT_TRUE(old);
    const int oldClient = newestClientId();

    connect(manager, 1);

    ASSERT_TRUE(modem->waitUntil([this] { return wdsClients().size() == 1; }, kTimeout))
        << "the first pipeline's client is released";
    std::vector<vexsim::ClientInfo> clients = wdsClients();
    ASSERT_EQ(clients.size(), 1u);
    EXPECT_GT(clients[0].id, oldClient);
    EXPECT_EQ(clients[0].subscription, 1);
    Keys keys = manager.filter(FilterProfileParams());
    ASSERT_EQ(keys.size(), 1u);
    EXPECT_EQ(keys.front()->getProfileId(), 5);

    // The old handle's pipeline is gone: its calls are logged and go nowhere.
    clearLogs();
    const std::string text = old->dump();
    old->registerExpirationListener([] {});
    const int id = old->getProfileId();
    old.reset();
    EXPECT_TRUE(logged("pipeline is gone, dropping Callback Register " + text));
    EXPECT_TRUE(logged("pipeline is gone, dropping Callback Release"));
    EXPECT_TRUE(onModem(k3gpp, id)) << "nobody deleted it";
}

// --- Many client threads ---

TEST_F(ManagerSimModemTest, ConcurrentCallersEachGetTheirOwnAnswer) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 10;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round) {
                const std::string apn = "t" + std::to_string(t) + "r" + std::to_string(round);
                std::shared_ptr<IProfileKey> key = manager.addProfile(addParams(apn));
                if (!key) {
                    ++wrong;
                    continue;
                }
                std::optional<kel::ProfileParams> read = manager.getProfile(key);
                Keys found = manager.filter(byApn(apn));
                const bool renamed = manager.modifyProfile(newApn(apn + ".x"), key);
                const bool matches = manager.match(byApn(apn + ".x"), key);
                if (!read || read->getApnName() != apn || found.size() != 1 ||
                    tokenOf(found.front()) != tokenOf(key) || !renamed || !matches) {
                    ++wrong;
                }
                // Both handles are released from this thread, among the others' calls.
                found.clear();
                key.reset();
            }
        });
    }
    joinAll(threads);
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_TRUE(onModemNamed("kel_profile").empty()) << "every last release deleted its profile";
}

namespace held {

// A thread held in a signal handler: answered by the worker, it cannot run until released, as a
// client thread the scheduler starves would.
std::atomic<bool> holding{false};
std::atomic<bool> released{false};

extern "C" void hold(int) {
    holding = true;
    const timespec pause{0, 1000000};
    while (!released) {
        nanosleep(&pause, nullptr);
    }
}

}  // namespace held

TEST_F(ManagerSimModemTest, AnAnsweredCallerThatCannotRunDoesNotHoldUpTheCallersBehindIt) {
    Keys internet = manager.filter(byApn("internet"));
    ASSERT_FALSE(internet.empty());
    LogWatch watch;
    watch.install();
    // The add holds the worker long enough for its caller to be stopped before it is answered.
    modem->setResponseDelay(std::chrono::milliseconds(300), VEX_WDS_CREATE_PROFILE_REQ_V01);
    struct sigaction action {};
    action.sa_handler = held::hold;
    sigemptyset(&action.sa_mask);
    struct sigaction previous {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    held::holding = false;
    held::released = false;

    std::shared_ptr<IProfileKey> added;
    std::atomic<bool> addReturned{false};
    std::thread adder([&] {
        added = manager.addProfile(addParams("held.example"));
        addReturned = true;
    });
    // Whatever happens below, the held thread is let go and joined.
    struct Release {
        void operator()() {
            held::released = true;
            if (thread.joinable()) {
                thread.join();
            }
        }
        ~Release() { (*this)(); }
        std::thread& thread;
    } release{adder};
    ASSERT_TRUE(watch.waitFor("Handling Add "));
    ASSERT_EQ(pthread_kill(adder.native_handle(), SIGUSR1), 0);
    while (!held::holding) {
        std::this_thread::yield();
    }

    // Two callers behind it, served while it is still held.
    std::shared_ptr<IProfileKey> handle = internet.front();
    auto first = std::async(std::launch::async, [&] { return manager.getProfile(handle); });
    auto second = std::async(std::launch::async, [&] { return manager.getProfile(handle); });
    const bool firstServed = first.wait_for(kTimeout) == std::future_status::ready;
    const bool secondServed = second.wait_for(kTimeout) == std::future_status::ready;
    const bool addStillHeld = !addReturned;
    release();
    sigaction(SIGUSR1, &previous, nullptr);
    modem->setResponseDelay(std::chrono::milliseconds(0));

    EXPECT_TRUE(firstServed && secondServed) << "the callers waited for the held one";
    EXPECT_TRUE(addStillHeld);
    EXPECT_TRUE(first.get().has_value());
    EXPECT_TRUE(second.get().has_value());
    EXPECT_TRUE(added) << "the held caller still gets its own answer";
}

// --- Calls on the worker thread ---

TEST_F(ManagerSimModemTest, CallsFromAListenerAreRefusedInsteadOfDeadlocking) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> added = manager.addProfile(addParams("listener.example"));
    std::shared_ptr<IProfileKey> watcher = manager.filter(byApn("listener.example")).front();
    // The listener drops the last reference to a handle, calls the facade and waits for the modem.
    auto held =
        std::make_shared<std::shared_ptr<IProfileKey>>(manager.filter(byApn("ims")).front());
    const std::string heldToken = std::to_string(tokenOf(*held));
    std::atomic<bool> answered{true};
    std::atomic<bool> waited{true};
    std::atomic<bool> read{false};
    Calls calls;
    watcher->registerExpirationListener([this, held, &answered, &waited, &read,
                                         counted = calls.callback()] {
        held->reset();
        answered = manager.getProfile(nullptr).has_value() || !manager.filter(byApn("ims")).empty();
        waited = manager.waitForModem(std::chrono::hours(1));
        read = manager.getModemStatus().has_value();
        counted();
    });

    testsupport::Watchdog watchdog("calls in a listener", std::chrono::seconds(30));
    EXPECT_TRUE(manager.deleteProfile(added));
    ASSERT_TRUE(calls.waitFor(1));
    EXPECT_FALSE(answered.load());
    EXPECT_FALSE(waited.load());
    EXPECT_TRUE(read.load()) << "reading the status blocks nobody, so it is answered";
    EXPECT_TRUE(logged("request on the worker thread refused: Callback Release " + heldToken));
    EXPECT_TRUE(logged("request on the worker thread refused: Get "));
    EXPECT_TRUE(logged("request on the worker thread refused: Filter "));
    EXPECT_TRUE(
        inHistory("kel::ClientRequestManager: request on the worker thread refused: "
                  "waitForModem"));
    EXPECT_FALSE(manager.filter(byApn("ims")).empty()) << "the pipeline still answers";
}

// --- A handle that outlives the process's Manager ---

// Destroyed after every function-local static, the process-wide Manager included.
std::shared_ptr<IProfileKey> lateHandle;

TEST(ManagerAtExitTest, HandleReleasedAfterTheManagerIsDestroyedIsHarmless) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            testsupport::TempDir dir;
            std::unique_ptr<vexsim::SimModem> modem = startChildModem(dir.path());
            Manager::getInstance().init(0, true);
            Manager::getInstance().waitForModem(kTimeout);
            lateHandle = Manager::getInstance().addProfile(addParams("late"));
            if (!lateHandle) {
                std::exit(3);
            }
            modem.reset();
            std::filesystem::remove_all(dir.path());
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace e2e
