#include "kel/Manager.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <utility>

#include "ClientRequestManager.h"
#include "LocalLogBuffer.h"
#include "kel/ClientResponse.h"

namespace kel {

namespace {

// One round trip of the facade: logs the request, submits it and logs the response (an empty
// text when there is none). The response down-cast to Response, empty (after logging
// failureText) when there is none or it is of another class.
template <typename Response>
std::shared_ptr<Response> roundTrip(ClientRequestManager& manager, const char* operation,
                                    const std::shared_ptr<ClientRequest>& request,
                                    const char* failureText) {
    KEL_LOG(History, "Manager::%s > %s", operation, request->dump().c_str());
    std::shared_ptr<ClientResponse> response = manager.processClientRequest(request);
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

Manager::Manager() {
    KEL_LOG(Debug, "kel::Manager: constructor");
}

Manager::~Manager() = default;

Manager& Manager::getInstance() {
    static Manager instance;
    processInstance.store(&instance);
    return instance;
}

void Manager::init(int subscriptionId, bool useAdbLog) {
    installLogWriter(useAdbLog);
    KEL_LOG(History, "Manager::init(%d)", subscriptionId);
    // The new pipeline is up before the old one is torn down; the brief overlap is deliberate.
    auto previous = std::make_unique<ClientRequestManager>(subscriptionId);
    clientRequestManager.swap(previous);
    if (this == processInstance) {
        // The process-wide Manager is destroyed at exit after everything constructed later, the
        // modem library's own state included, yet its pipeline still releases modem clients.
        // Registered once that state exists, this handler runs before it is destroyed.
        static std::once_flag exitHandler;
        std::call_once(exitHandler, [] {
            std::atexit([] { Manager::getInstance().clientRequestManager.reset(); });
        });
    }
}

std::shared_ptr<IProfileKey> Manager::addProfile(const AddProfileParams& params) {
    if (!clientRequestManager) {
        logNotInitialized();
        return nullptr;
    }
    auto response = roundTrip<AddResponse>(*clientRequestManager, "addProfile",
                                           std::make_shared<AddRequest>(params),
                                           "Unable to cast to AddResponse");
    // The status is not consulted: a failed add comes back as an empty key.
    return response ? response->getAddProfileKey() : nullptr;
}

bool Manager::modifyProfile(const ModifyProfileParams& params, std::shared_ptr<IProfileKey> key) {
    if (!clientRequestManager) {
        logNotInitialized();
        return false;
    }
    auto response = roundTrip<ModifyResponse>(*clientRequestManager, "modifyProfile",
                                              std::make_shared<ModifyRequest>(params, key),
                                              "Unable to cast to ModifyResponse");
    return response && response->getStatus() == Status::Success;
}

bool Manager::deleteProfile(std::shared_ptr<IProfileKey> key) {
    if (!clientRequestManager) {
        logNotInitialized();
        return false;
    }
    auto response = roundTrip<DeleteResponse>(*clientRequestManager, "deleteProfile",
                                              std::make_shared<DeleteRequest>(key),
                                              "Unable to cast to DeleteResponse");
    return response && response->getStatus() == Status::Success;
}

std::list<std::shared_ptr<IProfileKey>> Manager::filter(const FilterProfileParams& params) {
    if (!clientRequestManager) {
        logNotInitialized();
        return {};
    }
    auto response = roundTrip<FilterResponse>(*clientRequestManager, "filter",
                                              std::make_shared<FilterRequest>(params),
                                              "Unable to cast to FilterResponse");
    // The status is not consulted: a failed filter comes back as an empty list.
    return response ? response->getFilterResult() : std::list<std::shared_ptr<IProfileKey>>();
}

std::optional<ProfileParams> Manager::getProfile(std::shared_ptr<IProfileKey> key) {
    if (!clientRequestManager) {
        logNotInitialized();
        return std::nullopt;
    }
    // The only operation whose failed cast is reported with its own text.
    auto response =
        roundTrip<GetResponse>(*clientRequestManager, "getProfile",
                               std::make_shared<GetRequest>(key), "Error in getProfile");
    if (!response || response->getStatus() != Status::Success) {
        return std::nullopt;
    }
    return response->getParams();
}

bool Manager::match(const FilterProfileParams& params, std::shared_ptr<IProfileKey> key) {
    if (!clientRequestManager) {
        logNotInitialized();
        return false;
    }
    auto response = roundTrip<MatchResponse>(*clientRequestManager, "match",
                                             std::make_shared<MatchRequest>(params, key),
                                             "Unable to cast to MatchResponse");
    // The status is not consulted: a failed match comes back as false.
    return response && response->getMatchResult();
}

void Manager::refresh(PDCRefreshStatus status) {
    if (!clientRequestManager) {
        logNotInitialized();
        return;
    }
    auto response = roundTrip<RefreshResponse>(*clientRequestManager, "refresh",
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

std::vector<std::string> Manager::dump() {
    std::vector<std::string> lines;
    if (clientRequestManager) {
        lines = clientRequestManager->dump();
    }
    lines.emplace_back();
    lines.emplace_back("Logs:");
    for (std::string& line : LocalLogBuffer::getInstance()->getLogs()) {
        lines.push_back(std::move(line));
    }
    return lines;
}

}  // namespace kel
