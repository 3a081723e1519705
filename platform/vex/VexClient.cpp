// The vex client library: clients and notifiers of a modem service over its UNIX-domain socket.
//
// Every handle owns one thread that reads its socket and runs its callbacks, so a caller's thread
// never runs a callback. A handle's value is an opaque number, never a pointer: a released or
// forged handle is recognised instead of being dereferenced. Its low byte names the service (its
// position in knownServices() plus one), the rest is a serial that is never reused.
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>

#include "VexWire.h"
#include "vex/vex_client.h"

namespace {

using vexwire::Clock;
using vexwire::Frame;
using vexwire::FrameHeader;
using vexwire::FrameKind;
using vexwire::FrameReader;
using vexwire::FrameStatus;
using vexwire::Role;
using vexwire::UniqueFd;

// Connecting, greeting included: a service that does not take the connection by then is not
// up, so a caller (the library's worker among them) is never held longer.
constexpr auto kConnectTimeout = std::chrono::milliseconds(1000);
constexpr auto kFirstRetry = std::chrono::milliseconds(10);
constexpr auto kLongestRetry = std::chrono::milliseconds(200);

// Connects to the service socket at path after checking its directory, and checks whom the
// service runs as. A refusal is logged once; a missing directory is only a service not yet up.
vex_client_error_type connectService(const std::string& path, Clock::time_point deadline,
                                     int wakeFd, UniqueFd* out) {
    std::string reason;
    bool missing = false;
    if (!vexwire::checkServiceDirectory(vexwire::parentDirectory(path), &reason, &missing)) {
        if (missing) {
            return VEX_ERR_NO_SERVICE;
        }
        vexwire::logOnce("vex: refusing service directory " + reason);
        return VEX_ERR_UNSAFE_DIR;
    }
    vexwire::ConnectOutcome outcome;
    *out = vexwire::connectUnix(path, deadline, &outcome, wakeFd);
    switch (outcome.status) {
        case vexwire::ConnectStatus::Connected:
            return VEX_NO_ERR;
        case vexwire::ConnectStatus::UntrustedPeer:
            vexwire::logOnce("vex: refusing the service: " +
                             vexwire::untrustedPeerText(path, outcome.peerUid));
            return VEX_ERR_PEER_REFUSED;
        case vexwire::ConnectStatus::Timeout:
            return VEX_ERR_TIMEOUT;
        case vexwire::ConnectStatus::NoService:
        case vexwire::ConnectStatus::Interrupted:
        case vexwire::ConnectStatus::Failed:
            return VEX_ERR_NO_SERVICE;
    }
    return VEX_ERR_NO_SERVICE;
}

bool sendHello(int fd, Role role, uint32_t serviceId, Clock::time_point deadline) {
    FrameHeader header;
    header.kind = FrameKind::Hello;
    header.msgId = serviceId;
    uint8_t roleByte = static_cast<uint8_t>(role);
    auto bytes = vexwire::encodeFrame(header, &roleByte, 1);
    return vexwire::writeAll(fd, bytes.data(), bytes.size(), deadline) == bytes.size();
}

// What a client and a notifier share: the handle's value, its thread and the wake-up eventfd.
// Threads: any caller thread and the handle's own thread; guarded by mu where noted.
class HandleBase {
  public:
    HandleBase(vex_idl_service_object_type serviceObj, bool isNotifierHandle)
        : service(serviceObj), notifier(isNotifierHandle), wake(vexwire::makeWakeFd()) {}
    virtual ~HandleBase() = default;
    HandleBase(const HandleBase&) = delete;
    HandleBase& operator=(const HandleBase&) = delete;

    bool ok() const { return static_cast<bool>(wake); }
    bool isNotifier() const { return notifier; }
    vex_idl_service_object_type serviceObject() const { return service; }
    void setValue(vex_client_type handleValue) { value = handleValue; }

    void startThread() {
        thread = std::thread([this] {
            loop();
            // A handle released from its own thread is kept alive until its loop is done.
            std::shared_ptr<HandleBase> last;
            {
                std::lock_guard<std::mutex> lock(mu);
                last = std::move(selfKeepAlive);
            }
        });
    }

