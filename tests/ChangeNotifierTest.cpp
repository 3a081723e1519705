// The notifier on its own, with its real thread.
#include "ChangeNotifier.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "support/ObserverRecorder.h"

namespace kel {
namespace {

// Records every event; as a sequence number, each test event carries its profileId.
using Recorder = testsupport::ObserverRecorder;

using testsupport::Gate;

ModemEvent numbered(int sequence) {
    ModemEvent event = makeEvent(ModemEvent::Kind::ProfileChanged);
    event.profileId = sequence;
    return event;
}

TEST(ChangeNotifierTest, ASlowObserverLosesTheOverflowAndIsToldOnceHowMany) {
    ChangeNotifier notifier(4);
    auto recorder = std::make_shared<Recorder>();
    Gate inFirstCall;
    Gate release;
    Gate inSecondCall;
    Gate releaseSecond;
    recorder->setOnEvent([&](const ModemEvent& event) {
        if (event.profileId == 0) {
            inFirstCall.open();
            release.wait();
        } else if (event.profileId == 1) {
            inSecondCall.open();
            releaseSecond.wait();
        }
    });
    ASSERT_TRUE(notifier.add(recorder));

    notifier.post(numbered(0));
    ASSERT_TRUE(inFirstCall.wait());
    // The observer is stuck: four wait, sixteen are dropped, and posting never blocks.
    for (int sequence = 1; sequence <= 20; ++sequence) {
        notifier.post(numbered(sequence));
    }
    release.open();
    // The queue is taken whole: with room again, the next event is preceded by the count.
    ASSERT_TRUE(inSecondCall.wait());
    notifier.post(numbered(21));
    releaseSecond.open();
    ASSERT_TRUE(recorder->waitForCount(7));

    const std::vector<ModemEvent> events = recorder->all();
    ASSERT_EQ(events.size(), 7u);
    for (int i = 0; i <= 4; ++i) {
        EXPECT_EQ(events[i].kind, ModemEvent::Kind::ProfileChanged);
        EXPECT_EQ(events[i].profileId, i);
    }
    EXPECT_EQ(events[5].kind, ModemEvent::Kind::EventsLost);
    EXPECT_EQ(events[5].count, 16u);
    EXPECT_EQ(events[6].profileId, 21);
}

TEST(ChangeNotifierTest, RemovalReturnsOnlyOnceTheCallInProgressHasEnded) {
    ChangeNotifier notifier;
    auto recorder = std::make_shared<Recorder>();
    Gate inCall;
    Gate release;
    std::atomic<bool> callEnded{false};
    recorder->setOnEvent([&](const ModemEvent&) {
        inCall.open();
        release.wait();
        callEnded = true;
    });
    ASSERT_TRUE(notifier.add(recorder));
    notifier.post(numbered(0));
    ASSERT_TRUE(inCall.wait());

    bool endedWhenRemoved = false;
    std::thread remover([&] {
        EXPECT_TRUE(notifier.remove(recorder));
        endedWhenRemoved = callEnded;
    });
    // Released once the remover has unregistered the observer, and so waits for the call.
    const auto deadline = std::chrono::steady_clock::now() + Recorder::kTimeout;
    while (notifier.watched() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    release.open();
    remover.join();

    EXPECT_TRUE(endedWhenRemoved);
    EXPECT_FALSE(notifier.remove(recorder));
    EXPECT_FALSE(notifier.watched());
}

TEST(ChangeNotifierTest, RemovalFromInsideTheObserverMakesItsCallTheLast) {
    ChangeNotifier notifier;
    auto leaving = std::make_shared<Recorder>();
    auto staying = std::make_shared<Recorder>();
    leaving->setOnEvent([&](const ModemEvent&) { EXPECT_TRUE(notifier.remove(leaving)); });
    // A throwing observer is dropped from nothing but its own call.
    auto throwing = std::make_shared<Recorder>();
    throwing->setOnEvent([](const ModemEvent&) { throw std::runtime_error("observer fault"); });
    ASSERT_TRUE(notifier.add(leaving));
    ASSERT_TRUE(notifier.add(throwing));
    ASSERT_TRUE(notifier.add(staying));
    EXPECT_FALSE(notifier.add(staying));
    EXPECT_FALSE(notifier.add(nullptr));

    for (int sequence = 0; sequence < 3; ++sequence) {
        notifier.post(numbered(sequence));
    }
    ASSERT_TRUE(staying->waitForCount(3));

    EXPECT_EQ(leaving->all().size(), 1u);
    EXPECT_EQ(throwing->all().size(), 0u);
    EXPECT_EQ(staying->all().back().profileId, 2);
}

}  // namespace
}  // namespace kel
