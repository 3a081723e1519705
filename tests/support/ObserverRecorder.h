// An observer that records every event it hears, and a gate to hold it at, for tests of the change
// notifier on its own and through the Manager.
#ifndef KELR_TESTS_SUPPORT_OBSERVER_RECORDER_H
#define KELR_TESTS_SUPPORT_OBSERVER_RECORDER_H

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <vector>

#include "kel/ModemObserver.h"

namespace testsupport {

// Threads: the notifier's thread calls it, the test's thread reads it; guarded by mutex.
class ObserverRecorder : public kel::ModemObserver {
  public:
    static constexpr std::chrono::seconds kTimeout{10};

    // onEvent, when set, runs before the event is recorded: it may block or throw.
    void onModemEvent(const kel::ModemEvent& event) override {
        if (onEvent) {
            onEvent(event);
        }
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(event);
        changed.notify_all();
    }
    bool waitForCount(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, kTimeout, [&] { return events.size() >= count; });
    }
    // Waits until an event satisfies match; returns the events up to and including it.
    std::vector<kel::ModemEvent> until(const std::function<bool(const kel::ModemEvent&)>& match) {
        std::unique_lock<std::mutex> lock(mutex);
        std::size_t found = 0;
        changed.wait_for(lock, kTimeout, [&] {
            for (found = 0; found < events.size(); ++found) {
                if (match(events[found])) {
                    return true;
                }
            }
            return false;
        });
        EXPECT_LT(found, events.size()) << "the awaited event never came";
        return std::vector<kel::ModemEvent>(events.begin(),
                                            events.begin() + std::min(found + 1, events.size()));
    }
    std::vector<kel::ModemEvent> untilKind(kel::ModemEvent::Kind kind) {
        return until([kind](const kel::ModemEvent& event) { return event.kind == kind; });
    }
    std::vector<kel::ModemEvent> all() {
        std::lock_guard<std::mutex> lock(mutex);
        return events;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex);
        events.clear();
    }

    std::function<void(const kel::ModemEvent&)> onEvent;

  private:
    std::mutex mutex;  // guards events
    std::condition_variable changed;
    std::vector<kel::ModemEvent> events;
};

// A one-shot gate: an observer waits at it (for at most the recorder's timeout) until the test
// opens it. Threads: any; guarded by mutex.
class Gate {
  public:
    void open() {
        std::lock_guard<std::mutex> lock(mutex);
        opened = true;
        changed.notify_all();
    }
    bool wait() {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, ObserverRecorder::kTimeout, [this] { return opened; });
    }

  private:
    std::mutex mutex;  // guards opened
    std::condition_variable changed;
    bool opened = false;
};

}  // namespace testsupport

#endif  // KELR_TESTS_SUPPORT_OBSERVER_RECORDER_H