    // Stops the thread; once this returns, no callback of the handle runs (other than one that
    // is the caller itself). self is the registry's reference, handed to the thread when the
    // handle is released from within its own callback.
    void stopThread(std::shared_ptr<HandleBase> self) {
        {
            std::lock_guard<std::mutex> lock(mu);
            closing = true;
        }
        cv.notify_all();
        onClosing();
        vexwire::signalWakeFd(wake.get());
        if (!thread.joinable()) {
            return;
        }
        if (thread.get_id() == std::this_thread::get_id()) {
            {
                std::lock_guard<std::mutex> lock(mu);
                selfKeepAlive = std::move(self);
            }
            thread.detach();
        } else {
            thread.join();
        }
    }

  protected:
    virtual void loop() = 0;
    virtual void onClosing() {}

    // Waits until the wake fd or sock (when valid) is readable or timeoutMs passes.
    short waitReadable(int sock, int timeoutMs, short* sockEvents) {
        pollfd fds[2] = {{wake.get(), POLLIN, 0}, {sock, POLLIN, 0}};
        int n = ::poll(fds, sock >= 0 ? 2 : 1, timeoutMs);
        *sockEvents = 0;
        if (n <= 0) {
            return 0;
        }
        if (fds[0].revents != 0) {
            vexwire::drainWakeFd(wake.get());
        }
        if (sock >= 0) {
            *sockEvents = fds[1].revents;
        }
        return fds[0].revents;
    }

    const vex_idl_service_object_type service;
    const bool notifier;
    vex_client_type value = nullptr;  // set once, before the thread starts
    UniqueFd wake;

    std::mutex mu;  // guards closing, selfKeepAlive and the subclasses' callback state
    std::condition_variable cv;
    bool closing = false;

  private:
    std::thread thread;
    std::shared_ptr<HandleBase> selfKeepAlive;
};

// A connected client. Threads: callers of send/register/release, and its own reader thread,
// which dispatches responses to waiting senders and runs the indication and error callbacks.
class ClientHandle : public HandleBase {
  public:
    ClientHandle(vex_idl_service_object_type serviceObj, UniqueFd connected,
                 vex_client_ind_cb indicationCb, void* indicationData)
        : HandleBase(serviceObj, false),
          sock(std::move(connected)),
          indCb(indicationCb),
          indData(indicationData) {}
    ~ClientHandle() override { stopThread(nullptr); }

    vex_client_error_type registerErrorCb(vex_client_error_cb cb, void* data) {
        {
            std::lock_guard<std::mutex> lock(mu);
            errCb = cb;
            errData = data;
        }
        vexwire::signalWakeFd(wake.get());
        return VEX_NO_ERR;
    }

    vex_client_error_type send(unsigned int msgId, const void* req, unsigned int reqLen, void* resp,
                               unsigned int respLen, unsigned int timeoutMs);

  protected:
    void loop() override;
    void onClosing() override { ::shutdown(sock.get(), SHUT_RDWR); }

  private:
    struct Pending {
        bool done = false;
        FrameStatus status = FrameStatus::Ok;
        std::vector<uint8_t> payload;
    };

    void markLost() {
        {
            std::lock_guard<std::mutex> lock(mu);
            lost = true;
        }
        cv.notify_all();
        ::shutdown(sock.get(), SHUT_RDWR);
    }
    void dispatch(Frame& frame);

    UniqueFd sock;  // closed only when the handle goes, after its thread
    const vex_client_ind_cb indCb;
    void* const indData;

