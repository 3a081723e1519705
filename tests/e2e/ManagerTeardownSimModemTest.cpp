// End to end: tearing a kel::Manager's pipeline down while it is in use, against the embedded
// simulated modem. Every teardown runs under a watchdog, so that a hang fails the test instead of
// stalling it, and is repeated to shake out races.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "SimModemFixture.h"

namespace e2e {
namespace {

using kel::FilterProfileParams;
using kel::IProfileKey;
using kel::Manager;
using kel::PDCRefreshStatus;
using Keys = std::list<std::shared_ptr<IProfileKey>>;

constexpr int kRepeats = 5;
constexpr std::chrono::seconds kWatchdog{60};
constexpr const char* kClosingRefusal = "kel::ClientRequestManager: closing, request refused: ";
constexpr const char* kWorkerRefusal =
    "kel::ClientRequestManager: request on the worker thread refused: ";

// The modem runs; each test makes and connects its own Manager.
class ManagerTeardownSimModemTest : public SimModemFixture {
  protected:
    void SetUp() override { startModem(); }

    std::shared_ptr<IProfileKey> first(Manager& library, const std::string& apn) {
        Keys keys = library.filter(byApn(apn));
        return keys.empty() ? nullptr : keys.front();
    }
};

// --- Threads inside calls ---

TEST_F(ManagerTeardownSimModemTest, DestroyingTheManagerAnswersEveryCallInsideAndReturns) {
    constexpr int kCallers = 6;
    constexpr int kDroppers = 2;
    for (int round = 0; round < kRepeats; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto library = std::make_unique<Manager>();
        ASSERT_NO_FATAL_FAILURE(connect(*library, 0));
        std::shared_ptr<IProfileKey> internet = first(*library, "internet");
        ASSERT_TRUE(internet);
        std::vector<Keys> toDrop;
        for (int i = 0; i < kDroppers; ++i) {
            toDrop.push_back(library->filter(FilterProfileParams()));
        }
        LogWatch watch;
        watch.install();
        // The add being served holds the worker, so the other callers wait for their turn.
        modem->setResponseDelay(std::chrono::milliseconds(100), VEX_WDS_CREATE_PROFILE_REQ_V01);

        std::atomic<int> answered{0};
        std::vector<std::shared_ptr<IProfileKey>> added(kCallers);
        std::promise<void> drop;
        std::shared_future<void> dropNow = drop.get_future().share();
        std::vector<std::thread> threads;
        for (int i = 0; i < kCallers; ++i) {
            // One call each: the Manager is gone afterwards.
            threads.emplace_back([&, i] {
                if (i % 2 == 0) {
                    added[i] = library->addProfile(addParams("teardown" + std::to_string(i)));
                    answered += added[i] ? 1 : 0;
                } else {
                    answered += library->getProfile(internet).has_value() ? 1 : 0;
                }
            });
        }
        for (Keys& keys : toDrop) {
            threads.emplace_back([&keys, dropNow] {
                dropNow.wait();
                keys.clear();
            });
        }
        ASSERT_TRUE(watch.waitFor("Manager::addProfile > ", kCallers / 2));
        ASSERT_TRUE(watch.waitFor("Manager::getProfile > ", kCallers / 2));
        drop.set_value();

        {
            testsupport::Watchdog watchdog("destroying the Manager", kWatchdog);
            library.reset();
        }
        joinAll(threads);
        // Each call either was served or was refused as the pipeline closed.
        const int refused = watch.count(std::string(kClosingRefusal) + "Add ") +
                            watch.count(std::string(kClosingRefusal) + "Get ");
        EXPECT_EQ(answered.load() + refused, kCallers);
        EXPECT_TRUE(modem->waitUntil([this] { return wdsClients().empty(); }, kTimeout))
            << "the pipeline released its modem client";
        modem->setResponseDelay(std::chrono::milliseconds(0));
        // Handles that outlive their pipeline are dropped harmlessly.
        added.clear();
        internet.reset();
    }
}

TEST_F(ManagerTeardownSimModemTest, InitAgainWhileCallsAreInsideAnswersEveryCall) {
    constexpr int kThreads = 8;
    ASSERT_NO_FATAL_FAILURE(connect(manager, 0));
    modem->setResponseDelay(std::chrono::milliseconds(20), VEX_WDS_CREATE_PROFILE_REQ_V01);
    std::atomic<bool> stop{false};
    std::atomic<int> calls{0};
    std::atomic<int> served{0};
    std::atomic<int> refused{0};
    // A call is served (a result, outcome done) or refused with a stated reason (no result, and an
    // outcome that says the pipeline was being replaced or the handle belonged to the old one).
    auto tally = [&](bool result) {
        const kel::Outcome::Kind kind = Manager::lastOutcome().kind;
        const bool stated = kind == kel::Outcome::Kind::NotInitialized ||
                            kind == kel::Outcome::Kind::NoLink ||
                            kind == kel::Outcome::Kind::InvalidArguments;
        served += result && kind == kel::Outcome::Kind::Done ? 1 : 0;
        refused += !result && stated ? 1 : 0;
        ++calls;
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int n = 0; !stop; ++n) {
                switch (t % 4) {
                    case 0:
                        // Added and dropped again: the release races the teardown too.
                        tally(manager.addProfile(addParams("t" + std::to_string(t) + "n" +
                                                           std::to_string(n))) != nullptr);
                        break;
                    case 1:
                        manager.filter(FilterProfileParams());
                        tally(Manager::lastOutcome().ok());
                        break;
                    case 2:
                        manager.getModemStatus();
                        manager.waitForModem(std::chrono::milliseconds(5));
                        break;
                    case 3:
                        if (std::shared_ptr<IProfileKey> key = first(manager, "internet")) {
                            tally(manager.getProfile(key).has_value());
                        }
                        break;
                }
            }
        });
    }

    for (int round = 0; round < kRepeats; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        testsupport::Watchdog watchdog("init while calls are inside", kWatchdog);
        ASSERT_NO_FATAL_FAILURE(connect(manager, round % 2));
    }
    stop = true;
    joinAll(threads);
    EXPECT_GT(served.load(), 0);
    EXPECT_EQ(served.load() + refused.load(), calls.load());
    modem->setResponseDelay(std::chrono::milliseconds(0));
    EXPECT_TRUE(manager.waitForModem(kTimeout));
    std::optional<kel::ModemStatus> status = manager.getModemStatus();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->subscriptionId, (kRepeats - 1) % 2);
    EXPECT_TRUE(modem->waitUntil([this] { return wdsClients().size() == 1; }, kTimeout))
        << "every replaced pipeline released its modem client";
}

