// An observer that records every event it hears, for tests of the change notifier on its own and
// through the Manager; Gate (support/Guarded.h) holds it in its call.
#ifndef KELR_TESTS_SUPPORT_OBSERVER_RECORDER_H
#define KELR_TESTS_SUPPORT_OBSERVER_RECORDER_H

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

#include "kel/ModemObserver.h"
#include "support/Guarded.h"

namespace testsupport {

// Threads: the notifier's thread calls it, the test's thread reads it.
class ObserverRecorder : public kel::ModemObserver {
  public:
    using Events = std::vector<kel::ModemEvent>;
    static constexpr std::chrono::seconds kTimeout = Guarded<Events>::kLimit;

    using Hook = std::function<void(const kel::ModemEvent&)>;

    // The hook, when set, runs before the event is recorded: it may block or throw. It may be set
    // while events are being told.
    void setOnEvent(Hook hook) {
        onEvent.change([&hook](Hook& current) { current = std::move(hook); });
    }
    void onModemEvent(const kel::ModemEvent& event) override {
        if (const Hook hook = onEvent.get()) {
            hook(event);
        }
        events.change([&event](Events& all) { all.push_back(event); });
    }
    bool waitForCount(std::size_t count) {
        return events.waitUntil([count](const Events& all) { return all.size() >= count; });
    }
    // Waits until an event satisfies match; returns the events up to and including it.
    Events until(const std::function<bool(const kel::ModemEvent&)>& match) {
        const auto first = [&match](const Events& all) {
            return std::find_if(all.begin(), all.end(), match) - all.begin();
        };
        const bool found = events.waitUntil(
            [&first](const Events& all) { return first(all) < static_cast<long>(all.size()); });
        EXPECT_TRUE(found) << "the awaited event never came";
        Events all = events.get();
        all.resize(std::min(all.size(), static_cast<std::size_t>(first(all) + 1)));
        return all;
    }
    Events untilKind(kel::ModemEvent::Kind kind) {
        return until([kind](const kel::ModemEvent& event) { return event.kind == kind; });
    }
    Events all() { return events.get(); }
    void clear() {
        events.change([](Events& all) { all.clear(); });
    }

  private:
    Guarded<Hook> onEvent;
    Guarded<Events> events;
};

}  // namespace testsupport

#endif  // KELR_TESTS_SUPPORT_OBSERVER_RECORDER_H
