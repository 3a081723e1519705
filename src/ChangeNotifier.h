// Carries ModemEvents from the worker to the registered observers (kel/ModemObserver.h): a bounded
// queue the worker only appends to, and one notifier thread that calls the observers, started
// with the first observer and stopped by the destructor.
//
// Threads: watched() and post() on any thread (the worker, the status board); add and remove on
// any thread, the notifier thread included; mutex guards everything but watching.
#ifndef KEL_CHANGE_NOTIFIER_H
#define KEL_CHANGE_NOTIFIER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "kel/ModemObserver.h"

namespace kel {

class ModemProfile;

// An event of kind, stamped now.
inline ModemEvent makeEvent(ModemEvent::Kind kind) {
    ModemEvent event;
    event.kind = kind;
    event.time = std::chrono::system_clock::now();
    return event;
}

class ChangeNotifier {
  public:
    static constexpr std::size_t kDefaultQueueLimit = 4096;
    // Events are handed to the observers in batches of up to kBatch, at most kLinger after the
    // first of a batch was posted.
    static constexpr std::size_t kBatch = 256;
    static constexpr std::chrono::milliseconds kLinger{2};

    explicit ChangeNotifier(std::size_t queueLimit = kDefaultQueueLimit);
    // Stops and joins the notifier thread; events still queued are dropped. Not on that thread.
    ~ChangeNotifier();
    ChangeNotifier(const ChangeNotifier&) = delete;
    ChangeNotifier& operator=(const ChangeNotifier&) = delete;

    // False for an empty observer or one already registered.
    bool add(std::shared_ptr<ModemObserver> observer);
    // False when it was not registered. Returns once no call to it is in progress, except from
    // inside its own call.
    bool remove(const std::shared_ptr<ModemObserver>& observer);

    // Whether anyone listens: the only cost of a hook while nobody does. Events posted while it is
    // false are not delivered anyway, so a relaxed read suffices.
    bool watched() const { return watching.load(std::memory_order_relaxed); }
    // Queues event for the observers, or counts it as lost when the queue is full. Never blocks
    // for an observer. The changes of a ProfileChanged event are worked out by the notifier.
    void post(ModemEvent event);

    // The picture's view of one cached profile.
    static ProfileState stateOf(const ModemProfile& profile);

  private:
    struct Entry {
        std::shared_ptr<ModemObserver> observer;
    };

    void run();
    // Calls every observer registered now with event, one at a time.
    void deliver(const ModemEvent& event, std::unique_lock<std::mutex>& lock);
    static ModemEvent lostEvent(std::uint64_t lost);

    const std::size_t queueLimit;
    std::atomic<bool> watching{false};
    // Guards observers, queue, lost, calling, stopping and the thread's start.
    std::mutex mutex;
    std::condition_variable wake;       // an event was queued, or stopping
    std::condition_variable callEnded;  // a call to an observer returned
    std::vector<std::shared_ptr<Entry>> observers;
    std::deque<ModemEvent> queue;
    std::uint64_t lost = 0;          // dropped since the last EventsLost was queued
    const Entry* calling = nullptr;  // the observer being called, if any
    std::thread::id notifierId;      // set once the thread runs
    bool stopping = false;
    std::thread thread;
};

}  // namespace kel

#endif  // KEL_CHANGE_NOTIFIER_H
