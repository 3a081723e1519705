#include "ClientRequestManager.h"

#include <sys/epoll.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "LocalLogBuffer.h"
#include "ProfileKey.h"

namespace kel {

// What profile handles send through instead of holding the manager itself: a handle may outlive
// its pipeline (a second Manager::init, process exit), and must then find nobody rather than a
// destroyed manager.
//
// Threads: any; mutex guards target and inFlight.
class RequestLink {
  public:
    explicit RequestLink(ClientRequestManager* manager) : target(manager) {}

    std::shared_ptr<ClientResponse> send(std::shared_ptr<ClientRequest> request) {
        ClientRequestManager* manager = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex);
            manager = target;
            if (manager != nullptr) {
                ++inFlight;
            }
        }
        if (manager == nullptr) {
            KEL_LOG(Info, "kel::ClientRequestManager: pipeline is gone, dropping %s",
                    request->dump().c_str());
            return nullptr;
        }
        std::shared_ptr<ClientResponse> response =
            manager->processClientRequest(std::move(request));
        {
            std::lock_guard<std::mutex> lock(mutex);
            --inFlight;
        }
        idle.notify_all();
        return response;
    }

    // From now on sends are no-ops; returns once the sends already under way have been served
    // (the worker still runs, so they are).
    void sever() {
        std::unique_lock<std::mutex> lock(mutex);
        target = nullptr;
        idle.wait(lock, [this] { return inFlight == 0; });
    }

  private:
    std::mutex mutex;              // guards target and inFlight
    std::condition_variable idle;  // inFlight dropped
    ClientRequestManager* target;  // borrowed; null once severed
    int inFlight = 0;
};

ClientRequestManager::ClientRequestManager(int subscriptionId)
    : link(std::make_shared<RequestLink>(this)),
      profileCache(eventManager, subscriptionId,
                   [sendLink = link](std::shared_ptr<ClientRequest> request) {
                       return sendLink->send(std::move(request));
                   }) {
    KEL_LOG(Debug, "kel::ClientRequestManager: constructor");
    // Registered before the worker starts, so the loop's handler map is never touched by two
    // threads at once. The flag is raised here, not by the worker, so that a destructor that
    // runs before the worker got going cannot be undone by it.
    eventManager.addEventHandler(requestEventFd.get(), handleClientRequest, this, nullptr, EPOLLIN);
    isRunning = true;
    kelThread = std::thread(&ClientRequestManager::runKelThread, this);
}

ClientRequestManager::~ClientRequestManager() {
    KEL_LOG(Debug, "kel::ClientRequestManager: destructor");
    link->sever();
    isRunning = false;
    eventManager.wake();
    kelThread.join();
    // Only once the worker is gone: the loop's handler map is the worker's alone while it runs.
    eventManager.removeEventHandler(requestEventFd.get());
}

void ClientRequestManager::runKelThread() {
    workerId = std::this_thread::get_id();
    KEL_LOG(History, "KEL thread started");
    while (isRunning) {
        eventManager.processEvents();
    }
}

std::shared_ptr<ClientResponse> ClientRequestManager::processClientRequest(
    std::shared_ptr<ClientRequest> request) {
    if (std::this_thread::get_id() == workerId) {
        // The worker would wait for itself: from an expiration listener, say.
        KEL_LOG(Error, "kel::ClientRequestManager: request on the worker thread refused: %s",
                request ? request->dump().c_str() : "");
        return nullptr;
    }
    std::lock_guard<std::mutex> turn(submitMutex);
    std::unique_lock<std::mutex> lock(requestMutex);
    const ssize_t rv = requestEventFd.signal();
    if (rv != sizeof(std::uint64_t)) {
        KEL_LOG(Error, "error in writing rv: %d error: %s", static_cast<int>(rv), strerror(errno));
        return nullptr;
    }
    // Stored after the wake-up write; the worker cannot look before requestMutex is released.
    pendingRequest = std::move(request);
    responseCv.wait(lock, [this] { return pendingResponse != nullptr; });
    return std::exchange(pendingResponse, nullptr);
}

void ClientRequestManager::handleClientRequest(int fd, void* arg) {
    // A fixed entry trace: log filters key on the number.
    KEL_LOG(Debug, ":%d:%s", 77, "handleClientRequest");
    EventFd::drain(fd);
    if (arg == nullptr) {
        KEL_LOG(Error, "arg is null");
        return;
    }
    auto* self = static_cast<ClientRequestManager*>(arg);
    std::unique_lock<std::mutex> lock(self->requestMutex);
    if (self->pendingRequest) {
        KEL_LOG(Info, "Handling %s", self->pendingRequest->dump().c_str());
        std::shared_ptr<ClientResponse> response = self->serve(self->pendingRequest);
        // A request that gets no response leaves the slot empty, and its caller waiting.
        if (response) {
            self->pendingResponse = std::move(response);
        }
        self->pendingRequest.reset();
    }
    // Signalled after the unlock, so the woken caller does not block at once on the mutex the
    // worker still holds; the response was stored under the lock, so it sees it either way.
    lock.unlock();
    self->responseCv.notify_one();
}

