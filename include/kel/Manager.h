// The library's entry point: one process-wide Manager through which a client adds, modifies,
// deletes, reads, filters and matches the modem's packet-data profiles.
//
// Threads. Every method may be called on any client thread. Those that wait for the library,
// every one but getModemStatus and dump, must not be called on the library's worker thread, that
// is from an expiration listener (IProfileKey): there each is refused with an Error line and
// returns its failure value (init returns without doing anything). Calls from several threads
// are served one after the other, first come first served; each blocks until the library has
// answered.
//
// Failures. Nothing is thrown: failure comes back as an empty handle, false, an empty list or an
// empty optional, and the reason goes to the log. Before init every call but dump logs "Manager
// not initialized!" and fails.
//
// The modem link. init returns before the library has reached the modem: it connects, binds to
// the subscription, registers for profile changes and reads the modem's profiles in the
// background, and again whenever the modem comes back after going down. Until then, and for good
// after a failed bind or registration (neither is retried), calls fail or act on an empty cache,
// and after a failed bind they reach the modem's default subscription instead: a profile added
// then lands there. getModemStatus shows how far the link got; waitForModem waits until it is
// usable. The switches of kel/Options.h, given to init, cure such hazards (failFastWhileUnbound,
// retryClientCreation and others); all are off unless given.
//
// Teardown. Destroying a Manager, calling init again, or the process exiting (for the
// process-wide instance) while other threads are inside calls or dropping handles is safe: a
// call already being served gets its answer, calls still waiting for their turn and calls that
// arrive during the teardown fail (with an Error line), and the teardown returns once every call
// has left the old pipeline. Expiration listeners of handles still held then run on the worker
// thread, where the rules above apply. Handles outlive their pipeline harmlessly: their later
// calls do nothing. A Manager must not be destroyed on the worker thread.
//
// Logs. Every call is traced at History level with the dump of its request and its answer, and
// those lines are kept in the history that dump returns; profile passwords appear in clear in all
// of them.
#ifndef KEL_MANAGER_H
#define KEL_MANAGER_H

#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kel/ClientRequest.h"
#include "kel/IProfileKey.h"
#include "kel/ModemObserver.h"
#include "kel/ModemStatus.h"
#include "kel/Options.h"
#include "kel/Outcome.h"
#include "kel/ProfileParams.h"

namespace kel {

class ChangeNotifier;
class ClientRequestManager;
class RequestLink;

class KEL_EXPORT Manager {
  public:
    Manager();
    // Tears the pipeline down as described above; returns once every call has left it.
    ~Manager();
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    static Manager& getInstance();

    // Serves subscriptionId (0 for the first) and logs to Android's log when useAdbLog is true,
    // to the modem diagnostics log otherwise. Replaces an earlier pipeline: the new one is up
    // before the old one is torn down. Refused (with an Error line) on the worker thread and
    // while the Manager is being destroyed.
    void init(int subscriptionId, bool useAdbLog);
    // The same, with the switches of options (kel/Options.h) in force for the new pipeline;
    // init without them is init with every switch off.
    void init(int subscriptionId, bool useAdbLog, const Options& options);

    // The new profile's handle; empty when the modem refused it or a refresh is in progress.
    // The request's own status is not consulted: the empty handle is the only sign of failure.
    std::shared_ptr<IProfileKey> addProfile(const AddProfileParams& params);
    // True when the change was made, when nothing would change, and also, deliberately, when the
    // modem refused the change: the cache then keeps the modem's values, so read them back with
    // getProfile to be sure. False for an expired or foreign handle or during a refresh.
    bool modifyProfile(const ModifyProfileParams& params, std::shared_ptr<IProfileKey> key);
    // Deletes the profile from the modem, whoever created it and however persistent; every
    // handle to it expires.
    bool deleteProfile(std::shared_ptr<IProfileKey> key);
    // A new handle for every cached profile that matches; each one counts as a holder of its
    // profile until dropped. The status is not consulted: a failure is an empty list.
    std::list<std::shared_ptr<IProfileKey>> filter(const FilterProfileParams& params);
    std::optional<ProfileParams> getProfile(std::shared_ptr<IProfileKey> key);
    // The status is not consulted: a failure reads as "does not match".
    bool match(const FilterProfileParams& params, std::shared_ptr<IProfileKey> key);
    // Report the modem's persistent-configuration refresh: Started closes the library to profile
    // operations, Completed reopens it and re-reads the modem's profiles. The re-read expires
    // every handle issued before it; the profiles behind them are then no longer the library's
    // to delete, so a non-persistent profile the library added stays on the modem when its old
    // handles are dropped.
    void refresh(PDCRefreshStatus status);
    // The cache, an empty line, "Logs:", then the log history; when a switch of Options is on,
    // the line "Options: " with Options::dump comes right before the empty line. Any thread, at any
    // time, an expiration listener included: it never sees the cache half changed.
    std::vector<std::string> dump();

    // How this thread's latest addProfile, modifyProfile, deleteProfile, filter, getProfile,
    // match or refresh ended (kel/Outcome.h), as errno tells of a system call: a refused or
    // unanswered modem message, a refresh in progress, a bad handle. Done before any such call.
    static Outcome lastOutcome();

    // The modem link as it stands: one consistent snapshot, whatever thread reads it. Empty
    // before init and once the Manager is being torn down. Also answers on the worker thread.
    std::optional<ModemStatus> getModemStatus();
    // Blocks until the link is usable (connected, bound, registered and its cache loaded) and
    // returns true; returns false when the timeout passes first, at once when the link came up
    // with a failed bind or registration (never retried), and when the Manager is torn down
    // meanwhile. A negative timeout counts as zero; one beyond 24 hours is cut to 24 hours.
    bool waitForModem(std::chrono::milliseconds timeout);

    // Registers observer (kel/ModemObserver.h) from now on, before or after init and across a new
    // init; false for an empty observer or one already registered. Any thread, the notifier
    // thread included.
    bool addObserver(std::shared_ptr<ModemObserver> observer);
    // Unregisters observer; once this returns it is not called again (see kel/ModemObserver.h).
    // False when it was not registered. Any thread, from inside the observer too.
    bool removeObserver(const std::shared_ptr<ModemObserver>& observer);

  private:
    class Visit;
    class Call;

    // Destruction and process exit: no pipeline from now on.
    void shutDown();

    std::mutex initMutex;  // one init or teardown at a time
    // Guards clientRequestManager, link, closed and visitors; held only to read or change them.
    std::mutex pipelineMutex;
    std::unique_ptr<ClientRequestManager> clientRequestManager;
    std::shared_ptr<RequestLink> link;  // the pipeline's, for calls to enter it
    bool closed = false;                // being (or been) destroyed, or the process exits
    int visitors = 0;                   // threads inside a method; the destructor waits for none
    std::condition_variable visitorsLeft;
    // Declared last, so destroyed after every pipeline that tells it of changes.
    std::unique_ptr<ChangeNotifier> notifier;
};

}  // namespace kel

#endif  // KEL_MANAGER_H