    // Guarded by mu.
    bool lost = false;
    vex_client_error_cb errCb = nullptr;
    void* errData = nullptr;
    bool errReported = false;
    // A sender is writing a frame: others wait (until their own deadline at most), so frames
    // stay whole on the socket.
    bool writing = false;
    uint32_t nextTxn = 1;
    std::map<uint32_t, Pending*> pending;  // senders waiting, by transaction id; borrowed
};

void ClientHandle::loop() {
    FrameReader reader;
    for (;;) {
        vex_client_error_cb cb = nullptr;
        void* cbData = nullptr;
        bool watchSocket;
        {
            std::lock_guard<std::mutex> lock(mu);
            if (closing) {
                return;
            }
            if (lost && errCb != nullptr && !errReported) {
                errReported = true;
                cb = errCb;
                cbData = errData;
            }
            watchSocket = !lost;
        }
        if (cb != nullptr) {
            cb(value, VEX_ERR_CONNECTION_LOST, cbData);
            continue;
        }
        short sockEvents;
        waitReadable(watchSocket ? sock.get() : -1, -1, &sockEvents);
        if (!watchSocket || sockEvents == 0) {
            continue;
        }
        bool open = reader.fill(sock.get());
        Frame frame;
        FrameReader::Result result = FrameReader::Result::NeedMore;
        while ((result = reader.next(&frame)) == FrameReader::Result::Frame) {
            dispatch(frame);
        }
        if (!open || result == FrameReader::Result::Invalid) {
            markLost();
        }
    }
}

void ClientHandle::dispatch(Frame& frame) {
    switch (frame.header.kind) {
        case FrameKind::Response: {
            {
                std::lock_guard<std::mutex> lock(mu);
                auto it = pending.find(frame.header.txnId);
                if (it == pending.end()) {
                    return;  // its sender gave up; never hand it to another request
                }
                it->second->done = true;
                it->second->status = frame.header.status;
                it->second->payload = std::move(frame.payload);
            }
            cv.notify_all();
            return;
        }
        case FrameKind::Indication: {
            {
                std::lock_guard<std::mutex> lock(mu);
                if (closing) {
                    return;
                }
            }
            if (indCb != nullptr) {
                indCb(value, frame.header.msgId, frame.payload.data(),
                      static_cast<unsigned int>(frame.payload.size()), indData);
            }
            return;
        }
        case FrameKind::Hello:
        case FrameKind::Request:
            return;  // a service never sends these; ignored
    }
}

vex_client_error_type ClientHandle::send(unsigned int msgId, const void* req, unsigned int reqLen,
                                         void* resp, unsigned int respLen, unsigned int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    Pending slot;
    uint32_t txn;
    {
        std::lock_guard<std::mutex> lock(mu);
        if (closing) {
            return VEX_ERR_INVALID_CLIENT;
        }
        if (lost) {
            return VEX_ERR_CONNECTION_LOST;
        }
        txn = nextTxn++;
        if (nextTxn == 0) {
            nextTxn = 1;
        }
        pending[txn] = &slot;
    }
    FrameHeader header;
    header.kind = FrameKind::Request;
    header.msgId = msgId;
    header.txnId = txn;
    auto bytes = vexwire::encodeFrame(header, req, reqLen);
    size_t written = 0;
    bool mayWrite;
    {
        std::unique_lock<std::mutex> lock(mu);
        mayWrite = cv.wait_until(lock, deadline, [&] { return !writing || closing || lost; }) &&
                   !closing && !lost;
        if (mayWrite) {
            writing = true;
        }
    }
    if (mayWrite) {
        written = vexwire::writeAll(sock.get(), bytes.data(), bytes.size(), deadline);
        {
            std::lock_guard<std::mutex> lock(mu);
            writing = false;
        }
        cv.notify_all();
    }
    if (written > 0 && written < bytes.size()) {
        markLost();  // half a frame on the stream: nothing after it could be understood
    }
    std::unique_lock<std::mutex> lock(mu);
    if (written == bytes.size()) {
        cv.wait_until(lock, deadline, [&] { return slot.done || lost || closing; });
    }
    pending.erase(txn);
    if (slot.done) {
        if (slot.status != FrameStatus::Ok || slot.payload.size() != respLen) {
            return VEX_ERR_BAD_MESSAGE;
        }
        if (respLen > 0) {
            std::memcpy(resp, slot.payload.data(), respLen);
        }
        return VEX_NO_ERR;
    }
    if (closing) {
        return VEX_ERR_INVALID_CLIENT;
    }
    if (lost) {
        return VEX_ERR_CONNECTION_LOST;
    }
    if (written < bytes.size() && Clock::now() < deadline) {
        return VEX_ERR_CONNECTION_LOST;
    }
    return VEX_ERR_TIMEOUT;
}

// A notifier. Threads: callers of register/release, and its own thread, which keeps a watch
// connection to the service while it is up and retries with a bounded back-off while it is not.
class NotifierHandle : public HandleBase {
  public:
    NotifierHandle(vex_idl_service_object_type serviceObj, std::string socketPath)
        : HandleBase(serviceObj, true), path(std::move(socketPath)) {}
    ~NotifierHandle() override { stopThread(nullptr); }