namespace {

// The handle of a request as the cache knows it; empty when it is not a ProfileKey.
std::shared_ptr<ProfileKey> asProfileKey(const std::shared_ptr<IProfileKey>& key) {
    return std::dynamic_pointer_cast<ProfileKey>(key);
}

}  // namespace

std::shared_ptr<ClientResponse> ClientRequestManager::serve(
    const std::shared_ptr<ClientRequest>& request) {
    const bool gateOpen = !isRefreshInProgress;
    switch (request->getRequestType()) {
        case ReqRespType::Add: {
            auto add = std::dynamic_pointer_cast<AddRequest>(request);
            if (!gateOpen || !add) {
                return std::make_shared<AddResponse>(Status::Failure, nullptr);
            }
            AddProfileParams params = add->getAddProfileParams();
            // Success even with an empty key: the caller learns of a failed add from the key.
            return std::make_shared<AddResponse>(Status::Success, profileCache.add(params));
        }
        case ReqRespType::Modify: {
            auto modify = std::dynamic_pointer_cast<ModifyRequest>(request);
            std::shared_ptr<ProfileKey> key =
                modify ? asProfileKey(modify->getModifyProfileKey()) : nullptr;
            if (!gateOpen || !key) {
                return std::make_shared<ModifyResponse>(Status::Failure);
            }
            ModifyProfileParams params = modify->getModifyProfileParams();
            return std::make_shared<ModifyResponse>(
                profileCache.modify(params, key) ? Status::Success : Status::Failure);
        }
        case ReqRespType::Delete: {
            auto remove = std::dynamic_pointer_cast<DeleteRequest>(request);
            std::shared_ptr<ProfileKey> key =
                remove ? asProfileKey(remove->getDeleteProfileKey()) : nullptr;
            if (!gateOpen || !key) {
                return std::make_shared<DeleteResponse>(Status::Failure);
            }
            return std::make_shared<DeleteResponse>(profileCache.remove(key) ? Status::Success
                                                                             : Status::Failure);
        }
        case ReqRespType::Filter: {
            auto filter = std::dynamic_pointer_cast<FilterRequest>(request);
            std::list<std::shared_ptr<IProfileKey>> result;
            if (!gateOpen || !filter) {
                return std::make_shared<FilterResponse>(Status::Failure, std::move(result));
            }
            FilterProfileParams params = filter->getFilterParams();
            for (std::shared_ptr<ProfileKey>& key : profileCache.filter(params)) {
                result.push_back(std::move(key));
            }
            return std::make_shared<FilterResponse>(Status::Success, std::move(result));
        }
        case ReqRespType::Match: {
            auto match = std::dynamic_pointer_cast<MatchRequest>(request);
            std::shared_ptr<ProfileKey> key = match ? asProfileKey(match->getMatchKey()) : nullptr;
            if (!gateOpen || !key) {
                return std::make_shared<MatchResponse>(Status::Failure, false);
            }
            FilterProfileParams params = match->getMatchParams();
            return std::make_shared<MatchResponse>(Status::Success,
                                                   profileCache.match(params, key));
        }
        case ReqRespType::Get: {
            auto get = std::dynamic_pointer_cast<GetRequest>(request);
            std::shared_ptr<ProfileKey> key = get ? asProfileKey(get->getProfileKey()) : nullptr;
            std::optional<ProfileParams> params;
            if (gateOpen && key) {
                params = profileCache.get(key);
            }
            return std::make_shared<GetResponse>(params ? Status::Success : Status::Failure,
                                                 std::move(params));
        }
        case ReqRespType::Callback:
            return serveCallback(request);
        case ReqRespType::Refresh:
            return serveRefresh(request);
    }
    return nullptr;
}

std::shared_ptr<ClientResponse> ClientRequestManager::serveCallback(
    const std::shared_ptr<ClientRequest>& request) {
    auto callback = std::dynamic_pointer_cast<CallbackRequest>(request);
    bool ok = false;
    if (callback && !isRefreshInProgress) {
        // A release takes precedence over a registration carried by the same request.
        if (callback->hasReleaseToken()) {
            ok = profileCache.releaseProfile(callback->getReleaseToken());
        } else if (callback->hasExpirationInfo()) {
            ok = profileCache.registerExpirationListener(callback->getExpirationCb(),
                                                         callback->getExpirationKey(),
                                                         callback->getExpirationToken());
        }
    }
    return std::make_shared<CallbackResponse>(ok ? Status::Success : Status::Failure);
}

std::shared_ptr<ClientResponse> ClientRequestManager::serveRefresh(
    const std::shared_ptr<ClientRequest>& request) {
    auto refresh = std::dynamic_pointer_cast<RefreshRequest>(request);
    if (!refresh) {
        return nullptr;
    }
    // Served even while the gate is closed: it is what opens it.
    if (refresh->refreshStatus != PDCRefreshStatus::Started) {
        isRefreshInProgress = false;
        profileCache.refresh();
    } else {
        isRefreshInProgress = true;
    }
    return std::make_shared<RefreshResponse>(Status::Success);
}

std::vector<std::string> ClientRequestManager::dump() {
    return profileCache.dump();
}

}  // namespace kel
