#include "VexWdsProxy.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "DumpText.h"
#include "LocalLogBuffer.h"
#include "ModemConversions.h"

namespace kel {

namespace {

// The source-position traces are fixed texts, not __FILE__/__LINE__: log filters key on them, so
// they must not move whenever this file is edited.
constexpr const char* kSourcePath = "src/VexWdsProxy";
constexpr int kErrorCbLine = 163;
constexpr int kHandleErrorLine = 232;
constexpr const char* kIndCbSignature =
    "static void kel::VexWdsProxy::vexIndCb(vex_client_type, unsigned int, void *, unsigned "
    "int, void *)";
constexpr int kIndCbLine = 118;

// Registers for events of every profile type and index.
constexpr std::uint8_t kAllProfiles = 0xFF;
constexpr std::uint32_t kServiceMajor = 1;
constexpr std::uint32_t kServiceMinor = 247;
constexpr std::uint32_t kServiceTool = 6;

std::string eventName(ProfileChangedEvent event) {
    switch (event) {
        case ProfileChangedEvent::Create:
            return "Create";
        case ProfileChangedEvent::Delete:
            return "Delete";
        case ProfileChangedEvent::Modify:
            return "Modify";
        case ProfileChangedEvent::SubscriptionChange:
            return "SubscriptionChange";
        case ProfileChangedEvent::ProfileReady:
            return "ProfileReady";
    }
    return std::to_string(static_cast<std::int32_t>(event));
}

// Wakes the worker from a vex callback. Each callback words a failed write its own way (three
// spellings, deliberately kept: log filters match them).
void signalWorker(const EventFd& fd, const char* failureFormat) {
    const ssize_t rv = fd.signal();
    if (rv != sizeof(std::uint64_t)) {
        LogWrapper::getInstance()->log(LogLevel::Error, kLogTag, failureFormat,
                                       static_cast<int>(rv), strerror(errno));
    }
}

// What each message logs: its failure at Error, its success at the given level.
struct MessageLog {
    const char* failure;
    LogLevel successLevel;
    const char* success;
};

constexpr MessageLog kBind{"Unable send bind req message", LogLevel::Debug,
                           "VexWdsProxy bind register request successful!"};
constexpr MessageLog kIndicationRegister{"Unable send indication req message", LogLevel::Debug,
                                         "VexWdsProxy indication register request successful!"};
constexpr MessageLog kEventList{"Unable send config req message", LogLevel::Debug,
                                "VexWdsProxy config register request successful!"};
constexpr MessageLog kCreate{"Unable send VEX_WDS_CREATE_PROFILE_REQ_V01 message",
                             LogLevel::History,
                             "VexWdsProxy VEX_WDS_CREATE_PROFILE_REQ_V01 request successful!"};
constexpr MessageLog kModify{
    "Unable send VEX_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01 message", LogLevel::History,
    "VexWdsProxy VEX_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01 request successful!"};
constexpr MessageLog kDelete{"Unable send VEX_WDS_DELETE_PROFILE_REQ_V01 message",
                             LogLevel::History,
                             "VexWdsProxy VEX_WDS_DELETE_PROFILE_REQ_V01 request successful!"};
constexpr MessageLog kGetSettings{
    "Unable send VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01 message", LogLevel::History,
    "VexWdsProxy VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01 request successful!"};
constexpr MessageLog kGetList{"Unable send VEX_WDS_GET_PROFILE_LIST_REQ_V01 message",
                              LogLevel::History,
                              "VexWdsProxy VEX_WDS_GET_PROFILE_LIST_REQ_V01 request successful!"};

bool logOutcome(bool ok, const MessageLog& outcome) {
    LogWrapper::getInstance()->log(ok ? outcome.successLevel : LogLevel::Error, kLogTag, "%s",
                                   ok ? outcome.success : outcome.failure);
    return ok;
}

}  // namespace

std::string ProfileChangedInd::dump() const {
    std::string text;
    appendText(text, techType);
    text += ':';
    appendText(text, profileId);
    text += ' ';
    text += eventName(event);
    return text;
}

VexWdsProxy::VexWdsProxy(EventManager& loop, int subscription, const Options& switches)
    : eventManager(loop),
      options(switches),
      subscriptionId(subscription),
      serviceObject(
          wds_get_service_object_internal_v01(kServiceMajor, kServiceMinor, kServiceTool)),
      statusBoard(subscription, switches) {
    eventManager.addEventHandler(svcUpFd.get(), handleSvcUp, this, nullptr, EPOLLIN);
    eventManager.addEventHandler(errorFd.get(), handleError, this, nullptr, EPOLLIN);
    eventManager.addEventHandler(indFd.get(), handleIndication, this, nullptr, EPOLLIN);
    registerVexSvcUp();
    profileChangedIndCb = [](ProfileChangedInd) {
        KEL_LOG(Debug, "VexWdsProxy::no profileChangedIndCb registered!");
    };
}

VexWdsProxy::~VexWdsProxy() {
    // Released first: vex_client_release waits for a callback in flight, so none can touch the
    // eventfds once they are gone.
    if (notifierClient != nullptr) {
        vex_client_release(notifierClient);
        notifierClient = nullptr;
    }
    if (client != nullptr) {
        vex_client_release(client);
        client = nullptr;
    }
    eventManager.removeEventHandler(svcUpFd.get());
    eventManager.removeEventHandler(errorFd.get());
    eventManager.removeEventHandler(indFd.get());
}

void VexWdsProxy::registerProfileChangedInd(ProfileChangedIndCb callback) {
    profileChangedIndCb = std::move(callback);
}

void VexWdsProxy::registerVexSvcUp() {
    KEL_LOG(History, "VexWdsProxy::registerVexSvcUp");
    if (serviceObject == nullptr) {
        KEL_LOG(Error, "cannot obtain service obj, fatal error");
        return;
    }
    // A notifier left from an earlier wait would otherwise be leaked.
    if (notifierClient != nullptr) {
        vex_client_release(notifierClient);
        notifierClient = nullptr;
    }
    // Neither result is checked: a notifier that cannot be made leaves the proxy waiting, which
    // is all it could do anyway.
    osParams = vex_client_os_params{};
    vex_client_notifier_init(serviceObject, &osParams, &notifierClient);
    vex_client_register_notify_cb(notifierClient, vexNotifyCb, this);
}

void VexWdsProxy::vexNotifyCb(vex_client_type, vex_idl_service_object_type,
                              vex_client_notify_event_type event, void* data) {
    if (data == nullptr) {
        KEL_LOG(Error, "VexWdsProxy instance is null");
        return;
    }
    if (event != VEX_CLIENT_SERVICE_COUNT_INCREASING) {
        KEL_LOG(Error, "VexWdsProxy notify cb: unsupported service event");
        return;
    }
    signalWorker(static_cast<VexWdsProxy*>(data)->svcUpFd, "error in writing rv:%d, error:%s");
}

void VexWdsProxy::handleSvcUp(int fd, void* data) {
    KEL_LOG(Debug, "VexWdsProxy service is up, trying to initialize svc client");
    EventFd::drain(fd);
    if (data == nullptr) {
        KEL_LOG(Error, "VexWdsProxy instance is null");
        return;
    }
    static_cast<VexWdsProxy*>(data)->onSvcUp();
}

void VexWdsProxy::onSvcUp() {
    vex_service_info info{};
    if (vex_client_get_any_service(serviceObject, &info) != VEX_NO_ERR) {
        // The notifier stays armed, so the next service-up tries again.
        KEL_LOG(Error, "error get service.");
        return;
    }
    if (notifierClient != nullptr) {
        vex_client_release(notifierClient);
        notifierClient = nullptr;
    }
    if (client != nullptr) {
        KEL_LOG(Debug, "VexWdsProxy client is already present, so skipping client initialization.");
        return;
    }
    osParams = vex_client_os_params{};
    vex_client_error_type rc =
        vex_client_init(&info, serviceObject, vexIndCb, this, &osParams, &client);
    if (rc != VEX_NO_ERR) {
        // Without client and notifier the proxy stays disconnected from here on, unless asked
        // to wait for the service again. Each retry costs a connection attempt, bounded by the
        // client library's connect bound.
        client = nullptr;
        KEL_LOG(Error, "vex_client_init error. ErrCode : %d", rc);
        if (options.retryClientCreation) {
            registerVexSvcUp();
        }
        return;
    }
    rc = vex_client_register_error_cb(client, vexErrorCb, this);
    KEL_LOG(Debug, "vex_client_register_error_cb result: %d", rc);
    registerVexIndications();
}

void VexWdsProxy::registerVexIndications() {
    // Failures are logged one by one; each registration is still attempted. None is retried: a
    // failed bind leaves the client on the modem's default subscription, deliberately, and the
    // status is all that tells a client so.
    wds_bind_subscription_req_msg_v01 bindReq{};
    wds_bind_subscription_resp_msg_v01 bindResp{};
    bindReq.subscription = static_cast<wds_bind_subscription_enum_v01>(subscriptionId);
    const bool bound =
        logOutcome(sendSync(VEX_WDS_BIND_SUBSCRIPTION_REQ_V01, bindReq, bindResp), kBind);

    wds_indication_register_req_msg_v01 indReq{};
    wds_indication_register_resp_msg_v01 indResp{};
    indReq.report_profile_changed_events_valid = 1;
    indReq.report_profile_changed_events = 1;
    const bool indications = logOutcome(
        sendSync(VEX_WDS_INDICATION_REGISTER_REQ_V01, indReq, indResp), kIndicationRegister);

    wds_configure_profile_event_list_req_msg_v01 configReq{};
    wds_configure_profile_event_list_resp_msg_v01 configResp{};
    configReq.profile_event_register_valid = 1;
    configReq.profile_event_register_len = 1;
    configReq.profile_event_register[0].profile_type =
        static_cast<wds_profile_type_enum_v01>(kAllProfiles);
    configReq.profile_event_register[0].profile_index = kAllProfiles;
    configReq.report_profile_events_valid = 1;
    configReq.report_profile_events = 1;
    const bool events = logOutcome(
        sendSync(VEX_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01, configReq, configResp), kEventList);

    // Published only now, so that no reader sees the client without its registrations' outcome.
    statusBoard.linkUp(bound, indications && events);
}

void VexWdsProxy::vexErrorCb(vex_client_type, vex_client_error_type, void* data) {
    KEL_LOG(Debug, "%s:%d:%s", kSourcePath, kErrorCbLine, "vexErrorCb");
    if (data == nullptr) {
        KEL_LOG(Error, "VexWdsProxy NULL in vexErrorCb");
        return;
    }
    signalWorker(static_cast<VexWdsProxy*>(data)->errorFd, "error in writing rv: %d, error: %s");
}

void VexWdsProxy::handleError(int fd, void* data) {
    KEL_LOG(Debug, "%s:%d:%s", kSourcePath, kHandleErrorLine, "handleError");
    EventFd::drain(fd);
    if (data == nullptr) {
        KEL_LOG(Error, "arg is null");
        return;
    }
    static_cast<VexWdsProxy*>(data)->onModemDown();
}

void VexWdsProxy::onModemDown() {
    if (client != nullptr) {
        vex_client_release(client);
        client = nullptr;
    }
    statusBoard.linkDown();
    KEL_LOG(Info, "Handling modem down");
    registerVexSvcUp();
}

void VexWdsProxy::vexIndCb(vex_client_type handle, unsigned int msgId, void* buf, unsigned int len,
                           void* data) {
    KEL_LOG(Verbose, "%s:%d", kIndCbSignature, kIndCbLine);
    if (len == 0 || buf == nullptr || data == nullptr) {
        KEL_LOG(Error, "The ind_cb_data/ind_buf is null or ind_buf_len is %d", len);
        return;
    }
    auto* proxy = static_cast<VexWdsProxy*>(data);
    auto entry = std::make_unique<IndInfo_t>();
    entry->userHandle = handle;
    entry->msgId = msgId;
    const auto* bytes = static_cast<const std::uint8_t*>(buf);
    entry->indBuf.assign(bytes, bytes + len);
    entry->indBufLen = len;
    entry->proxy = proxy;
    {
        std::lock_guard<std::mutex> lock(proxy->indMutex);
        proxy->indQueue.push_back(std::move(entry));
    }
    ssize_t rv = proxy->indFd.signal();
    if (rv != sizeof(std::uint64_t)) {
        KEL_LOG(Error, "Error in writing rv: %d, error: %s", static_cast<int>(rv), strerror(errno));
    }
}

void VexWdsProxy::handleIndication(int fd, void* data) {
    EventFd::drain(fd);
    if (data == nullptr) {
        KEL_LOG(Error, "VexWdsProxy nullptr in handleIndication");
        return;
    }
    static_cast<VexWdsProxy*>(data)->drainIndications();
}

void VexWdsProxy::drainIndications() {
    // One wake may stand for several indications: the whole queue is handled, oldest first.
    for (;;) {
        std::unique_ptr<IndInfo_t> entry;
        {
            std::lock_guard<std::mutex> lock(indMutex);
            KEL_LOG(Debug, "VexWdsProxy: handleIndication indQueue.size[%d]",
                    static_cast<int>(indQueue.size()));
            if (indQueue.empty()) {
                return;
            }
            entry = std::move(indQueue.front());
            indQueue.pop_front();
        }
        if (!entry) {
            KEL_LOG(Error, "handleIndication: arg is null");
            return;
        }
        if (entry->msgId == VEX_WDS_PROFILE_CHANGED_IND_V01) {
            wds_profile_changed_ind_msg_v01 ind{};
            if (vex_client_message_decode(entry->userHandle, VEX_IDL_INDICATION, entry->msgId,
                                          entry->indBuf.data(), entry->indBufLen, &ind,
                                          sizeof(ind)) != VEX_NO_ERR) {
                // Deliberately stops here: the rest of the queue waits for the next wake. The
                // undecodable entry itself is dropped.
                KEL_LOG(Error, "Unable to decode the nr status ind message");
                if (options.continueAfterMalformedIndication) {
                    continue;
                }
                return;
            }
            if (ind.profile_changed_ind_valid == 0) {
                KEL_LOG(Error, "Profile changed ind TLV is not valid");
            } else {
                handleProfileChangedInd(ind.profile_changed_ind);
            }
        } else {
            KEL_LOG(Verbose, "Unknown message ID %lu received",
                    static_cast<unsigned long>(entry->msgId));
        }
    }
}

void VexWdsProxy::handleProfileChangedInd(const wds_profile_changed_ind_type_v01& ind) {
    KEL_LOG(Debug, "VexWdsProxy ProfileChangedInd received!");
    ProfileChangedInd record;
    record.techType = convertProfileType(ind.profile_type);
    record.profileId = ind.profile_index;
    // The modem numbers its events from 1; every value it does not name means "profiles
    // ready".
    const std::uint32_t event = static_cast<std::uint32_t>(ind.profile_change_evt) - 1u;
    record.event =
        event < 4u ? static_cast<ProfileChangedEvent>(event) : ProfileChangedEvent::ProfileReady;
    profileChangedIndCb(record);
}

bool VexWdsProxy::add(ModemProfile& profile) {
    wds_create_profile_req_msg_v01 req = profile.constructAddRequest();
    wds_create_profile_resp_msg_v01 resp{};
    if (!logOutcome(sendSync(VEX_WDS_CREATE_PROFILE_REQ_V01, req, resp), kCreate)) {
        return false;
    }
    profile.setProfileId(resp.profile.profile_index);
    return true;
}

bool VexWdsProxy::modify(ModemProfile& profile, TechType techType, int profileId) {
    wds_modify_profile_settings_req_msg_v01 req = profile.constructModifyRequest();
    // The explicit identity wins over whatever the profile put there.
    req.profile = convertToProfileIdentifier(techType, profileId);
    wds_modify_profile_settings_resp_msg_v01 resp{};
    return logOutcome(sendSync(VEX_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01, req, resp), kModify);
}

bool VexWdsProxy::remove(TechType techType, int profileId) {
    wds_delete_profile_req_msg_v01 req{};
    req.profile = convertToProfileIdentifier(techType, profileId);
    wds_delete_profile_resp_msg_v01 resp{};
    return logOutcome(sendSync(VEX_WDS_DELETE_PROFILE_REQ_V01, req, resp), kDelete);
}

std::shared_ptr<ModemProfile> VexWdsProxy::get(TechType techType, int profileId) {
    wds_get_profile_settings_req_msg_v01 req{};
    req.profile = convertToProfileIdentifier(techType, profileId);
    wds_get_profile_settings_resp_msg_v01 resp{};
    if (!logOutcome(sendSync(VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01, req, resp), kGetSettings)) {
        return nullptr;
    }
    // The profile is identified by what was asked for, not by anything in the response.
    const int index = req.profile.profile_index;
    switch (convertProfileType(req.profile.profile_type)) {
        case TechType::TYPE_3GPP2:
            return std::make_shared<Modem3gpp2Profile>(index, resp);
        case TechType::TYPE_3GPP:
            return std::make_shared<Modem3gppProfile>(index, resp);
    }
    KEL_LOG(Error, "VexWdsProxy invalid tech type!");
    return nullptr;
}

std::list<std::shared_ptr<ModemProfile>> VexWdsProxy::getAllProfiles(
    bool* listsRead, std::vector<ModemStatus::ProfileRef>* unread) {
    std::list<std::shared_ptr<ModemProfile>> profiles;
    if (listsRead != nullptr) {
        *listsRead = false;
    }
    if (client == nullptr) {
        return profiles;
    }
    std::uint32_t timeouts = 0;  // reads in a row that got no answer
    bool givenUp = false;
    // Both records are large; they live on this stack frame and are reused by the second pass.
    wds_get_profile_list_req_msg_v01 req{};
    wds_get_profile_list_resp_msg_v01 resp{};
    for (wds_profile_type_enum_v01 type : {WDS_PROFILE_TYPE_3GPP_V01, WDS_PROFILE_TYPE_3GPP2_V01}) {
        req.profile_type_valid = 1;
        req.profile_type = type;
        if (!logOutcome(sendSync(VEX_WDS_GET_PROFILE_LIST_REQ_V01, req, resp), kGetList)) {
            // A failed 3GPP list ends the read: 3GPP2 is not asked for.
            return profiles;
        }
        // The modem's count is not trusted beyond the record's capacity.
        std::uint32_t count = resp.profile_list_len;
        if (count > WDS_PROFILE_LIST_MAX_V01) {
            KEL_LOG(Error, "VexWdsProxy profile list length %u exceeds %d, reading %d", count,
                    WDS_PROFILE_LIST_MAX_V01, WDS_PROFILE_LIST_MAX_V01);
            count = WDS_PROFILE_LIST_MAX_V01;
        }
        for (std::uint32_t i = 0; i < count; ++i) {
            const wds_profile_info_type_v01& entry = resp.profile_list[i];
            const TechType techType = convertProfileType(entry.profile_type);
            profiles.push_back(givenUp ? nullptr : get(techType, entry.profile_index));
            if (!profiles.back() && unread != nullptr) {
                unread->push_back({techType, entry.profile_index});
            }
            // Once given up, the lists are still asked for (one message each), so the picture
            // names every profile it lacks.
            givenUp = givenUp || tooManyTimeouts(profiles.back() != nullptr, timeouts);
        }
    }
    if (listsRead != nullptr) {
        *listsRead = true;
    }
    return profiles;
}

bool VexWdsProxy::countOutcome(unsigned int msgId, vex_client_error_type rc, bool resultSuccess,
                               std::int32_t modemError) {
    const bool ok = rc == VEX_NO_ERR && resultSuccess;
    lastTimedOut = rc == VEX_ERR_TIMEOUT;
    if (ok) {
        return true;
    }
    statusBoard.countFailedMessage(rc == VEX_ERR_TIMEOUT);
    failure = Outcome{};
    failure.messageId = msgId;
    if (rc == VEX_NO_ERR) {
        failure.kind = Outcome::Kind::Refused;
        failure.modemError = static_cast<std::uint32_t>(modemError);
    } else if (rc == VEX_ERR_TIMEOUT) {
        failure.kind = Outcome::Kind::NoAnswer;
    } else {
        // No client, a lost connection, a service gone: nothing reached the modem's answer.
        failure.kind = Outcome::Kind::NoLink;
        failure.messageId = 0;
    }
    return false;
}

bool VexWdsProxy::tooManyTimeouts(bool read, std::uint32_t& timeouts) {
    timeouts = !read && lastTimedOut ? timeouts + 1 : 0;
    if (options.refreshGiveUpAfterTimeouts == 0 || timeouts < options.refreshGiveUpAfterTimeouts) {
        return false;
    }
    KEL_LOG(Error, "VexWdsProxy: %u reads in a row got no answer, the refresh reads no more",
            timeouts);
    return true;
}

Outcome VexWdsProxy::takeFailure() {
    return std::exchange(failure, Outcome{});
}

}  // namespace kel
