// The simulated modem: one event-loop thread serves every connection with non-blocking sockets, so
// a slow, silent or vanished client never holds up the others. All state sits under one mutex;
// changes made through the public methods queue their indications and wake the loop to send them.
//
// Who may talk to it: the socket is 0600 in a directory of the modem's own user, and a connection
// from any uid but the modem's own or root is closed at once. A connection must greet within
// kGreetingTimeout, and ungreeted connections are closed first when the table is full, so idle
// connections can never keep a client out.
#include "vexsim/SimModem.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "SafeFile.h"
#include "VexWire.h"

namespace vexsim {
namespace {

using vexwire::Clock;
using vexwire::Frame;
using vexwire::FrameHeader;
using vexwire::FrameKind;
using vexwire::FrameReader;
using vexwire::FrameStatus;
using vexwire::UniqueFd;

// A client that lets this much output pile up is not reading; it is dropped.
constexpr size_t kMaxQueuedOutput = 8 * 1024 * 1024;
constexpr size_t kMaxConnections = 256;
// A connection that has not said hello by then is not a client; it is closed.
constexpr auto kGreetingTimeout = std::chrono::milliseconds(1000);
// Accepted per turn of the loop, so that a flood of connections cannot keep the loop from reading
// the greetings of the connections before it.
constexpr int kAcceptBurst = 32;
constexpr uint8_t kAll = 0xFF;  // an event-list profile type or index that stands for all

vex_idl_service_object_type wds() {
    return wds_get_service_object_v01();
}

// 0 for 3GPP, 1 for 3GPP2, -1 for any other profile type.
int familyOf(int32_t type) {
    return type == WDS_PROFILE_TYPE_3GPP_V01 ? 0 : type == WDS_PROFILE_TYPE_3GPP2_V01 ? 1 : -1;
}

wds_profile_type_enum_v01 typeOf(int family) {
    return family == 0 ? WDS_PROFILE_TYPE_3GPP_V01 : WDS_PROFILE_TYPE_3GPP2_V01;
}

template <size_t N>
bool terminated(const char (&field)[N]) {
    return std::memchr(field, '\0', N) != nullptr;
}

bool validCommonPdp(int32_t value) {
    return (value >= WDS_COMMON_PDP_TYPE_PDP_IPV4_V01 &&
            value <= WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01) ||
           value == WDS_COMMON_PDP_TYPE_PDP_UNUSED_V01;
}

// Checks the fields of the profile's family that are marked valid; the other family's fields
// are never read.
bool validSettings(const wds_profile_settings_v01& s, int family) {
    if (family == 0) {
        return (!s.profile_name_valid || terminated(s.profile_name)) &&
               (!s.apn_name_valid || terminated(s.apn_name)) &&
               (!s.username_valid || terminated(s.username)) &&
               (!s.password_valid || terminated(s.password)) &&
               (!s.pdp_type_valid || (s.pdp_type >= WDS_PDP_TYPE_PDP_IPV4_V01 &&
                                      s.pdp_type <= WDS_PDP_TYPE_PDP_IPV4V6_V01)) &&
               (!s.authentication_preference_valid || s.authentication_preference <= 3) &&
               (!s.lte_roaming_pdp_type_valid || validCommonPdp(s.lte_roaming_pdp_type)) &&
               (!s.umts_roaming_pdp_type_valid || validCommonPdp(s.umts_roaming_pdp_type)) &&
               (!s.common_pdp_type_valid || validCommonPdp(s.common_pdp_type));
    }
    return (!s.user_id_valid || terminated(s.user_id)) &&
           (!s.auth_password_valid || terminated(s.auth_password)) &&
           (!s.apn_string_valid || terminated(s.apn_string)) &&
           (!s.pdn_level_user_id_valid || terminated(s.pdn_level_user_id)) &&
           (!s.pdn_level_auth_password_valid || terminated(s.pdn_level_auth_password)) &&
           (!s.pdn_type_valid || (s.pdn_type >= WDS_PROFILE_PDN_TYPE_IPV4_V01 &&
                                  s.pdn_type <= WDS_PROFILE_PDN_TYPE_UNSPECIFIED_V01)) &&
           (!s.profile_auth_protocol_valid ||
            (s.profile_auth_protocol >= 0 && s.profile_auth_protocol <= 3)) &&
           (!s.pdn_level_auth_protocol_valid ||
            (s.pdn_level_auth_protocol >= 0 && s.pdn_level_auth_protocol <= 3));
}

#define VEXSIM_TAKE(field)                                     \
    if (src.field##_valid) {                                   \
        dst.field##_valid = 1;                                 \
        std::memcpy(&dst.field, &src.field, sizeof dst.field); \
    }
// 0xFF is the modem's "no setting": writing it clears the field.
#define VEXSIM_TAKE_PDP(field)                                                      \
    if (src.field##_valid) {                                                        \
        dst.field##_valid = src.field != WDS_COMMON_PDP_TYPE_PDP_UNUSED_V01;        \
        dst.field = dst.field##_valid ? src.field : wds_common_pdp_type_enum_v01{}; \
    }

// Takes the valid fields of src that a profile of this family holds. Persistence is not a
// setting: the table entry keeps it.
void applySettings(wds_profile_settings_v01& dst, const wds_profile_settings_v01& src, int family) {
    if (family == 0) {
        VEXSIM_TAKE(profile_name)
        VEXSIM_TAKE(pdp_type)
        VEXSIM_TAKE(apn_name)
        VEXSIM_TAKE(username)
        VEXSIM_TAKE(password)
        VEXSIM_TAKE(authentication_preference)
        VEXSIM_TAKE(apn_disabled_flag)
        VEXSIM_TAKE(apn_class)
        VEXSIM_TAKE(support_emergency_calls)
        VEXSIM_TAKE(max_pdn_conn_per_block)
        VEXSIM_TAKE(max_pdn_conn_timer)
        VEXSIM_TAKE(pdn_req_wait_interval)
        VEXSIM_TAKE_PDP(lte_roaming_pdp_type)
        VEXSIM_TAKE_PDP(umts_roaming_pdp_type)
        VEXSIM_TAKE_PDP(common_pdp_type)
    } else {
        VEXSIM_TAKE(user_id)
        VEXSIM_TAKE(auth_password)
        VEXSIM_TAKE(profile_auth_protocol)
        VEXSIM_TAKE(apn_string)
        VEXSIM_TAKE(pdn_type)
        VEXSIM_TAKE(apn_class_3gpp2)
        VEXSIM_TAKE(pdn_level_user_id)
        VEXSIM_TAKE(pdn_level_auth_password)
        VEXSIM_TAKE(pdn_level_auth_protocol)
    }
    VEXSIM_TAKE(apn_type_mask)
    VEXSIM_TAKE(clat_enabled)
}

#undef VEXSIM_TAKE
#undef VEXSIM_TAKE_PDP

// What get-settings reports: the stored fields, the persistence, and for 3GPP both roaming PDP
// types always (0xFF when the profile has none, which a client reads as "no setting").
wds_profile_settings_v01 reportedSettings(const Profile& profile) {
    wds_profile_settings_v01 s = profile.settings;
    s.persistent_valid = 1;
    s.persistent = profile.persistent ? 1 : 0;
    if (profile.type == WDS_PROFILE_TYPE_3GPP_V01) {
        if (!s.lte_roaming_pdp_type_valid) {
            s.lte_roaming_pdp_type_valid = 1;
            s.lte_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_UNUSED_V01;
        }
        if (!s.umts_roaming_pdp_type_valid) {
            s.umts_roaming_pdp_type_valid = 1;
            s.umts_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_UNUSED_V01;
        }
    }
    return s;
}

template <typename T>
T recordFrom(const std::vector<uint8_t>& payload) {
    T record;
    std::memcpy(&record, payload.data(), sizeof record);
    return record;
}

template <typename T>
std::vector<uint8_t> bytesOf(const T& record) {
    const auto* at = reinterpret_cast<const uint8_t*>(&record);
    return std::vector<uint8_t>(at, at + sizeof record);
}

// A response of respLen zero bytes but for the result words at its start.
std::vector<uint8_t> resultResponse(size_t respLen, int error) {
    std::vector<uint8_t> out(respLen, 0);
    vex_response_type_v01 result{
        error == VEX_ERR_NONE_V01 ? VEX_RESULT_SUCCESS_V01 : VEX_RESULT_FAILURE_V01, error};
    std::memcpy(out.data(), &result, sizeof result);
    return out;
}

struct EventFilter {
    int32_t type;
    uint8_t index;
};

// One connection. Touched by the loop thread, and by other threads under the modem's mutex.
struct Connection {
    Connection(UniqueFd socket, int id, Clock::time_point greetingDeadline)
        : fd(std::move(socket)), greetBy(greetingDeadline) {
        info.id = id;
    }

