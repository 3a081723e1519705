#include "ClientRequestManager.h"

#include <sys/epoll.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <list>
#include <optional>
#include <string>
#include <utility>

#include "LocalLogBuffer.h"
#include "ProfileKey.h"

namespace kel {

namespace {

// Set on each worker thread as it starts: calls that would block on a worker are refused there.
thread_local bool isWorkerThread = false;
// The manager whose worker this thread is; null on other threads.
thread_local const ClientRequestManager* workerOf = nullptr;

// The failure value of a request of type: what its caller gets when serving it failed.
std::shared_ptr<ClientResponse> failureResponse(ReqRespType type) {
    switch (type) {
        case ReqRespType::Add:
            return std::make_shared<AddResponse>(Status::Failure, nullptr);
        case ReqRespType::Modify:
            return std::make_shared<ModifyResponse>(Status::Failure);
        case ReqRespType::Delete:
            return std::make_shared<DeleteResponse>(Status::Failure);
        case ReqRespType::Filter:
            return std::make_shared<FilterResponse>(Status::Failure,
                                                    std::list<std::shared_ptr<IProfileKey>>());
        case ReqRespType::Match:
            return std::make_shared<MatchResponse>(Status::Failure, false);
        case ReqRespType::Get:
            return std::make_shared<GetResponse>(Status::Failure, std::nullopt);
        case ReqRespType::Callback:
            return std::make_shared<CallbackResponse>(Status::Failure);
        case ReqRespType::Refresh:
            return std::make_shared<RefreshResponse>(Status::Failure);
    }
    return nullptr;
}

}  // namespace

RequestLink::Lease::Lease(std::shared_ptr<RequestLink> owner, ClientRequestManager* reached)
    : link(std::move(owner)), manager(reached) {}

RequestLink::Lease::Lease(Lease&& other) noexcept
    : link(std::move(other.link)), manager(std::exchange(other.manager, nullptr)) {}

RequestLink::Lease& RequestLink::Lease::operator=(Lease&& other) noexcept {
    if (this != &other) {
        leave();
        link = std::move(other.link);
        manager = std::exchange(other.manager, nullptr);
    }
    return *this;
}

RequestLink::Lease::~Lease() {
    leave();
}

void RequestLink::Lease::leave() {
    if (manager == nullptr) {
        return;
    }
    manager = nullptr;
    {
        std::lock_guard<std::mutex> lock(link->mutex);
        --link->leases;
    }
    link->idle.notify_all();
}

RequestLink::Lease RequestLink::enter() {
    std::lock_guard<std::mutex> lock(mutex);
    if (target == nullptr) {
        return Lease();
    }
    ++leases;
    return Lease(shared_from_this(), target);
}

std::shared_ptr<ClientResponse> RequestLink::send(std::shared_ptr<ClientRequest> request) {
    // Checked first: during a teardown a listener's release would otherwise pass for a handle
    // that merely outlived its pipeline.
    if (ClientRequestManager::refuseOnWorkerThread(request)) {
        return nullptr;
    }
    Lease lease = enter();
    if (!lease) {
        KEL_LOG(Info, "kel::ClientRequestManager: pipeline is gone, dropping %s",
                request->dump().c_str());
        return nullptr;
    }
    return lease->processClientRequest(std::move(request));
}

void RequestLink::sever() {
    std::lock_guard<std::mutex> lock(mutex);
    target = nullptr;
}

void RequestLink::awaitLeases() {
    std::unique_lock<std::mutex> lock(mutex);
    idle.wait(lock, [this] { return leases == 0; });
}

ClientRequestManager::ClientRequestManager(int subscriptionId, const Options& switches,
                                           ChangeNotifier* notifier)
    : options(switches),
      link(std::make_shared<RequestLink>(this)),
      profileCache(
          eventManager, subscriptionId,
          [sendLink = link](std::shared_ptr<ClientRequest> request) {
              return sendLink->send(std::move(request));
          },
          switches) {
    KEL_LOG(Debug, "kel::ClientRequestManager: constructor");
    // Registered before the worker starts, so the loop's handler map is never touched by two
    // threads at once. The flag is raised here, not by the worker, so that a destructor that
    // runs before the worker got going cannot be undone by it.
    eventManager.addEventHandler(requestEventFd.get(), handleClientRequest, this, nullptr, EPOLLIN);
    profileCache.setNotifier(notifier);
    isRunning = true;
    kelThread = std::thread(&ClientRequestManager::runKelThread, this);
}

ClientRequestManager::~ClientRequestManager() {
    KEL_LOG(Debug, "kel::ClientRequestManager: destructor");
    link->sever();
    close();
    // The worker still runs, so the request being served is answered; it is bounded by the
    // modem's message timeouts.
    link->awaitLeases();
    isRunning = false;
    eventManager.wake();
    kelThread.join();
    // Only once the worker is gone: the loop's handler map is the worker's alone while it runs.
    eventManager.removeEventHandler(requestEventFd.get());
}

void ClientRequestManager::close() {
    std::deque<Turn*> refused;
    Turn* served = nullptr;
    {
        std::lock_guard<std::mutex> lock(requestMutex);
        closing = true;
        for (Turn* waiting : line) {
            waiting->state = Turn::State::Refused;
        }
        refused.swap(line);
        served = owner;
    }
    for (Turn* waiting : refused) {
        waiting->responseCv.notify_one();
    }
    if (served != nullptr) {
        served->responseCv.notify_one();
    }
    profileCache.getStatusBoard().close();
}

bool ClientRequestManager::onWorkerThread() {
    return isWorkerThread;
}

bool ClientRequestManager::refuseOnWorkerThread(const char* what) {
    if (!isWorkerThread) {
        return false;
    }
    // The worker would wait for itself, or for another worker: from an expiration listener, say.
    KEL_LOG(Error, "kel::ClientRequestManager: request on the worker thread refused: %s", what);
    return true;
}

bool ClientRequestManager::refuseOnWorkerThread(const std::shared_ptr<ClientRequest>& request) {
    // The dump is made only for a refusal: this check is on every request's path.
    return isWorkerThread && refuseOnWorkerThread(request ? request->dump().c_str() : "");
}

void ClientRequestManager::runKelThread() {
    isWorkerThread = true;
    workerOf = this;
    KEL_LOG(History, "KEL thread started");
    while (isRunning) {
        // What escapes a handler (an indication's work running out of memory, say) costs that
        // one event, not the process.
        try {
            eventManager.processEvents();
        } catch (const std::exception& e) {
            KEL_LOG(Error, "kel::ClientRequestManager: worker caught: %s", e.what());
        } catch (...) {
            KEL_LOG(Error, "kel::ClientRequestManager: worker caught an exception");
        }
    }
    // Listeners of handles still held run here, on the worker, like every other listener.
    profileCache.expireAll();
}

std::shared_ptr<ClientResponse> ClientRequestManager::processClientRequest(
    std::shared_ptr<ClientRequest> request, Outcome* outcome) {
    if (outcome != nullptr) {
        // What every way out but an answer means: the pipeline did not serve the call.
        *outcome = Outcome{Outcome::Kind::NotInitialized, 0, 0};
    }
    if (refuseOnWorkerThread(request)) {
        return nullptr;
    }
    std::unique_lock<std::mutex> lock(requestMutex);
    if (closing) {
        KEL_LOG(Error, "kel::ClientRequestManager: closing, request refused: %s",
                request ? request->dump().c_str() : "");
        return nullptr;
    }
    Turn& turn = takeTurn();
    if (owner == nullptr) {
        const ssize_t rv = requestEventFd.signal();
        if (rv != sizeof(std::uint64_t)) {
            KEL_LOG(Error, "error in writing rv: %d error: %s", static_cast<int>(rv),
                    strerror(errno));
            releaseTurn(turn);
            return nullptr;
        }
        turn.state = Turn::State::Served;
        owner = &turn;
        // Stored after the wake-up write; the worker cannot look before requestMutex is released.
        pendingRequest = std::move(request);
    } else {
        turn.request = std::move(request);
        line.push_back(&turn);
    }
    turn.responseCv.wait(lock, [this, &turn] { return answered(turn); });
    std::shared_ptr<ClientResponse> response;
    switch (turn.state) {
        case Turn::State::Waiting:
            break;
        case Turn::State::Served:
            // The manager closes and the worker took the request without answering it.
            if (owner == &turn) {
                owner = nullptr;
            }
            break;
        case Turn::State::Answered:
            response = std::move(turn.response);
            if (outcome != nullptr) {
                *outcome = turn.outcome;
            }
            break;
        case Turn::State::Refused:
            KEL_LOG(Error, "kel::ClientRequestManager: closing, request refused: %s",
                    turn.request ? turn.request->dump().c_str() : "");
            break;
        case Turn::State::WriteFailed:
            KEL_LOG(Error, "error in writing rv: %d error: %s", static_cast<int>(turn.writeResult),
                    strerror(turn.writeErrno));
            break;
    }
    releaseTurn(turn);
    return response;
}

bool ClientRequestManager::answered(const Turn& turn) const {
    switch (turn.state) {
        case Turn::State::Waiting:
            return false;
        case Turn::State::Served:
            // Once closing, only a request the worker has not yet taken is still waited for: the
            // worker runs until every caller has left, so it will take it.
            return closing && !pendingRequest;
        case Turn::State::Answered:
        case Turn::State::Refused:
        case Turn::State::WriteFailed:
            return true;
    }
    return true;
}

ClientRequestManager::Turn* ClientRequestManager::passTurn() {
    owner = nullptr;
    if (line.empty()) {
        return nullptr;
    }
    Turn* next = line.front();
    line.pop_front();
    next->state = Turn::State::Served;
    owner = next;
    pendingRequest = std::move(next->request);
    return next;
}

void ClientRequestManager::wakeWorkerFor(Turn* next) {
    while (next != nullptr) {
        const ssize_t rv = requestEventFd.signal();
        if (rv == sizeof(std::uint64_t)) {
            return;
        }
        const int error = errno;
        std::unique_lock<std::mutex> lock(requestMutex);
        if (owner != next || !pendingRequest) {
            // Taken already, on a wake-up still pending from earlier: it is being answered.
            return;
        }
        // Withdrawn, and reported by its caller as a failed write of its own would be.
        next->request = std::move(pendingRequest);
        next->state = Turn::State::WriteFailed;
        next->writeResult = rv;
        next->writeErrno = error;
        Turn* failed = next;
        next = passTurn();
        lock.unlock();
        failed->responseCv.notify_one();
    }
}

ClientRequestManager::Turn& ClientRequestManager::takeTurn() {
    if (spare.empty()) {
        return turns.emplace_back();
    }
    Turn* turn = spare.back();
    spare.pop_back();
    turn->state = Turn::State::Waiting;
    return *turn;
}

void ClientRequestManager::releaseTurn(Turn& turn) {
    turn.request.reset();
    turn.response.reset();
    spare.push_back(&turn);
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
    Turn* answeredTurn = nullptr;
    Turn* next = nullptr;
    if (self->pendingRequest) {
        Outcome outcome;
        std::shared_ptr<ClientResponse> response =
            self->serveGuarded(self->pendingRequest, outcome);
        self->pendingRequest.reset();
        // A request that gets no response keeps the turn, and its caller and those in line
        // waiting.
        if (response && self->owner != nullptr) {
            self->owner->response = std::move(response);
            self->owner->outcome = outcome;
            self->owner->state = Turn::State::Answered;
            answeredTurn = self->owner;
            next = self->passTurn();
        }
    }
    // A wake-up without work signals the caller being served, who finds nothing and waits on.
    Turn* woken = answeredTurn != nullptr ? answeredTurn : self->owner;
    // Signalled after the unlock, so the woken caller does not block at once on the mutex the
    // worker still holds; the answer was stored under the lock, so it sees it either way. The
    // Turn outlives the worker, so it is there to be signalled even if its caller has moved on.
    lock.unlock();
    if (woken != nullptr) {
        woken->responseCv.notify_one();
    }
    // The next caller's request is stored already: the next turn of the loop serves it, whether
    // or not the caller just answered has been scheduled yet.
    self->wakeWorkerFor(next);
}

namespace {

// The handle of a request as the cache knows it; empty when it is not a ProfileKey.
std::shared_ptr<ProfileKey> asProfileKey(const std::shared_ptr<IProfileKey>& key) {
    return std::dynamic_pointer_cast<ProfileKey>(key);
}

}  // namespace

std::shared_ptr<ClientResponse> ClientRequestManager::serveGuarded(
    const std::shared_ptr<ClientRequest>& request, Outcome& outcome) {
    const char* reason = nullptr;
    std::string what;
    try {
        KEL_LOG(Info, "Handling %s", request->dump().c_str());
        return serveRequest(request, outcome);
    } catch (const std::exception& e) {
        what = e.what();
        reason = what.c_str();
    } catch (...) {
        reason = "an exception";
    }
    // The request fails, as one the cache refused would; the worker goes on with the next.
    KEL_LOG(Error, "kel::ClientRequestManager: serving request failed: %s", reason);
    profileCache.takeOutcome();
    outcome = Outcome{Outcome::Kind::Failed, 0, 0};
    return failureResponse(request->getRequestType());
}

std::shared_ptr<ClientResponse> ClientRequestManager::serveRequest(
    const std::shared_ptr<ClientRequest>& request, Outcome& outcome) {
    profileCache.takeOutcome();
    if (refuseUnbound(request)) {
        outcome = Outcome{Outcome::Kind::NotBound, 0, 0};
        return failureResponse(request->getRequestType());
    }
    std::shared_ptr<ClientResponse> response = serve(request);
    outcome = profileCache.takeOutcome();
    if (!outcome.ok() || !response) {
        return response;
    }
    const ReqRespType type = request->getRequestType();
    const bool reachesModem =
        type == ReqRespType::Add || type == ReqRespType::Modify || type == ReqRespType::Delete;
    if (isRefreshInProgress && type != ReqRespType::Refresh) {
        outcome.kind = Outcome::Kind::RefreshInProgress;
    } else if (response->getStatus() != Status::Success && type != ReqRespType::Callback) {
        // Failed before the cache was asked: a request of the wrong class or a foreign handle.
        outcome.kind = Outcome::Kind::InvalidArguments;
    } else if (reachesModem) {
        // The modem took it, but on its default subscription: the bind failed.
        const ModemStatus status = profileCache.getStatusBoard().get();
        if (status.connected && !status.bound) {
            outcome.kind = Outcome::Kind::NotBound;
        }
    }
    return response;
}

bool ClientRequestManager::refuseUnbound(const std::shared_ptr<ClientRequest>& request) {
    const ReqRespType type = request->getRequestType();
    if (!options.failFastWhileUnbound || isRefreshInProgress ||
        (type != ReqRespType::Add && type != ReqRespType::Modify && type != ReqRespType::Delete)) {
        return false;
    }
    if (profileCache.getStatusBoard().get().bound) {
        return false;
    }
    KEL_LOG(Error, "kel::ClientRequestManager: link not bound, request refused");
    return true;
}

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
    // On this manager's worker (an expiration listener) the cache is not being changed by anyone
    // else, and its lock may be held already.
    return profileCache.dump(workerOf == this);
}

ModemStatus ClientRequestManager::getModemStatus() {
    return profileCache.getStatusBoard().get();
}

bool ClientRequestManager::waitForModem(std::chrono::milliseconds timeout) {
    if (refuseOnWorkerThread("waitForModem")) {
        return false;
    }
    return profileCache.getStatusBoard().waitUntilReady(timeout);
}

}  // namespace kel
