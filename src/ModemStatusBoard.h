// The modem link's status as the worker thread last published it, for any thread to read or to
// wait on (Manager::getModemStatus, Manager::waitForModem).
//
// Threads: published on the worker thread (the proxy); read, waited on and closed on any thread.
#ifndef KEL_MODEM_STATUS_BOARD_H
#define KEL_MODEM_STATUS_BOARD_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "kel/ModemStatus.h"

namespace kel {

class ChangeNotifier;

class ModemStatusBoard {
  public:
    explicit ModemStatusBoard(int subscriptionId, const Options& options = Options());
    ModemStatusBoard(const ModemStatusBoard&) = delete;
    ModemStatusBoard& operator=(const ModemStatusBoard&) = delete;

    // One consistent snapshot.
    ModemStatus get() const;
    // A new client is up, its bind and registrations answered as given; its cache is not loaded.
    void linkUp(bool bound, bool registered);
    // The client is gone: nothing is connected, bound, registered or loaded.
    void linkDown();
    void setCacheLoaded(bool loaded);
    // What the latest reads left out: whether a profile list failed, and the profiles that could
    // not be read.
    void setPicture(bool listFailed, std::vector<ModemStatus::ProfileRef> unread);
    // One more failed modem message, counted as timed out as well when it was.
    void countFailedMessage(bool timedOut);
    // True as soon as the status is ready; false once the link is broken, the board is closed or
    // the timeout (cut to kMaxWait) has passed.
    bool waitUntilReady(std::chrono::milliseconds timeout);
    // The pipeline is going: every wait returns false, now and later.
    void close();

    // Where status changes are told (borrowed; outlives the board). Set before the worker starts.
    void setNotifier(ChangeNotifier* changeNotifier) { notifier = changeNotifier; }

    static constexpr std::chrono::hours kMaxWait{24};

  private:
    // Applies change as one step and wakes the waiters.
    void update(const std::function<void(ModemStatus&)>& change);

    mutable std::mutex mutex;  // guards status and closed
    std::condition_variable changed;
    ModemStatus status;
    bool closed = false;
    ChangeNotifier* notifier = nullptr;  // see setNotifier
};

}  // namespace kel

#endif  // KEL_MODEM_STATUS_BOARD_H