    UniqueFd fd;
    ClientInfo info;
    Clock::time_point greetBy;
    bool greeted = false;  // its Hello arrived; only then is it a client
    bool doomed = false;   // to be closed by the loop
    FrameReader reader;
    std::vector<uint8_t> out;
    size_t outStart = 0;
    std::deque<std::pair<Clock::time_point, std::vector<uint8_t>>> delayed;
    std::vector<EventFilter> events;
    bool reportEvents = true;
};

// A profile-changed indication waiting to be fanned out.
struct Notice {
    int subscription;
    int32_t type;
    uint8_t index;
    int32_t event;
    bool aboutProfile;  // create, modify or delete: filtered by each client's event list
    int onlyClient;     // 0: every client that hears it
};

using Table = std::map<uint8_t, Profile>;

}  // namespace

// Threads: the loop thread, and any caller of the public methods; all state is under mu.
struct SimModem::Impl {
    explicit Impl(Config cfg)
        : config(std::move(cfg)), readyOnRegister(config.profilesReadyOnRegister) {}

    // Loop thread.
    void loop();
    void acceptAll();
    void admit(UniqueFd fd);
    void closeUngreeted();
    void serve(Connection& conn);
    void handleFrame(Connection& conn, Frame& frame);
    void handleRequest(Connection& conn, const Frame& frame);
    std::vector<uint8_t> answer(Connection& conn, unsigned int msgId,
                                const std::vector<uint8_t>& payload);
    // One per message: the link's own messages change conn, the profile messages the tables.
    std::vector<uint8_t> answerBind(Connection& conn, const std::vector<uint8_t>& payload);
    std::vector<uint8_t> answerIndicationRegister(Connection& conn,
                                                  const std::vector<uint8_t>& payload);
    std::vector<uint8_t> answerEventList(Connection& conn, const std::vector<uint8_t>& payload);
    std::vector<uint8_t> answerCreate(int sub, const std::vector<uint8_t>& payload);
    std::vector<uint8_t> answerModify(int sub, const std::vector<uint8_t>& payload);
    std::vector<uint8_t> answerDelete(int sub, const std::vector<uint8_t>& payload);
    std::vector<uint8_t> answerProfileList(int sub, const std::vector<uint8_t>& payload);
    std::vector<uint8_t> answerSettings(int sub, const std::vector<uint8_t>& payload);
    void releaseDueResponses();
    void flush(Connection& conn);
    int pollTimeoutMs() const;

