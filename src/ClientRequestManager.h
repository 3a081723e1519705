// The spine of the library: owns the worker thread, its event loop and the profile cache. A
// client thread hands one request to processClientRequest, which wakes the worker through an
// eventfd and blocks until the worker has answered. Between a refresh-started and a
// refresh-completed request every profile operation fails at once (the refresh gate).
//
// Threads: processClientRequest on any client thread, never on the worker (refused there);
// handleClientRequest and everything it calls on the worker; construction and destruction on
// the thread of Manager::init or of the Manager's destruction.
#ifndef KEL_CLIENT_REQUEST_MANAGER_H
#define KEL_CLIENT_REQUEST_MANAGER_H

#include <atomic>
#include <condition_variable>
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

namespace kel {

class RequestLink;

class ClientRequestManager {
  public:
    // Builds the loop and the cache for subscriptionId and starts the worker.
    explicit ClientRequestManager(int subscriptionId);
    // Cuts off every handle still alive (its later calls are logged no-ops), then stops and
    // joins the worker.
    ~ClientRequestManager();
    ClientRequestManager(const ClientRequestManager&) = delete;
    ClientRequestManager& operator=(const ClientRequestManager&) = delete;

    // Blocks until the worker has answered. Concurrent callers are served one after the other,
    // each with its own response. Empty when the worker could not be woken or when called on
    // the worker itself (which would wait for itself).
    std::shared_ptr<ClientResponse> processClientRequest(std::shared_ptr<ClientRequest> request);

    // The cache's dump, read on the caller's thread without a lock: call it between requests.
    std::vector<std::string> dump();

  private:
    void runKelThread();
    static void handleClientRequest(int fd, void* arg);
    // The response to one request, or empty for a request that gets none. Worker thread, with
    // requestMutex held.
    std::shared_ptr<ClientResponse> serve(const std::shared_ptr<ClientRequest>& request);
    std::shared_ptr<ClientResponse> serveCallback(const std::shared_ptr<ClientRequest>& request);
    std::shared_ptr<ClientResponse> serveRefresh(const std::shared_ptr<ClientRequest>& request);

    // Held by a caller for its whole round trip, so the single request and response slots serve
    // one caller at a time.
    std::mutex submitMutex;
    std::shared_ptr<ClientRequest> pendingRequest;    // guarded by requestMutex
    std::shared_ptr<ClientResponse> pendingResponse;  // guarded by requestMutex
    // Guards both slots and isRefreshInProgress; the worker holds it for every cache operation
    // made on a client's behalf.
    std::mutex requestMutex;
    std::condition_variable responseCv;  // a response was stored (or a wake-up found no work)
    std::atomic<bool> isRunning{false};
    std::shared_ptr<RequestLink> link;  // what handles send through; severed on destruction
    EventFd requestEventFd;
    EventManager eventManager;
    ProfileCache profileCache;         // worker thread only, once the worker runs
    bool isRefreshInProgress = false;  // guarded by requestMutex
    std::thread kelThread;
    // Set by the worker as it starts; before that nothing can run on it.
    std::atomic<std::thread::id> workerId{};
};

}  // namespace kel

#endif  // KEL_CLIENT_REQUEST_MANAGER_H