TEST_F(ManagerTeardownSimModemTest, AWaitForTheModemEndsWhenTheManagerGoes) {
    // Without the modem's announcement the cache is never read, so the link never gets ready.
    modem->setProfilesReadyOnRegister(false);
    for (int round = 0; round < kRepeats; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto library = std::make_unique<Manager>();
        library->init(0, true);
        LogWatch watch;
        watch.install();
        std::atomic<int> ready{-1};
        std::thread waiter([&] { ready = library->waitForModem(std::chrono::hours(1)) ? 1 : 0; });
        ASSERT_TRUE(watch.waitFor("Manager::waitForModem > "));
        {
            testsupport::Watchdog watchdog("destroying the Manager during a wait", kWatchdog);
            library.reset();
            waiter.join();
        }
        EXPECT_EQ(ready.load(), 0);
    }
}

// --- Listeners while the pipeline goes ---

enum class Teardown { Destroy, InitAgain };
constexpr const char* kInitRefusal = "Manager::init(0) refused on the worker thread";
enum class Act { CallFacade, CallInit, DropLastHandle };

struct ListenerCase {
    const char* name;
    Teardown teardown;
    Act act;
    std::string refusal;  // the Error line, followed by the token when the act drops a handle
};

class ManagerTeardownListenerTest : public ManagerTeardownSimModemTest,
                                    public ::testing::WithParamInterface<ListenerCase> {};