    // Under mu.
    Table& table(int subscription, int family) {
        return tables[static_cast<size_t>(subscription)][static_cast<size_t>(family)];
    }
    const Table& table(int subscription, int family) const {
        return tables[static_cast<size_t>(subscription)][static_cast<size_t>(family)];
    }
    int capacity(int family) const {
        return family == 0 ? config.capacity3gpp : config.capacity3gpp2;
    }
    int lowestFree(const Table& t, int family) const;
    int subscriptionOf(const Connection& conn) const {
        return conn.info.bound ? conn.info.subscription : 0;
    }
    bool validSubscription(int subscription) const {
        return subscription >= 0 && subscription < static_cast<int>(tables.size());
    }
    int create(int subscription, int family, const wds_profile_settings_v01& settings,
               bool persistent, uint8_t* index);
    int modify(int subscription, int family, int index, const wds_profile_settings_v01& changes);
    int remove(int subscription, int family, int index);
    void checkRegistration(Connection& conn);
    void deliverNotices();
    bool hears(const Connection& conn, const Notice& notice) const;
    void queueFrame(Connection& conn, std::vector<uint8_t> bytes);
    void queueIndication(Connection& conn, unsigned int msgId, const std::vector<uint8_t>& payload);
    void broadcastRaw(int subscription, unsigned int msgId, const std::vector<uint8_t>& payload);
    bool load(std::string* error);
    bool place(std::vector<Profile>& parsed, std::string* error);
    bool saveState(std::string* error);
    void saveStateOrLog();
    void wake() const {
        if (wakeFd) {
            vexwire::signalWakeFd(wakeFd.get());
        }
    }
    void bump() {
        {
            std::lock_guard<std::mutex> lock(versionMu);
            ++version;
        }
        versionCv.notify_all();
    }

    const Config config;

    mutable std::mutex mu;                     // guards everything below but the version counter
    std::vector<std::array<Table, 2>> tables;  // per subscription: 3GPP, 3GPP2
    bool loaded = false;
    bool up = false;
    bool stopping = false;
    std::string dir;
    std::string socketPath;
    UniqueFd listenFd;
    UniqueFd wakeFd;
    std::map<int, std::unique_ptr<Connection>> connections;  // by client id
    int nextClientId = 1;
    std::vector<Notice> notices;
    bool readyOnRegister;
    int failCount = 0;
    int loseCount = 0;  // profile-changed notices still to be lost
    uint32_t overstatedListLength = 0;
    std::optional<unsigned int> failMsgId;
    int failError = VEX_ERR_INTERNAL_V01;
    std::chrono::milliseconds delay{0};
    std::optional<unsigned int> delayMsgId;
    std::thread loopThread;  // started by start(), joined by stop()

