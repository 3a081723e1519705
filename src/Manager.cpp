#include "kel/Manager.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <utility>

#include "ChangeNotifier.h"
#include "ClientRequestManager.h"
#include "LocalLogBuffer.h"
#include "kel/ClientResponse.h"

namespace kel {

namespace {

// One round trip of the facade: logs the request, submits it and logs the response (an empty
// text when there is none). The response down-cast to Response, empty (after logging
// failureText) when there is none or it is of another class.
// How the calling thread's latest call ended.
thread_local Outcome threadOutcome;

template <typename Response>
std::shared_ptr<Response> roundTrip(ClientRequestManager& manager, const char* operation,
                                    const std::shared_ptr<ClientRequest>& request,
                                    const char* failureText) {
    KEL_LOG(History, "Manager::%s > %s", operation, request->dump().c_str());
    std::shared_ptr<ClientResponse> response =
        manager.processClientRequest(request, &threadOutcome);
    KEL_LOG(History, "Manager::%s < %s", operation, response ? response->dump().c_str() : "");
    auto typed = std::dynamic_pointer_cast<Response>(response);
    if (!typed) {
        KEL_LOG(Error, "%s", failureText);
    }
    return typed;
}

// The instance getInstance() returns, once it exists.
std::atomic<Manager*> processInstance{nullptr};

void installLogWriter(bool useAdbLog) {
    if (useAdbLog) {
        LogWrapper::getInstance()->setLogWriter(std::make_unique<AdbWriter>());
    } else {
        LogWrapper::getInstance()->setLogWriter(std::make_unique<DiagWriter>());
    }
}

void logNotInitialized() {
    KEL_LOG(Error, "Manager not initialized!");
}

}  // namespace

// A thread inside one of the Manager's methods: the destructor waits until none is left, so that
// no method touches a destroyed Manager.
class Manager::Visit {
  public:
    explicit Visit(Manager& visited) : manager(visited) {
        std::lock_guard<std::mutex> lock(manager.pipelineMutex);
        ++manager.visitors;
    }
    ~Visit() {
        std::lock_guard<std::mutex> lock(manager.pipelineMutex);
        --manager.visitors;
        // Under the lock: once it is released the destructor may go on and free the Manager.
        manager.visitorsLeft.notify_all();
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

  private:
    Manager& manager;
};

// One call inside the current pipeline: while it lives, the pipeline is not torn down. Empty
// (after logging why, unless operation is null) when there is no pipeline or it is going.
class Manager::Call {
  public:
    // recordsOutcome: the call is one whose outcome lastOutcome tells.
    Call(Manager& manager, const char* operation, bool recordsOutcome = true) : visit(manager) {
        if (recordsOutcome && operation != nullptr) {
            threadOutcome = Outcome{Outcome::Kind::NotInitialized, 0, 0};
        }
        std::shared_ptr<RequestLink> current;
        bool shutting = false;
        {
            std::lock_guard<std::mutex> lock(manager.pipelineMutex);
            current = manager.link;
            shutting = manager.closed;
        }
        if (current) {
            lease = current->enter();
        }
        if (lease || operation == nullptr) {
            return;
        }
        if (!current && !shutting) {
            logNotInitialized();
        } else {
            // The pipeline went (or is going) while this call came in.
            KEL_LOG(Error, "Manager::%s refused: the library is shutting down", operation);
        }
    }

    explicit operator bool() const { return static_cast<bool>(lease); }
    ClientRequestManager& pipeline() const { return *lease.operator->(); }

