// The spine of the library: owns the worker thread, its event loop and the profile cache. A
// client thread hands one request to processClientRequest, which wakes the worker through an
// eventfd and blocks until the worker has answered. Between a refresh-started and a
// refresh-completed request every profile operation fails at once (the refresh gate).
//
// Threads: processClientRequest and waitForModem on any client thread, never on a worker (refused
// there); getModemStatus on any thread; handleClientRequest and everything it calls on the worker;
// construction and destruction on the thread of Manager::init or of the Manager's destruction.
#ifndef KEL_CLIENT_REQUEST_MANAGER_H
#define KEL_CLIENT_REQUEST_MANAGER_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "EventFd.h"
#include "EventManager.h"
#include "ProfileCache.h"
#include "kel/ClientRequest.h"
#include "kel/ClientResponse.h"
#include "kel/ModemStatus.h"
#include "kel/Options.h"
#include "kel/Outcome.h"

namespace kel {

class ChangeNotifier;
class ClientRequestManager;

// What callers reach a ClientRequestManager through instead of holding it: the facade for the
// length of each call, every profile handle for its lifetime. A caller may outlive the manager (a
// second Manager::init, a destroyed Manager, process exit) and then finds nobody rather than a
// destroyed manager; the manager is destroyed only once every caller that reached it has left.
//
// Threads: any; mutex guards target and leases.
class RequestLink : public std::enable_shared_from_this<RequestLink> {
  public:
    // One caller inside the manager; while it lives the manager is not destroyed. Empty when the
    // link was severed.
    class Lease {
      public:
        Lease() = default;
        Lease(Lease&& other) noexcept;
        Lease& operator=(Lease&& other) noexcept;
        ~Lease();
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        explicit operator bool() const { return manager != nullptr; }
        ClientRequestManager* operator->() const { return manager; }

      private:
        friend class RequestLink;
        Lease(std::shared_ptr<RequestLink> link, ClientRequestManager* manager);
        void leave();

        std::shared_ptr<RequestLink> link;
        ClientRequestManager* manager = nullptr;  // borrowed; alive while the lease lives
    };

    explicit RequestLink(ClientRequestManager* manager) : target(manager) {}

    Lease enter();
    // A handle's request: refused on the worker thread (logged at Error), dropped once severed
    // (logged at Info), otherwise submitted.
    std::shared_ptr<ClientResponse> send(std::shared_ptr<ClientRequest> request);
    // From now on enter() fails and send() drops its request.
    void sever();
    // Returns once every lease has ended.
    void awaitLeases();

  private:
    std::mutex mutex;              // guards target and leases
    std::condition_variable idle;  // leases dropped
    ClientRequestManager* target;  // borrowed; null once severed
    int leases = 0;
};

class ClientRequestManager {
  public:
    // Builds the loop and the cache for subscriptionId and starts the worker. The cache and the
    // link's status tell their changes to notifier (borrowed; must outlive the manager) when given.
    explicit ClientRequestManager(int subscriptionId, const Options& options = Options(),
                                  ChangeNotifier* notifier = nullptr);
    // Refuses new callers and those still waiting for their turn, lets the one being served
    // have its answer, waits for every caller to leave, then stops and joins the worker (which
    // expires every handle on its way out). Handles still alive are cut off: their later calls
    // are logged no-ops.
    ~ClientRequestManager();
    ClientRequestManager(const ClientRequestManager&) = delete;
    ClientRequestManager& operator=(const ClientRequestManager&) = delete;

    // Blocks until the worker has answered. Concurrent callers are served one after the other in
    // the order they join the line (callers that arrive while the worker serves join it in the
    // order they then get requestMutex), each with its own response. Empty when the worker could
    // not be woken, when called on a worker thread (which would wait for itself), or when the
    // manager closes before the request was taken. *outcome (when given) receives how the call
    // ended.
    std::shared_ptr<ClientResponse> processClientRequest(std::shared_ptr<ClientRequest> request,
                                                         Outcome* outcome = nullptr);

    // The cache's dump, read on the caller's thread; any thread, the worker's included (an
    // expiration listener), at any time.
    std::vector<std::string> dump();

    // The modem link's status, one consistent snapshot; any thread.
    ModemStatus getModemStatus();
    // Any client thread: true once the link is usable, false when it came up broken, on
    // timeout, or once the manager closes.
    bool waitForModem(std::chrono::milliseconds timeout);

    // The switches in force; fixed for the manager's life.
    const Options& getOptions() const { return options; }