    vex_client_error_type registerNotifyCb(vex_client_notify_cb cb, void* data) {
        {
            std::lock_guard<std::mutex> lock(mu);
            notifyCb = cb;
            notifyData = data;
            pendingNotify = up;  // a new callback hears about a service that is already up
        }
        vexwire::signalWakeFd(wake.get());
        return VEX_NO_ERR;
    }

  protected:
    void loop() override;

  private:
    bool connectAndGreet();

    const std::string path;
    UniqueFd sock;  // notifier thread only

    // Guarded by mu.
    vex_client_notify_cb notifyCb = nullptr;
    void* notifyData = nullptr;
    bool up = false;
    bool pendingNotify = false;  // the service came up and the callback has not been told
};

bool NotifierHandle::connectAndGreet() {
    // The wake fd ends a wait for a full accept queue, so a release is not held up by it.
    auto deadline = Clock::now() + kConnectTimeout;
    if (connectService(path, deadline, wake.get(), &sock) != VEX_NO_ERR ||
        !sendHello(sock.get(), Role::Notifier, service->serviceId, deadline)) {
        sock.reset();
        return false;
    }
    return true;
}

void NotifierHandle::loop() {
    auto retry = kFirstRetry;
    for (;;) {
        vex_client_notify_cb cb = nullptr;
        void* cbData = nullptr;
        {
            std::lock_guard<std::mutex> lock(mu);
            if (closing) {
                return;
            }
            if (up && pendingNotify && notifyCb != nullptr) {
                pendingNotify = false;
                cb = notifyCb;
                cbData = notifyData;
            }
        }
        if (cb != nullptr) {
            cb(value, service, VEX_CLIENT_SERVICE_COUNT_INCREASING, cbData);
            continue;
        }
        short sockEvents;
        if (!sock) {
            if (connectAndGreet()) {
                std::lock_guard<std::mutex> lock(mu);
                up = true;
                pendingNotify = true;
                retry = kFirstRetry;
                continue;
            }
            waitReadable(-1, static_cast<int>(retry.count()), &sockEvents);
            retry = std::min(retry * 2, kLongestRetry);
            continue;
        }
        waitReadable(sock.get(), -1, &sockEvents);
        if (sockEvents == 0) {
            continue;
        }
        // The service sends nothing on a watch connection; whatever arrives is drained, and the
        // end of the stream means the service went down.
        uint8_t scratch[256];
        ssize_t n = ::recv(sock.get(), scratch, sizeof scratch, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
            sock.reset();
            std::lock_guard<std::mutex> lock(mu);
            up = false;
            pendingNotify = false;
        }
    }
}

// Every live handle, by value. Threads: any; guarded by mu.
struct Registry {
    std::mutex mu;  // guards handles and nextSerial
    std::unordered_map<uintptr_t, std::shared_ptr<HandleBase>> handles;
    uintptr_t nextSerial = 1;
};

Registry& registry() {
    // Never destroyed: a handle may be released from another object's destructor at exit, after
    // a function-local static would already be gone.
    alignas(Registry) static unsigned char storage[sizeof(Registry)];
    static Registry* const instance = ::new (storage) Registry();
    return *instance;
}

// Position plus one of the service in knownServices(); 0 when unknown.
uintptr_t serviceTag(vex_idl_service_object_type service) {
    size_t count;
    const vex_service_object* const* services = vexwire::knownServices(&count);
    for (size_t i = 0; i < count; ++i) {
        if (services[i] == service) {
            return i + 1;
        }
    }
    return 0;
}

vex_client_type addHandle(const std::shared_ptr<HandleBase>& handle) {
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mu);
    uintptr_t key = (reg.nextSerial++ << 8) | serviceTag(handle->serviceObject());
    reg.handles[key] = handle;
    auto value = reinterpret_cast<vex_client_type>(key);
    handle->setValue(value);
    return value;
}

std::shared_ptr<HandleBase> findHandle(vex_client_type value) {
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mu);
    auto it = reg.handles.find(reinterpret_cast<uintptr_t>(value));
    return it == reg.handles.end() ? nullptr : it->second;
}

std::shared_ptr<ClientHandle> findClient(vex_client_type value) {
    auto handle = findHandle(value);
    return handle != nullptr && !handle->isNotifier()
               ? std::static_pointer_cast<ClientHandle>(handle)
               : nullptr;
}