    std::mutex versionMu;  // guards version
    std::condition_variable versionCv;
    uint64_t version = 0;
};

int SimModem::Impl::lowestFree(const Table& t, int family) const {
    for (int index = 1; index <= capacity(family) && index <= 255; ++index) {
        if (t.count(static_cast<uint8_t>(index)) == 0) {
            return index;
        }
    }
    return 0;
}

int SimModem::Impl::create(int subscription, int family, const wds_profile_settings_v01& settings,
                           bool persistent, uint8_t* index) {
    if (!validSettings(settings, family)) {
        return VEX_ERR_INVALID_ARG_V01;
    }
    Table& t = table(subscription, family);
    int free = lowestFree(t, family);
    if (free == 0) {
        return VEX_ERR_NO_MEMORY_V01;
    }
    Profile profile;
    profile.subscription = subscription;
    profile.type = typeOf(family);
    profile.index = static_cast<uint8_t>(free);
    profile.persistent = persistent;
    applySettings(profile.settings, settings, family);
    t[profile.index] = profile;
    *index = profile.index;
    // A modem reports a new profile as created and then as modified with its settings.
    notices.push_back(
        {subscription, profile.type, profile.index, WDS_PROFILE_CREATE_EVT_V01, true, 0});
    notices.push_back(
        {subscription, profile.type, profile.index, WDS_PROFILE_MODIFY_EVT_V01, true, 0});
    if (persistent) {
        saveStateOrLog();
    }
    return VEX_ERR_NONE_V01;
}

int SimModem::Impl::modify(int subscription, int family, int index,
                           const wds_profile_settings_v01& changes) {
    Table& t = table(subscription, family);
    auto it = index >= 1 && index <= 255 ? t.find(static_cast<uint8_t>(index)) : t.end();
    if (it == t.end()) {
        return VEX_ERR_INVALID_PROFILE_V01;
    }
    if (!validSettings(changes, family)) {
        return VEX_ERR_INVALID_ARG_V01;
    }
    applySettings(it->second.settings, changes, family);
    notices.push_back(
        {subscription, typeOf(family), it->first, WDS_PROFILE_MODIFY_EVT_V01, true, 0});
    if (it->second.persistent) {
        saveStateOrLog();
    }
    return VEX_ERR_NONE_V01;
}

int SimModem::Impl::remove(int subscription, int family, int index) {
    Table& t = table(subscription, family);
    auto it = index >= 1 && index <= 255 ? t.find(static_cast<uint8_t>(index)) : t.end();
    if (it == t.end()) {
        return VEX_ERR_INVALID_PROFILE_V01;
    }
    bool persistent = it->second.persistent;
    t.erase(it);
    notices.push_back({subscription, typeOf(family), static_cast<uint8_t>(index),
                       WDS_PROFILE_DELETE_EVT_V01, true, 0});
    if (persistent) {
        saveStateOrLog();
    }
    return VEX_ERR_NONE_V01;
}

void SimModem::Impl::checkRegistration(Connection& conn) {
    ClientInfo& info = conn.info;
    if (readyOnRegister && !info.profilesReadySent && info.bound && info.indicationsRegistered &&
        info.eventListConfigured) {
        info.profilesReadySent = true;
        notices.push_back({info.subscription, WDS_PROFILE_TYPE_3GPP_V01, 0,
                           WDS_PROFILES_READY_EVT_V01, false, info.id});
    }
}

bool SimModem::Impl::hears(const Connection& conn, const Notice& notice) const {
    const ClientInfo& info = conn.info;
    if (!conn.greeted || conn.doomed || info.notifierOnly || !info.bound ||
        info.subscription != notice.subscription || !info.indicationsRegistered ||
        !info.eventListConfigured || !conn.reportEvents) {
        return false;
    }
    if (notice.onlyClient != 0 && notice.onlyClient != info.id) {
        return false;
    }
    if (!notice.aboutProfile) {
        return true;
    }
    for (const EventFilter& filter : conn.events) {
        bool typeMatches = filter.type == kAll || filter.type == notice.type;
        bool indexMatches = filter.index == kAll || filter.index == notice.index;
        if (typeMatches && indexMatches) {
            return true;
        }
    }
    return false;
}

void SimModem::Impl::deliverNotices() {
    std::vector<Notice> pending;
    pending.swap(notices);
    for (const Notice& notice : pending) {
        if (loseCount > 0) {
            --loseCount;
            continue;
        }
        auto payload = vexwire::encodeProfileChanged(
            static_cast<uint8_t>(notice.type), notice.index, static_cast<uint32_t>(notice.event));
        for (auto& entry : connections) {
            if (hears(*entry.second, notice)) {
                queueIndication(*entry.second, VEX_WDS_PROFILE_CHANGED_IND_V01, payload);
            }
        }
    }
    if (!pending.empty()) {
        wake();
    }
}

void SimModem::Impl::queueFrame(Connection& conn, std::vector<uint8_t> bytes) {
    if (conn.doomed) {
        return;
    }
    conn.out.insert(conn.out.end(), bytes.begin(), bytes.end());
    if (conn.out.size() - conn.outStart > kMaxQueuedOutput) {
        conn.doomed = true;
    }
}

void SimModem::Impl::queueIndication(Connection& conn, unsigned int msgId,
                                     const std::vector<uint8_t>& payload) {
    FrameHeader header;
    header.kind = FrameKind::Indication;
    header.msgId = msgId;
    queueFrame(conn, vexwire::encodeFrame(header, payload.data(), payload.size()));
    ++conn.info.indicationsSent;
}

void SimModem::Impl::broadcastRaw(int subscription, unsigned int msgId,
                                  const std::vector<uint8_t>& payload) {
    for (auto& entry : connections) {
        Connection& conn = *entry.second;
        if (conn.greeted && !conn.doomed && !conn.info.notifierOnly && conn.info.bound &&
            conn.info.subscription == subscription && conn.info.indicationsRegistered) {
            queueIndication(conn, msgId, payload);
        }
    }
    wake();
}

// --- The loop ---

int SimModem::Impl::pollTimeoutMs() const {
    auto soonest = Clock::time_point::max();
    for (const auto& entry : connections) {
        if (!entry.second->delayed.empty()) {
            soonest = std::min(soonest, entry.second->delayed.front().first);
        }
        if (!entry.second->greeted) {
            soonest = std::min(soonest, entry.second->greetBy);
        }
    }
    if (soonest == Clock::time_point::max()) {
        return -1;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(soonest - Clock::now());
    return static_cast<int>(std::max<long long>(0, left.count() + 1));
}

void SimModem::Impl::loop() {
    std::vector<pollfd> fds;
    std::vector<int> ids;
    for (;;) {
        int timeoutMs;
        {
            std::lock_guard<std::mutex> lock(mu);
            if (stopping) {
                return;
            }
            fds.assign({{wakeFd.get(), POLLIN, 0}, {listenFd.get(), POLLIN, 0}});
            ids.assign({0, 0});
            for (const auto& entry : connections) {
                const Connection& conn = *entry.second;
                short events = POLLIN;
                if (conn.outStart < conn.out.size()) {
                    events |= POLLOUT;
                }
                fds.push_back({conn.fd.get(), events, 0});
                ids.push_back(entry.first);
            }
            timeoutMs = pollTimeoutMs();
        }
        ::poll(fds.data(), fds.size(), timeoutMs);
        {
            std::lock_guard<std::mutex> lock(mu);
            if (stopping) {
                return;
            }
            vexwire::drainWakeFd(wakeFd.get());
            // Greetings already waiting are read before new connections can crowd them out.
            for (size_t i = 2; i < fds.size(); ++i) {
                auto it = connections.find(ids[i]);
                if (it != connections.end() && (fds[i].revents & (POLLIN | POLLHUP | POLLERR))) {
                    serve(*it->second);
                }
            }
            closeUngreeted();
            if (fds[1].revents != 0) {
                acceptAll();
            }
            deliverNotices();
            releaseDueResponses();
            for (auto it = connections.begin(); it != connections.end();) {
                flush(*it->second);
                it = it->second->doomed ? connections.erase(it) : std::next(it);
            }
        }
        bump();
    }
}

void SimModem::Impl::acceptAll() {
    for (int i = 0; i < kAcceptBurst; ++i) {
        UniqueFd fd(::accept4(listenFd.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!fd) {
            return;
        }
        admit(std::move(fd));
    }
}

void SimModem::Impl::admit(UniqueFd fd) {
    if (!vexwire::servesPeer(fd.get(), "vexsim: refused a connection to " + socketPath)) {
        return;
    }
    if (connections.size() >= kMaxConnections) {
        // Room is made by closing the connection that has waited longest without a greeting; when
        // every connection is a client, the newcomer is the one turned away.
        auto victim = connections.end();
        for (auto it = connections.begin(); it != connections.end(); ++it) {
            const Connection& conn = *it->second;
            if (conn.doomed) {
                victim = it;
                break;
            }
            if (!conn.greeted &&
                (victim == connections.end() || conn.greetBy < victim->second->greetBy)) {
                victim = it;
            }
        }
        if (victim == connections.end()) {
            return;
        }
        connections.erase(victim);
    }
    int id = nextClientId++;
    connections[id] =
        std::make_unique<Connection>(std::move(fd), id, Clock::now() + kGreetingTimeout);
}

void SimModem::Impl::closeUngreeted() {
    auto now = Clock::now();
    for (auto& entry : connections) {
        if (!entry.second->greeted && entry.second->greetBy <= now) {
            entry.second->doomed = true;
        }
    }
}

void SimModem::Impl::serve(Connection& conn) {
    bool open = conn.reader.fill(conn.fd.get());
    Frame frame;
    FrameReader::Result result = FrameReader::Result::NeedMore;
    while (!conn.doomed && (result = conn.reader.next(&frame)) == FrameReader::Result::Frame) {
        handleFrame(conn, frame);
        deliverNotices();
    }
    if (!open || result == FrameReader::Result::Invalid) {
        conn.doomed = true;
    }
}

void SimModem::Impl::handleFrame(Connection& conn, Frame& frame) {
    if (!conn.greeted) {
        // The first frame must introduce the connection; anything else is not a vex client.
        bool hello = frame.header.kind == FrameKind::Hello && frame.payload.size() == 1 &&
                     frame.header.msgId == wds()->serviceId &&
                     frame.payload[0] <= static_cast<uint8_t>(vexwire::Role::Notifier);
        conn.greeted = hello;
        conn.doomed = !hello;
        conn.info.notifierOnly =
            hello && frame.payload[0] == static_cast<uint8_t>(vexwire::Role::Notifier);
        return;
    }
    switch (frame.header.kind) {
        case FrameKind::Request:
            if (conn.info.notifierOnly) {
                conn.doomed = true;
                return;
            }
            handleRequest(conn, frame);
            return;
        case FrameKind::Hello:
        case FrameKind::Response:
        case FrameKind::Indication:
            conn.doomed = true;  // a client never sends these once greeted
            return;
    }
}

void SimModem::Impl::handleRequest(Connection& conn, const Frame& frame) {
    unsigned int msgId = frame.header.msgId;
    ++conn.info.requestsServed;
    conn.info.lastMessageId = msgId;
    FrameHeader header;
    header.kind = FrameKind::Response;
    header.msgId = msgId;
    header.txnId = frame.header.txnId;
    const vex_message_desc* desc = vexwire::findMessage(wds(), msgId);
    if (desc == nullptr || frame.payload.size() != desc->reqLen) {
        header.status = FrameStatus::Rejected;
        queueFrame(conn, vexwire::encodeFrame(header, nullptr, 0));
        return;
    }
    std::vector<uint8_t> response;
    if (failCount > 0 && (!failMsgId || *failMsgId == msgId)) {
        --failCount;
        response = resultResponse(desc->respLen, failError);
    } else {
        response = answer(conn, msgId, frame.payload);
    }
    auto bytes = vexwire::encodeFrame(header, response.data(), response.size());
    if (delay.count() > 0 && (!delayMsgId || *delayMsgId == msgId)) {
        conn.delayed.emplace_back(Clock::now() + delay, std::move(bytes));
    } else {
        queueFrame(conn, std::move(bytes));
    }
}

std::vector<uint8_t> SimModem::Impl::answer(Connection& conn, unsigned int msgId,
                                            const std::vector<uint8_t>& payload) {
    switch (msgId) {
        case VEX_WDS_BIND_SUBSCRIPTION_REQ_V01:
            return answerBind(conn, payload);
        case VEX_WDS_INDICATION_REGISTER_REQ_V01:
            return answerIndicationRegister(conn, payload);
        case VEX_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01:
            return answerEventList(conn, payload);
        case VEX_WDS_CREATE_PROFILE_REQ_V01:
            return answerCreate(subscriptionOf(conn), payload);
        case VEX_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01:
            return answerModify(subscriptionOf(conn), payload);
        case VEX_WDS_DELETE_PROFILE_REQ_V01:
            return answerDelete(subscriptionOf(conn), payload);
        case VEX_WDS_GET_PROFILE_LIST_REQ_V01:
            return answerProfileList(subscriptionOf(conn), payload);
        case VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01:
            return answerSettings(subscriptionOf(conn), payload);
        default:
            // Every message of the service's table is answered above.
            return resultResponse(sizeof(vex_response_type_v01), VEX_ERR_NOT_SUPPORTED_V01);
    }
}

std::vector<uint8_t> SimModem::Impl::answerBind(Connection& conn,
                                                const std::vector<uint8_t>& payload) {
    ClientInfo& info = conn.info;
    auto req = recordFrom<wds_bind_subscription_req_msg_v01>(payload);
    if (!validSubscription(req.subscription)) {
        return resultResponse(sizeof(wds_bind_subscription_resp_msg_v01), VEX_ERR_INVALID_ARG_V01);
    }
    info.bound = true;
    info.subscription = req.subscription;
    checkRegistration(conn);
    return resultResponse(sizeof(wds_bind_subscription_resp_msg_v01), VEX_ERR_NONE_V01);
}

std::vector<uint8_t> SimModem::Impl::answerIndicationRegister(Connection& conn,
                                                              const std::vector<uint8_t>& payload) {
    ClientInfo& info = conn.info;
    auto req = recordFrom<wds_indication_register_req_msg_v01>(payload);
    if (req.report_profile_changed_events_valid) {
        info.indicationsRegistered = req.report_profile_changed_events != 0;
    }
    checkRegistration(conn);
    return resultResponse(sizeof(wds_indication_register_resp_msg_v01), VEX_ERR_NONE_V01);
}

std::vector<uint8_t> SimModem::Impl::answerEventList(Connection& conn,
                                                     const std::vector<uint8_t>& payload) {
    ClientInfo& info = conn.info;
    auto req = std::make_unique<wds_configure_profile_event_list_req_msg_v01>(
        recordFrom<wds_configure_profile_event_list_req_msg_v01>(payload));
    constexpr size_t respLen = sizeof(wds_configure_profile_event_list_resp_msg_v01);
    if (req->profile_event_register_valid) {
        if (req->profile_event_register_len > WDS_PROFILE_EVENT_LIST_MAX_V01) {
            return resultResponse(respLen, VEX_ERR_MALFORMED_MSG_V01);
        }
        conn.events.clear();
        for (uint32_t i = 0; i < req->profile_event_register_len; ++i) {
            conn.events.push_back({req->profile_event_register[i].profile_type,
                                   req->profile_event_register[i].profile_index});
        }
        info.eventListConfigured = !conn.events.empty();
    }
    if (req->report_profile_events_valid) {
        conn.reportEvents = req->report_profile_events != 0;
    }
    checkRegistration(conn);
    return resultResponse(respLen, VEX_ERR_NONE_V01);
}

std::vector<uint8_t> SimModem::Impl::answerCreate(int sub, const std::vector<uint8_t>& payload) {
    auto req = std::make_unique<wds_create_profile_req_msg_v01>(
        recordFrom<wds_create_profile_req_msg_v01>(payload));
    wds_create_profile_resp_msg_v01 resp{};
    int family = familyOf(req->profile_type);
    uint8_t index = 0;
    bool persistent = !req->settings.persistent_valid || req->settings.persistent != 0;
    int error = family < 0 ? VEX_ERR_INVALID_PROFILE_TYPE_V01
                           : create(sub, family, req->settings, persistent, &index);
    resp.resp = {error == VEX_ERR_NONE_V01 ? 0 : 1, error};
    if (error == VEX_ERR_NONE_V01) {
        resp.profile.profile_type = req->profile_type;
        resp.profile.profile_index = index;
    }
    return bytesOf(resp);
}

std::vector<uint8_t> SimModem::Impl::answerModify(int sub, const std::vector<uint8_t>& payload) {
    auto req = std::make_unique<wds_modify_profile_settings_req_msg_v01>(
        recordFrom<wds_modify_profile_settings_req_msg_v01>(payload));
    int family = familyOf(req->profile.profile_type);
    int error = family < 0 ? VEX_ERR_INVALID_PROFILE_TYPE_V01
                           : modify(sub, family, req->profile.profile_index, req->settings);
    return resultResponse(sizeof(wds_modify_profile_settings_resp_msg_v01), error);
}

std::vector<uint8_t> SimModem::Impl::answerDelete(int sub, const std::vector<uint8_t>& payload) {
    auto req = recordFrom<wds_delete_profile_req_msg_v01>(payload);
    int family = familyOf(req.profile.profile_type);
    int error = family < 0 ? VEX_ERR_INVALID_PROFILE_TYPE_V01
                           : remove(sub, family, req.profile.profile_index);
    return resultResponse(sizeof(wds_delete_profile_resp_msg_v01), error);
}

std::vector<uint8_t> SimModem::Impl::answerProfileList(int sub,
                                                       const std::vector<uint8_t>& payload) {
    auto req = recordFrom<wds_get_profile_list_req_msg_v01>(payload);
    auto resp = std::make_unique<wds_get_profile_list_resp_msg_v01>();
    int only = req.profile_type_valid ? familyOf(req.profile_type) : -1;
    if (req.profile_type_valid && only < 0) {
        return resultResponse(sizeof *resp, VEX_ERR_INVALID_PROFILE_TYPE_V01);
    }
    for (int family = 0; family < 2; ++family) {
        if (only >= 0 && family != only) {
            continue;
        }
        for (const auto& entry : table(sub, family)) {
            if (resp->profile_list_len >= WDS_PROFILE_LIST_MAX_V01) {
                break;
            }
            wds_profile_info_type_v01& item = resp->profile_list[resp->profile_list_len++];
            item.profile_type = typeOf(family);
            item.profile_index = entry.first;
            if (family == 0 && entry.second.settings.profile_name_valid) {
                std::memcpy(item.profile_name, entry.second.settings.profile_name,
                            sizeof item.profile_name);
            }
        }
    }
    if (overstatedListLength != 0) {
        resp->profile_list_len = overstatedListLength;
    }
    return bytesOf(*resp);
}

std::vector<uint8_t> SimModem::Impl::answerSettings(int sub, const std::vector<uint8_t>& payload) {
    auto req = recordFrom<wds_get_profile_settings_req_msg_v01>(payload);
    auto resp = std::make_unique<wds_get_profile_settings_resp_msg_v01>();
    int family = familyOf(req.profile.profile_type);
    if (family < 0) {
        return resultResponse(sizeof *resp, VEX_ERR_INVALID_PROFILE_TYPE_V01);
    }
    const Table& t = table(sub, family);
    auto it = t.find(req.profile.profile_index);
    if (it == t.end()) {
        return resultResponse(sizeof *resp, VEX_ERR_INVALID_PROFILE_V01);
    }
    resp->settings = reportedSettings(it->second);
    return bytesOf(*resp);
}

void SimModem::Impl::releaseDueResponses() {
    auto now = Clock::now();
    for (auto& entry : connections) {
        Connection& conn = *entry.second;
        while (!conn.delayed.empty() && conn.delayed.front().first <= now) {
            queueFrame(conn, std::move(conn.delayed.front().second));
            conn.delayed.pop_front();
        }
    }
}

void SimModem::Impl::flush(Connection& conn) {
    while (!conn.doomed && conn.outStart < conn.out.size()) {
        ssize_t n = ::send(conn.fd.get(), conn.out.data() + conn.outStart,
                           conn.out.size() - conn.outStart, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            conn.outStart += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        } else {
            conn.doomed = true;
        }
    }
    if (conn.outStart == conn.out.size()) {
        conn.out.clear();
        conn.outStart = 0;
    }
}

// --- Profiles from the seed and the state file ---

bool SimModem::Impl::place(std::vector<Profile>& parsed, std::string* error) {
    // Profiles with an explicit index first, so that lowest-free assignment cannot take theirs.
    for (int pass = 0; pass < 2; ++pass) {
        for (Profile& profile : parsed) {
            if ((pass == 0) != (profile.index != 0)) {
                continue;
            }
            int family = familyOf(profile.type);
            if (!validSubscription(profile.subscription)) {
                *error = "profile for subscription " + std::to_string(profile.subscription) +
                         ", but the modem has " + std::to_string(tables.size());
                return false;
            }
            Table& t = table(profile.subscription, family);
            if (profile.index == 0) {
                int free = lowestFree(t, family);
                if (free == 0) {
                    *error = "too many profiles for the table of " + formatProfile(profile);
                    return false;
                }
                profile.index = static_cast<uint8_t>(free);
            } else if (profile.index > capacity(family) || t.count(profile.index) != 0) {
                *error = "index out of range or taken: " + formatProfile(profile);
                return false;
            }
            t[profile.index] = profile;
        }
    }
    return true;
}

bool SimModem::Impl::load(std::string* error) {
    tables.assign(static_cast<size_t>(std::max(config.subscriptions, 1)), {});
    std::string text;
    std::string source;
    struct stat info;
    // Anything at the state path, a symbolic link included, is the state: it is read (and
    // refused when it is not a regular file), never silently replaced by the seed.
    bool fromState = !config.stateFile.empty() && ::lstat(config.stateFile.c_str(), &info) == 0;
    std::string why;
    if (fromState) {
        source = "state file " + config.stateFile;
        if (!readRegularFile(config.stateFile, false, kMaxProfileFileBytes, &text, &why)) {
            *error = "cannot read the state file " + why;
            return false;
        }
    } else if (!config.seedFile.empty()) {
        source = "seed file " + config.seedFile;
        if (!readRegularFile(config.seedFile, true, kMaxProfileFileBytes, &text, &why)) {
            *error = "cannot read the seed file " + why;
            return false;
        }
    } else {
        source = "seed";
        text = config.seedText;
    }
    std::vector<Profile> parsed;
    if (!parseProfiles(text, &parsed, &why) || !place(parsed, &why)) {
        *error = source + ": " + why;
        tables.clear();
        return false;
    }
    // From now on the state file is the modem's memory: the seed's non-persistent profiles do not
    // come back with the next process. A modem that cannot keep it does not come up.
    if (!fromState && !saveState(&why)) {
        *error = "cannot write the state file " + why;
        tables.clear();
        return false;
    }
    return true;
}

bool SimModem::Impl::saveState(std::string* error) {
    if (config.stateFile.empty()) {
        return true;
    }
    std::string text = "# Persistent profiles of the simulated modem, rewritten on every change.\n";
    for (const auto& subscription : tables) {
        for (const Table& t : subscription) {
            for (const auto& entry : t) {
                if (entry.second.persistent) {
                    text += formatProfile(entry.second) + "\n";
                }
            }
        }
    }
    return replaceFile(config.stateFile, text, error);
}

void SimModem::Impl::saveStateOrLog() {
    // The change stands in memory either way; the next successful save writes it.
    std::string why;
    if (!saveState(&why)) {
        std::fprintf(stderr, "vexsim: cannot save the state file %s\n", why.c_str());
    }
}

// --- Public interface ---

SimModem::SimModem(Config config) : impl(std::make_unique<Impl>(std::move(config))) {}

SimModem::~SimModem() {
    stop();
}

bool SimModem::start(std::string* error) {
    std::string why;
    bool ok = [&] {
        std::lock_guard<std::mutex> lock(impl->mu);
        if (impl->up) {
            return true;
        }
        if (impl->config.subscriptions < 1 || impl->config.capacity3gpp < 1 ||
            impl->config.capacity3gpp2 < 1 || impl->config.capacity3gpp > 255 ||
            impl->config.capacity3gpp2 > 255) {
            why = "subscriptions and capacities must be at least 1 (capacities at most 255)";
            return false;
        }
        impl->dir =
            impl->config.serviceDir.empty() ? vexwire::serviceDirectory() : impl->config.serviceDir;
        // First, so that a state file kept in the service directory can be written on the load.
        if (!vexwire::prepareServiceDirectory(impl->dir, &why)) {
            why = "refusing service directory " + why;
            return false;
        }
        if (!impl->loaded && !impl->load(&why)) {
            return false;
        }
        impl->loaded = true;
        impl->socketPath = vexwire::servicePath(impl->dir, wds());
        bool taken = false;
        impl->listenFd = vexwire::listenService(impl->dir, wds()->name, &taken, &why);
        if (taken) {
            why = "a service is already up at " + impl->socketPath;
            return false;
        }
        impl->wakeFd = vexwire::makeWakeFd();
        if (!impl->listenFd || !impl->wakeFd) {
            why = why.empty() ? "cannot create an eventfd" : why;
            impl->listenFd.reset();
            impl->wakeFd.reset();
            return false;
        }
        impl->stopping = false;
        impl->up = true;
        impl->loopThread = std::thread([this] { impl->loop(); });
        return true;
    }();
    if (!ok && error != nullptr) {
        *error = why;
    }
    impl->bump();
    return ok;
}

void SimModem::stop() {
    std::thread loop;
    {
        std::lock_guard<std::mutex> lock(impl->mu);
        if (!impl->up) {
            return;
        }
        impl->stopping = true;
        impl->wake();
        loop = std::move(impl->loopThread);
    }
    if (loop.joinable()) {
        loop.join();
    }
    {
        std::lock_guard<std::mutex> lock(impl->mu);
        // The service goes before its clients are cut off, as a modem's does: a client that
        // reconnects the moment its connection drops finds nothing to connect to.
        impl->listenFd.reset();
        vexwire::removeStaleSocket(impl->dir, wds()->name);
        impl->connections.clear();
        impl->notices.clear();
        impl->wakeFd.reset();
        impl->up = false;
        for (auto& subscription : impl->tables) {
            for (Table& t : subscription) {
                for (auto it = t.begin(); it != t.end();) {
                    it = it->second.persistent ? std::next(it) : t.erase(it);
                }
            }
        }
    }
    impl->bump();
}

bool SimModem::isUp() const {
    std::lock_guard<std::mutex> lock(impl->mu);
    return impl->up;
}

std::string SimModem::serviceDir() const {
    std::lock_guard<std::mutex> lock(impl->mu);
    if (!impl->dir.empty()) {
        return impl->dir;
    }
    return impl->config.serviceDir.empty() ? vexwire::serviceDirectory() : impl->config.serviceDir;
}

void SimModem::failNext(int count, std::optional<unsigned int> msgId, int error) {
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->failCount = std::max(count, 0);
    impl->failMsgId = msgId;
    impl->failError = error;
}

void SimModem::loseNextIndications(int count) {
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->loseCount = std::max(count, 0);
}

void SimModem::overstateProfileLists(uint32_t count) {
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->overstatedListLength = count;
}

void SimModem::setResponseDelay(std::chrono::milliseconds delay,
                                std::optional<unsigned int> msgId) {
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->delay = std::max(delay, std::chrono::milliseconds(0));
    impl->delayMsgId = msgId;
}

bool SimModem::dropClient(int clientId) {
    std::lock_guard<std::mutex> lock(impl->mu);
    auto it = impl->connections.find(clientId);
    if (it == impl->connections.end() || !it->second->greeted || it->second->doomed) {
        return false;
    }
    it->second->doomed = true;
    // The loop closes it; shutting it down now makes the client see the loss at once.
    ::shutdown(it->second->fd.get(), SHUT_RDWR);
    impl->wake();
    return true;
}

void SimModem::setProfilesReadyOnRegister(bool enabled) {
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->readyOnRegister = enabled;
}

std::optional<uint8_t> SimModem::createProfile(int subscription, wds_profile_type_enum_v01 type,
                                               const wds_profile_settings_v01& settings,
                                               bool persistent) {
    std::optional<uint8_t> result;
    {
        std::lock_guard<std::mutex> lock(impl->mu);
        int family = familyOf(type);
        uint8_t index = 0;
        if (!impl->loaded || family < 0 || !impl->validSubscription(subscription) ||
            impl->create(subscription, family, settings, persistent, &index) != VEX_ERR_NONE_V01) {
            return std::nullopt;
        }
        impl->deliverNotices();
        result = index;
    }
    impl->bump();
    return result;
}

bool SimModem::modifyProfile(int subscription, wds_profile_type_enum_v01 type, uint8_t index,
                             const wds_profile_settings_v01& changes) {
    {
        std::lock_guard<std::mutex> lock(impl->mu);
        int family = familyOf(type);
        if (!impl->loaded || family < 0 || !impl->validSubscription(subscription) ||
            impl->modify(subscription, family, index, changes) != VEX_ERR_NONE_V01) {
            return false;
        }
        impl->deliverNotices();
    }
    impl->bump();
    return true;
}

bool SimModem::deleteProfile(int subscription, wds_profile_type_enum_v01 type, uint8_t index) {
    {
        std::lock_guard<std::mutex> lock(impl->mu);
        int family = familyOf(type);
        if (!impl->loaded || family < 0 || !impl->validSubscription(subscription) ||
            impl->remove(subscription, family, index) != VEX_ERR_NONE_V01) {
            return false;
        }
        impl->deliverNotices();
    }
    impl->bump();
    return true;
}

void SimModem::announceSubscriptionChange(int subscription) {
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->notices.push_back({subscription, WDS_PROFILE_TYPE_3GPP_V01, 0,
                             WDS_PROFILE_SUBSCRIPTION_CHANGE_EVT_V01, false, 0});
    impl->deliverNotices();
}

void SimModem::announceProfilesReady(int subscription) {
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->notices.push_back(
        {subscription, WDS_PROFILE_TYPE_3GPP_V01, 0, WDS_PROFILES_READY_EVT_V01, false, 0});
    impl->deliverNotices();
}

void SimModem::sendUnknownIndication(int subscription, unsigned int msgId) {
    std::vector<uint8_t> payload;
    uint32_t value = 0x5A5A5A5A;
    vexwire::appendTlv(&payload, 0x01, &value, sizeof value);
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->broadcastRaw(subscription, msgId, payload);
}

void SimModem::sendMalformedIndication(int subscription) {
    // A profile-changed item that claims more bytes than follow it.
    std::vector<uint8_t> payload = {WDS_PROFILE_CHANGED_IND_TLV_V01, 0x20, 0x00, 0x00, 0x01};
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->broadcastRaw(subscription, VEX_WDS_PROFILE_CHANGED_IND_V01, payload);
}

void SimModem::sendEmptyIndication(int subscription) {
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->broadcastRaw(subscription, VEX_WDS_PROFILE_CHANGED_IND_V01, {});
}

void SimModem::sendIndicationBurst(int subscription, int count) {
    std::lock_guard<std::mutex> lock(impl->mu);
    if (!impl->validSubscription(subscription)) {
        return;
    }
    std::vector<std::pair<int32_t, uint8_t>> existing;
    for (int family = 0; family < 2; ++family) {
        for (const auto& entry : impl->table(subscription, family)) {
            existing.emplace_back(typeOf(family), entry.first);
        }
    }
    for (int i = 0; i < count && !existing.empty(); ++i) {
        const auto& target = existing[static_cast<size_t>(i) % existing.size()];
        impl->notices.push_back(
            {subscription, target.first, target.second, WDS_PROFILE_MODIFY_EVT_V01, true, 0});
    }
    impl->deliverNotices();
}

std::vector<Profile> SimModem::profiles(int subscription) const {
    std::lock_guard<std::mutex> lock(impl->mu);
    std::vector<Profile> out;
    if (!impl->validSubscription(subscription)) {
        return out;
    }
    for (const Table& t : impl->tables[static_cast<size_t>(subscription)]) {
        for (const auto& entry : t) {
            out.push_back(entry.second);
        }
    }
    return out;
}

std::optional<Profile> SimModem::profile(int subscription, wds_profile_type_enum_v01 type,
                                         uint8_t index) const {
    std::lock_guard<std::mutex> lock(impl->mu);
    int family = familyOf(type);
    if (family < 0 || !impl->validSubscription(subscription)) {
        return std::nullopt;
    }
    const Table& t = impl->table(subscription, family);
    auto it = t.find(index);
    return it == t.end() ? std::nullopt : std::optional<Profile>(it->second);
}

std::vector<ClientInfo> SimModem::clients() const {
    std::lock_guard<std::mutex> lock(impl->mu);
    std::vector<ClientInfo> out;
    for (const auto& entry : impl->connections) {
        if (entry.second->greeted && !entry.second->doomed) {
            out.push_back(entry.second->info);
        }
    }
    return out;
}

bool SimModem::waitUntil(const std::function<bool()>& predicate,
                         std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock<std::mutex> lock(impl->versionMu);
    for (;;) {
        uint64_t seen = impl->version;
        lock.unlock();
        if (predicate()) {
            return true;
        }
        lock.lock();
        if (!impl->versionCv.wait_until(lock, deadline, [&] { return impl->version != seen; })) {
            lock.unlock();
            return predicate();
        }
    }
}

}  // namespace vexsim