    // How the facade and the handles reach this manager.
    const std::shared_ptr<RequestLink>& getLink() const { return link; }

    // Whether the calling thread is the worker of some manager: a call that blocks on a worker
    // from there could wait for itself, so it is refused.
    static bool onWorkerThread();
    // On a worker thread: logs the refusal of what, or of the request's dump (at Error), and
    // returns true.
    static bool refuseOnWorkerThread(const char* what);
    static bool refuseOnWorkerThread(const std::shared_ptr<ClientRequest>& request);

  private:
    void runKelThread();
    static void handleClientRequest(int fd, void* arg);
    // The response to one request, or empty for a request that gets none. Worker thread, with
    // requestMutex held.
    std::shared_ptr<ClientResponse> serve(const std::shared_ptr<ClientRequest>& request);
    // serveRequest's answer; should serving throw, the request's failure value, with the outcome
    // Failed.
    std::shared_ptr<ClientResponse> serveGuarded(const std::shared_ptr<ClientRequest>& request,
                                                 Outcome& outcome);
    // serve's answer with what the request's outcome says beyond the cache's own.
    std::shared_ptr<ClientResponse> serveRequest(const std::shared_ptr<ClientRequest>& request,
                                                 Outcome& outcome);
    // With failFastWhileUnbound: whether request is one that reaches the modem, and the link is
    // not bound (logged at Error).
    bool refuseUnbound(const std::shared_ptr<ClientRequest>& request);
    std::shared_ptr<ClientResponse> serveCallback(const std::shared_ptr<ClientRequest>& request);
    std::shared_ptr<ClientResponse> serveRefresh(const std::shared_ptr<ClientRequest>& request);
    // Callers waiting for their turn, for a response not yet begun, or for the modem give up.
    void close();

    // One caller's place in line for the request slot, and where its answer is left. Kept by the
    // manager until it is destroyed, so a signal sent after the lock is released never reaches a
    // freed condition variable; a late signal to a reused Turn is a spurious wake-up its new
    // caller re-checks.
    struct Turn {
        enum class State { Waiting, Served, Answered, Refused, WriteFailed };
        State state = State::Waiting;
        std::condition_variable responseCv;        // this caller's answer (or refusal) is there
        std::shared_ptr<ClientRequest> request;    // while it waits in line
        std::shared_ptr<ClientResponse> response;  // Answered: the worker's response
        Outcome outcome;                           // Answered: how the request ended
        ssize_t writeResult = 0;                   // WriteFailed: what the wake-up write returned
        int writeErrno = 0;
    };
    Turn& takeTurn();
    void releaseTurn(Turn& turn);
    // Once the owner's request is answered, the worker hands the request slot to the first in
    // line by storing that caller's request, so the next turn begins without waiting for either
    // caller to be scheduled. With requestMutex held; returns the new owner, or null when nobody
    // waits.
    Turn* passTurn();
    // Wakes the worker for the request passTurn stored, without requestMutex held. Should the
    // write fail, the request is withdrawn unless already taken, its caller told, and the turn
    // passed on.
    void wakeWorkerFor(Turn* next);
    // Whether turn's caller has its answer: a response, a refusal, or nothing to wait for.
    bool answered(const Turn& turn) const;

    const Options options;
    std::shared_ptr<ClientRequest> pendingRequest;  // guarded by requestMutex
    // Guards the request slot, the turns, closing and isRefreshInProgress; the worker holds it for
    // every cache operation made on a client's behalf.
    std::mutex requestMutex;
    // The single request slot serves one caller at a time, the owner; the others wait in line,
    // first come first served, and each finds its response in its own Turn.
    Turn* owner = nullptr;     // guarded by requestMutex; null when the slot is free
    std::deque<Turn*> line;    // guarded by requestMutex; empty whenever owner is null
    std::deque<Turn> turns;    // guarded by requestMutex; every Turn made, at stable addresses
    std::vector<Turn*> spare;  // guarded by requestMutex; the Turns of no caller
    bool closing = false;      // guarded by requestMutex; set once by the destructor
    std::atomic<bool> isRunning{false};
    std::shared_ptr<RequestLink> link;  // what the facade and handles send through
    EventFd requestEventFd;
    EventManager eventManager;
    ProfileCache profileCache;         // worker thread only, once the worker runs
    bool isRefreshInProgress = false;  // guarded by requestMutex
    std::thread kelThread;
};

}  // namespace kel

#endif  // KEL_CLIENT_REQUEST_MANAGER_H