// The service a handle was made for, also after its release: decoding needs no connection.
vex_idl_service_object_type serviceOfHandle(vex_client_type value) {
    auto key = reinterpret_cast<uintptr_t>(value);
    size_t count;
    const vex_service_object* const* services = vexwire::knownServices(&count);
    uintptr_t tag = key & 0xFF;
    uintptr_t serial = key >> 8;
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mu);
    if (tag == 0 || tag > count || serial == 0 || serial >= reg.nextSerial) {
        return nullptr;
    }
    return services[tag - 1];
}

// Clears *userHandle first, so that a failed init leaves no stale handle with the caller.
bool validInitArguments(vex_idl_service_object_type service, vex_client_type* userHandle) {
    if (userHandle == nullptr) {
        return false;
    }
    *userHandle = nullptr;
    return service != nullptr && serviceTag(service) != 0;
}

vex_client_error_type startHandle(const std::shared_ptr<HandleBase>& handle,
                                  vex_client_type* userHandle) {
    if (!handle->ok()) {
        return VEX_ERR_INTERNAL;
    }
    *userHandle = addHandle(handle);
    handle->startThread();
    return VEX_NO_ERR;
}

}  // namespace

extern "C" {

vex_client_error_type vex_client_notifier_init(vex_idl_service_object_type service_obj,
                                               vex_client_os_params* /*os_params*/,
                                               vex_client_type* user_handle) {
    if (!validInitArguments(service_obj, user_handle)) {
        return VEX_ERR_PARAM;
    }
    auto handle = std::make_shared<NotifierHandle>(
        service_obj, vexwire::servicePath(vexwire::serviceDirectory(), service_obj));
    return startHandle(handle, user_handle);
}

vex_client_error_type vex_client_register_notify_cb(vex_client_type user_handle,
                                                    vex_client_notify_cb notify_cb,
                                                    void* notify_cb_data) {
    auto handle = findHandle(user_handle);
    if (handle == nullptr || !handle->isNotifier()) {
        return VEX_ERR_INVALID_CLIENT;
    }
    if (notify_cb == nullptr) {
        return VEX_ERR_PARAM;
    }
    return std::static_pointer_cast<NotifierHandle>(handle)->registerNotifyCb(notify_cb,
                                                                              notify_cb_data);
}

vex_client_error_type vex_client_get_any_service(vex_idl_service_object_type service_obj,
                                                 vex_service_info* service_info) {
    if (service_obj == nullptr || service_info == nullptr || serviceTag(service_obj) == 0) {
        return VEX_ERR_PARAM;
    }
    std::string path = vexwire::servicePath(vexwire::serviceDirectory(), service_obj);
    if (path.size() >= sizeof service_info->path) {
        return VEX_ERR_NO_SERVICE;
    }
    // Only a service that accepts a connection is up; a socket file left behind is not.
    UniqueFd probe;
    vex_client_error_type rc = connectService(path, Clock::now() + kConnectTimeout, -1, &probe);
    if (rc != VEX_NO_ERR) {
        return rc;
    }
    std::memset(service_info, 0, sizeof *service_info);
    service_info->service_id = service_obj->serviceId;
    service_info->instance = 0;
    std::memcpy(service_info->path, path.c_str(), path.size() + 1);
    return VEX_NO_ERR;
}

vex_client_error_type vex_client_init(vex_service_info* service_info,
                                      vex_idl_service_object_type service_obj,
                                      vex_client_ind_cb ind_cb, void* ind_cb_data,
                                      vex_client_os_params* /*os_params*/,
                                      vex_client_type* user_handle) {
    if (!validInitArguments(service_obj, user_handle)) {
        return VEX_ERR_PARAM;
    }
    std::string path;
    if (service_info != nullptr && service_info->path[0] != '\0') {
        path.assign(service_info->path, strnlen(service_info->path, sizeof service_info->path));
    } else {
        path = vexwire::servicePath(vexwire::serviceDirectory(), service_obj);
    }
    auto deadline = Clock::now() + kConnectTimeout;
    UniqueFd sock;
    vex_client_error_type rc = connectService(path, deadline, -1, &sock);
    if (rc != VEX_NO_ERR) {
        return rc;
    }
    if (!sendHello(sock.get(), Role::Client, service_obj->serviceId, deadline)) {
        return VEX_ERR_NO_SERVICE;
    }
    auto handle = std::make_shared<ClientHandle>(service_obj, std::move(sock), ind_cb, ind_cb_data);
    return startHandle(handle, user_handle);
}

vex_client_error_type vex_client_register_error_cb(vex_client_type user_handle,
                                                   vex_client_error_cb err_cb, void* err_cb_data) {
    auto client = findClient(user_handle);
    if (client == nullptr) {
        return VEX_ERR_INVALID_CLIENT;
    }
    if (err_cb == nullptr) {
        return VEX_ERR_PARAM;
    }
    return client->registerErrorCb(err_cb, err_cb_data);
}

vex_client_error_type vex_client_send_msg_sync(vex_client_type user_handle, unsigned int msg_id,
                                               void* req_c_struct, unsigned int req_c_struct_len,
                                               void* resp_c_struct, unsigned int resp_c_struct_len,
                                               unsigned int timeout_msecs) {
    if (resp_c_struct != nullptr && resp_c_struct_len > 0) {
        std::memset(resp_c_struct, 0, resp_c_struct_len);
    }
    auto client = findClient(user_handle);
    if (client == nullptr) {
        return VEX_ERR_INVALID_CLIENT;
    }
    if ((req_c_struct == nullptr && req_c_struct_len > 0) ||
        (resp_c_struct == nullptr && resp_c_struct_len > 0)) {
        return VEX_ERR_PARAM;
    }
    const vex_message_desc* desc = vexwire::findMessage(client->serviceObject(), msg_id);
    if (desc == nullptr || desc->reqLen != req_c_struct_len || desc->respLen != resp_c_struct_len) {
        return VEX_ERR_BAD_MESSAGE;
    }
    vex_client_error_type rc = client->send(msg_id, req_c_struct, req_c_struct_len, resp_c_struct,
                                            resp_c_struct_len, timeout_msecs);
    if (rc != VEX_NO_ERR && resp_c_struct != nullptr && resp_c_struct_len > 0) {
        std::memset(resp_c_struct, 0, resp_c_struct_len);
    }
    return rc;
}

vex_client_error_type vex_client_message_decode(vex_client_type user_handle,
                                                vex_idl_type_of_msg_type req_resp_ind,
                                                unsigned int message_id, const void* msg_buf,
                                                unsigned int msg_buf_len, void* c_struct,
                                                unsigned int c_struct_len) {
    vex_idl_service_object_type service = serviceOfHandle(user_handle);
    if (service == nullptr) {
        return VEX_ERR_INVALID_CLIENT;
    }
    if (c_struct == nullptr || (msg_buf == nullptr && msg_buf_len > 0)) {
        return VEX_ERR_PARAM;
    }
    const auto* buf = static_cast<const uint8_t*>(msg_buf);
    switch (req_resp_ind) {
        case VEX_IDL_REQUEST:
        case VEX_IDL_RESPONSE: {
            // Requests and responses travel as their records: decoding is a checked copy.
            const vex_message_desc* desc = vexwire::findMessage(service, message_id);
            uint32_t len = desc == nullptr                   ? 0
                           : req_resp_ind == VEX_IDL_REQUEST ? desc->reqLen
                                                             : desc->respLen;
            if (desc == nullptr || msg_buf_len != len || c_struct_len != len) {
                return VEX_ERR_BAD_MESSAGE;
            }
            std::memcpy(c_struct, buf, len);
            return VEX_NO_ERR;
        }
        case VEX_IDL_INDICATION: {
            const vex_indication_desc* desc = vexwire::findIndication(service, message_id);
            if (desc == nullptr) {
                return VEX_ERR_BAD_MESSAGE;
            }
            return vexwire::decodeIndication(*desc, buf, msg_buf_len, c_struct, c_struct_len);
        }
    }
    return VEX_ERR_PARAM;
}

vex_client_error_type vex_client_release(vex_client_type user_handle) {
    std::shared_ptr<HandleBase> handle;
    {
        Registry& reg = registry();
        std::lock_guard<std::mutex> lock(reg.mu);
        auto it = reg.handles.find(reinterpret_cast<uintptr_t>(user_handle));
        if (it == reg.handles.end()) {
            return VEX_ERR_INVALID_CLIENT;
        }
        handle = std::move(it->second);
        reg.handles.erase(it);
    }
    handle->stopThread(handle);
    return VEX_NO_ERR;
}

}  // extern "C"