  private:
    Visit visit;  // first in, last out
    RequestLink::Lease lease;
};

Manager::Manager() : notifier(std::make_unique<ChangeNotifier>()) {
    KEL_LOG(Debug, "kel::Manager: constructor");
}

Manager::~Manager() {
    shutDown();
    std::unique_lock<std::mutex> lock(pipelineMutex);
    visitorsLeft.wait(lock, [this] { return visitors == 0; });
}

void Manager::shutDown() {
    std::lock_guard<std::mutex> initLock(initMutex);
    std::unique_ptr<ClientRequestManager> previous;
    {
        std::lock_guard<std::mutex> lock(pipelineMutex);
        closed = true;
        link.reset();
        previous = std::move(clientRequestManager);
    }
    // Outside pipelineMutex: calls still inside must be able to leave meanwhile.
    previous.reset();
}

Manager& Manager::getInstance() {
    static Manager instance;
    processInstance.store(&instance);
    return instance;
}

void Manager::init(int subscriptionId, bool useAdbLog) {
    init(subscriptionId, useAdbLog, Options());
}

void Manager::init(int subscriptionId, bool useAdbLog, const Options& options) {
    // From a listener: tearing down the old pipeline would join the very thread it runs on.
    if (ClientRequestManager::onWorkerThread()) {
        KEL_LOG(Error, "Manager::init(%d) refused on the worker thread", subscriptionId);
        return;
    }
    Visit visit(*this);
    std::lock_guard<std::mutex> initLock(initMutex);
    {
        std::lock_guard<std::mutex> lock(pipelineMutex);
        if (closed) {
            KEL_LOG(Error, "Manager::init(%d) refused: the library is shutting down",
                    subscriptionId);
            return;
        }
    }
    installLogWriter(useAdbLog);
    KEL_LOG(History, "Manager::init(%d)", subscriptionId);
    if (options.anyOn()) {
        KEL_LOG(History, "Manager::init options: %s", options.dump().c_str());
    }
    // The new pipeline is up before the old one is torn down; the brief overlap is deliberate.
    auto fresh = std::make_unique<ClientRequestManager>(subscriptionId, options, notifier.get());
    std::unique_ptr<ClientRequestManager> previous;
    {
        std::lock_guard<std::mutex> lock(pipelineMutex);
        link = fresh->getLink();
        previous = std::exchange(clientRequestManager, std::move(fresh));
    }
    // Outside pipelineMutex: calls still inside the old pipeline must be able to leave.
    previous.reset();
    if (this == processInstance) {
        // The process-wide Manager is destroyed at exit after everything constructed later, the
        // modem library's own state included, yet its pipeline still releases modem clients.
        // Registered once that state exists, this handler runs before it is destroyed.
        static std::once_flag exitHandler;
        std::call_once(exitHandler, [] { std::atexit([] { Manager::getInstance().shutDown(); }); });
    }
}

std::shared_ptr<IProfileKey> Manager::addProfile(const AddProfileParams& params) {
    Call call(*this, "addProfile");
    if (!call) {
        return nullptr;
    }
    auto response =
        roundTrip<AddResponse>(call.pipeline(), "addProfile", std::make_shared<AddRequest>(params),
                               "Unable to cast to AddResponse");
    // The status is not consulted: a failed add comes back as an empty key.
    return response ? response->getAddProfileKey() : nullptr;
}

bool Manager::modifyProfile(const ModifyProfileParams& params, std::shared_ptr<IProfileKey> key) {
    Call call(*this, "modifyProfile");
    if (!call) {
        return false;
    }
    auto response = roundTrip<ModifyResponse>(call.pipeline(), "modifyProfile",
                                              std::make_shared<ModifyRequest>(params, key),
                                              "Unable to cast to ModifyResponse");
    return response && response->getStatus() == Status::Success;
}

bool Manager::deleteProfile(std::shared_ptr<IProfileKey> key) {
    Call call(*this, "deleteProfile");
    if (!call) {
        return false;
    }
    auto response = roundTrip<DeleteResponse>(call.pipeline(), "deleteProfile",
                                              std::make_shared<DeleteRequest>(key),
                                              "Unable to cast to DeleteResponse");
    return response && response->getStatus() == Status::Success;
}

std::list<std::shared_ptr<IProfileKey>> Manager::filter(const FilterProfileParams& params) {
    Call call(*this, "filter");
    if (!call) {
        return {};
    }
    auto response = roundTrip<FilterResponse>(call.pipeline(), "filter",
                                              std::make_shared<FilterRequest>(params),
                                              "Unable to cast to FilterResponse");
    // The status is not consulted: a failed filter comes back as an empty list.
    return response ? response->getFilterResult() : std::list<std::shared_ptr<IProfileKey>>();
}

std::optional<ProfileParams> Manager::getProfile(std::shared_ptr<IProfileKey> key) {
    Call call(*this, "getProfile");
    if (!call) {
        return std::nullopt;
    }
    // The only operation whose failed cast is reported with its own text.
    auto response = roundTrip<GetResponse>(
        call.pipeline(), "getProfile", std::make_shared<GetRequest>(key), "Error in getProfile");
    if (!response || response->getStatus() != Status::Success) {
        return std::nullopt;
    }
    return response->getParams();
}

bool Manager::match(const FilterProfileParams& params, std::shared_ptr<IProfileKey> key) {
    Call call(*this, "match");
    if (!call) {
        return false;
    }
    auto response = roundTrip<MatchResponse>(call.pipeline(), "match",
                                             std::make_shared<MatchRequest>(params, key),
                                             "Unable to cast to MatchResponse");
    // The status is not consulted: a failed match comes back as false.
    return response && response->getMatchResult();
}

void Manager::refresh(PDCRefreshStatus status) {
    Call call(*this, "refresh");
    if (!call) {
        return;
    }
    auto response = roundTrip<RefreshResponse>(call.pipeline(), "refresh",
                                               std::make_shared<RefreshRequest>(status),
                                               "Unable to cast to RefreshResponse");
    if (!response) {
        return;
    }
    // The response's own status is not consulted.
    if (status != PDCRefreshStatus::Started) {
        KEL_LOG(Info, "KEL refresh completed");
    } else {
        KEL_LOG(Info, "KEL refresh started");
    }
}

Outcome Manager::lastOutcome() {
    return threadOutcome;
}

std::vector<std::string> Manager::dump() {
    std::vector<std::string> lines;
    if (Call call(*this, nullptr); call) {
        lines = call.pipeline().dump();
        if (const Options& options = call.pipeline().getOptions(); options.anyOn()) {
            lines.push_back("Options: " + options.dump());
        }
    }
    lines.emplace_back();
    lines.emplace_back("Logs:");
    for (std::string& line : LocalLogBuffer::getInstance()->getLogs()) {
        lines.push_back(std::move(line));
    }
    return lines;
}

std::optional<ModemStatus> Manager::getModemStatus() {
    Call call(*this, "getModemStatus", false);
    if (!call) {
        return std::nullopt;
    }
    KEL_LOG(History, "Manager::getModemStatus > ");
    ModemStatus status = call.pipeline().getModemStatus();
    KEL_LOG(History, "Manager::getModemStatus < %s", status.dump().c_str());
    return status;
}

// The notifier outlives every pipeline, so neither needs one; the visit keeps the Manager.
bool Manager::addObserver(std::shared_ptr<ModemObserver> observer) {
    Visit visit(*this);
    return notifier->add(std::move(observer));
}

bool Manager::removeObserver(const std::shared_ptr<ModemObserver>& observer) {
    Visit visit(*this);
    return notifier->remove(observer);
}

bool Manager::waitForModem(std::chrono::milliseconds timeout) {
    Call call(*this, "waitForModem", false);
    if (!call) {
        return false;
    }
    KEL_LOG(History, "Manager::waitForModem > %lld ms", static_cast<long long>(timeout.count()));
    const bool ready = call.pipeline().waitForModem(timeout);
    KEL_LOG(History, "Manager::waitForModem < %s", ready ? "true" : "false");
    return ready;
}

}  // namespace kel