TEST_P(ManagerTeardownListenerTest, IsRefusedWithAnErrorInsteadOfHangingOrAborting) {
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto library = std::make_unique<Manager>();
        ASSERT_NO_FATAL_FAILURE(connect(*library, 0));
        std::shared_ptr<IProfileKey> watched = first(*library, "ims");
        ASSERT_TRUE(watched);
        // The listener holds the only reference to this handle.
        auto held = std::make_shared<std::shared_ptr<IProfileKey>>(first(*library, "internet"));
        ASSERT_TRUE(*held);
        const std::string heldToken = std::to_string(tokenOf(*held));
        Manager* raw = library.get();
        const Act act = GetParam().act;
        std::atomic<bool> answered{false};
        Calls calls;
        watched->registerExpirationListener(
            [raw, held, act, &answered, counted = calls.callback()] {
                switch (act) {
                    case Act::CallFacade:
                        answered = !raw->filter(FilterProfileParams()).empty();
                        break;
                    case Act::CallInit:
                        raw->init(0, true);
                        break;
                    case Act::DropLastHandle:
                        held->reset();
                        break;
                }
                counted();
            });
        held.reset();
        clearLogs();

        {
            testsupport::Watchdog watchdog("the teardown", kWatchdog);
            if (GetParam().teardown == Teardown::Destroy) {
                library.reset();
            } else {
                ASSERT_NO_FATAL_FAILURE(connect(*library, 0));
            }
        }

        EXPECT_EQ(calls.count(), 1) << "the listener of a handle still held ran once";
        EXPECT_FALSE(answered.load());
        const std::string refusal =
            GetParam().refusal + (act == Act::DropLastHandle ? heldToken : std::string());
        // Kept in the history, which holds only Error and History lines; these are Errors.
        int refusals = 0;
        for (const std::string& line : kel::LocalLogBuffer::getInstance()->getLogs()) {
            refusals += line.find("[KEL]" + refusal) != std::string::npos ? 1 : 0;
        }
        EXPECT_EQ(refusals, 1) << refusal;
        if (library) {
            EXPECT_TRUE(library->waitForModem(kTimeout)) << "the new pipeline serves";
        }
        watched.reset();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ManagerTeardownListenerTest,
    ::testing::Values(
        ListenerCase{"DestroyCallFacade", Teardown::Destroy, Act::CallFacade,
                     "Manager::filter refused: the library is shutting down"},
        ListenerCase{"DestroyCallInit", Teardown::Destroy, Act::CallInit, kInitRefusal},
        ListenerCase{"DestroyDropLastHandle", Teardown::Destroy, Act::DropLastHandle,
                     std::string(kWorkerRefusal) + "Callback Release "},
        ListenerCase{"InitAgainCallFacade", Teardown::InitAgain, Act::CallFacade,
                     std::string(kWorkerRefusal) + "Filter params: "},
        ListenerCase{"InitAgainCallInit", Teardown::InitAgain, Act::CallInit, kInitRefusal},
        ListenerCase{"InitAgainDropLastHandle", Teardown::InitAgain, Act::DropLastHandle,
                     std::string(kWorkerRefusal) + "Callback Release "}),
    CaseName());

// --- Process exit ---

// The body of the exit test's child process: a thread is inside a refresh (the modem holds its
// answers back) when the process exits. The exit handler must let it finish and leave before the
// library goes, with nothing racing (the tsan preset checks).
void exitWithACallInside() {
    // Statics, destroyed at exit in the reverse order of their making: the watchdog covers the
    // whole exit, and the modem outlives the library (the Manager is made after it).
    static testsupport::Watchdog watchdog("exiting with a call inside", kWatchdog);
    static testsupport::TempDir dir;
    static std::unique_ptr<vexsim::SimModem> modem;
    modem = startChildModem(dir.path());
    Manager& library = Manager::getInstance();
    library.init(0, true);
    if (!library.waitForModem(kTimeout)) {
        std::exit(3);
    }
    const auto served = [] {
        std::uint64_t total = 0;
        for (const vexsim::ClientInfo& client : modem->clients()) {
            total += client.requestsServed;
        }
        return total;
    };
    const std::uint64_t before = served();
    modem->setResponseDelay(std::chrono::milliseconds(300), VEX_WDS_GET_PROFILE_LIST_REQ_V01);
    std::thread([&library] { library.refresh(PDCRefreshStatus::Completed); }).detach();
    if (!modem->waitUntil([&] { return served() > before; }, kTimeout)) {
        std::exit(4);
    }
    std::exit(0);
}

TEST(ManagerExitTest, ExitingWhileAThreadIsInsideACallLetsTheCallFinishFirst) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitWithACallInside(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace e2e
