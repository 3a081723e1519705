#include "VexWire.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>

extern const vex_service_object wdsServiceObjectV01;

namespace vexwire {
namespace {

void putU32(uint8_t* at, uint32_t value) {
    std::memcpy(at, &value, sizeof value);
}
uint32_t getU32(const uint8_t* at) {
    uint32_t value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

bool validKind(uint8_t kind) {
    return kind >= static_cast<uint8_t>(FrameKind::Hello) &&
           kind <= static_cast<uint8_t>(FrameKind::Indication);
}

bool fillAddress(const std::string& path, sockaddr_un* addr) {
    std::memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr->sun_path) {
        return false;
    }
    std::memcpy(addr->sun_path, path.c_str(), path.size() + 1);
    return true;
}

}  // namespace

std::vector<uint8_t> encodeFrame(const FrameHeader& header, const void* payload, size_t length) {
    std::vector<uint8_t> out(kHeaderLen + length);
    uint16_t magic = kMagic;
    std::memcpy(out.data(), &magic, sizeof magic);
    out[2] = static_cast<uint8_t>(header.kind);
    out[3] = static_cast<uint8_t>(header.status);
    putU32(&out[4], header.msgId);
    putU32(&out[8], header.txnId);
    putU32(&out[12], static_cast<uint32_t>(length));
    if (length > 0) {
        std::memcpy(&out[kHeaderLen], payload, length);
    }
    return out;
}

bool FrameReader::fill(int fd) {
    if (start > 0 && start == buffer.size()) {
        buffer.clear();
        start = 0;
    }
    uint8_t chunk[16 * 1024];
    // Bounded per call, so a peer that never stops writing cannot starve the caller's other work
    // or grow the buffer without limit; the rest is read on the next poll.
    for (size_t total = 0; total < 256 * 1024;) {
        ssize_t n = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (n > 0) {
            buffer.insert(buffer.end(), chunk, chunk + n);
            total += static_cast<size_t>(n);
            continue;
        }
        if (n == 0) {
            return false;
        }
        if (errno == EINTR) {
            continue;
        }
        return errno == EAGAIN || errno == EWOULDBLOCK;
    }
    return true;
}

FrameReader::Result FrameReader::next(Frame* out) {
    size_t available = buffer.size() - start;
    if (available < kHeaderLen) {
        return Result::NeedMore;
    }
    const uint8_t* at = buffer.data() + start;
    uint16_t magic;
    std::memcpy(&magic, at, sizeof magic);
    uint32_t length = getU32(at + 12);
    if (magic != kMagic || !validKind(at[2]) ||
        at[3] > static_cast<uint8_t>(FrameStatus::Rejected) || length > kMaxPayload) {
        return Result::Invalid;
    }
    if (available < kHeaderLen + length) {
        return Result::NeedMore;
    }
    out->header.kind = static_cast<FrameKind>(at[2]);
    out->header.status = static_cast<FrameStatus>(at[3]);
    out->header.msgId = getU32(at + 4);
    out->header.txnId = getU32(at + 8);
    out->header.length = length;
    out->payload.assign(at + kHeaderLen, at + kHeaderLen + length);
    start += kHeaderLen + length;
    if (start == buffer.size()) {
        buffer.clear();
        start = 0;
    } else if (start > 64 * 1024) {
        buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(start));
        start = 0;
    }
    return Result::Frame;
}

template <typename Desc>
const Desc* findById(const Desc* table, size_t count, unsigned int msgId) {
    for (size_t i = 0; i < count; ++i) {
        if (table[i].msgId == msgId) {
            return &table[i];
        }
    }
    return nullptr;
}

const vex_message_desc* findMessage(vex_idl_service_object_type service, unsigned int msgId) {
    return service == nullptr ? nullptr : findById(service->messages, service->messageCount, msgId);
}

const vex_indication_desc* findIndication(vex_idl_service_object_type service, unsigned int msgId) {
    return service == nullptr ? nullptr
                              : findById(service->indications, service->indicationCount, msgId);
}

const vex_service_object* const* knownServices(size_t* count) {
    static const vex_service_object* const services[] = {&wdsServiceObjectV01};
    *count = sizeof services / sizeof services[0];
    return services;
}

vex_client_error_type decodeIndication(const vex_indication_desc& desc, const uint8_t* buf,
                                       size_t len, void* record, size_t recordLen) {
    if (record == nullptr || recordLen != desc.recordLen || (buf == nullptr && len > 0)) {
        return VEX_ERR_BAD_MESSAGE;
    }
    std::memset(record, 0, recordLen);
    // Validate everything before expanding anything, so a rejected message leaves zeros.
    std::vector<size_t> valueAt(desc.tlvCount, SIZE_MAX);
    size_t pos = 0;
    while (pos < len) {
        if (len - pos < 3) {
            return VEX_ERR_BAD_MESSAGE;
        }
        uint8_t type = buf[pos];
        uint16_t length = static_cast<uint16_t>(buf[pos + 1] | (buf[pos + 2] << 8));
        pos += 3;
        if (length > len - pos) {
            return VEX_ERR_BAD_MESSAGE;
        }
        size_t item = desc.tlvCount;
        for (size_t i = 0; i < desc.tlvCount; ++i) {
            if (desc.tlvs[i].type == type) {
                item = i;
            }
        }
        if (item == desc.tlvCount || desc.tlvs[item].length != length ||
            valueAt[item] != SIZE_MAX) {
            return VEX_ERR_BAD_MESSAGE;  // unknown, wrongly sized or repeated item
        }
        valueAt[item] = pos;
        pos += length;
    }
    for (size_t i = 0; i < desc.tlvCount; ++i) {
        if (desc.tlvs[i].mandatory && valueAt[i] == SIZE_MAX) {
            return VEX_ERR_BAD_MESSAGE;
        }
    }
    for (size_t i = 0; i < desc.tlvCount; ++i) {
        if (valueAt[i] != SIZE_MAX) {
            desc.expand(i, buf + valueAt[i], record);
        }
    }
    return VEX_NO_ERR;
}

void appendTlv(std::vector<uint8_t>* out, uint8_t type, const void* value, uint16_t length) {
    out->push_back(type);
    out->push_back(static_cast<uint8_t>(length & 0xFF));
    out->push_back(static_cast<uint8_t>(length >> 8));
    const auto* bytes = static_cast<const uint8_t*>(value);
    out->insert(out->end(), bytes, bytes + length);
}

std::vector<uint8_t> encodeProfileChanged(uint8_t profileType, uint8_t profileIndex,
                                          uint32_t event) {
    uint8_t value[6] = {profileType,
                        profileIndex,
                        static_cast<uint8_t>(event & 0xFF),
                        static_cast<uint8_t>((event >> 8) & 0xFF),
                        static_cast<uint8_t>((event >> 16) & 0xFF),
                        static_cast<uint8_t>(event >> 24)};
    std::vector<uint8_t> out;
    appendTlv(&out, 0x10, value, sizeof value);
    return out;
}

std::string serviceDirectory() {
    const char* dir = std::getenv("VEX_SERVICE_DIR");
    if (dir != nullptr && dir[0] != '\0') {
        return dir;
    }
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && runtime[0] != '\0') {
        return std::string(runtime) + "/vex-services";
    }
    return "/tmp/vex-services-" + std::to_string(::geteuid());
}

std::string servicePath(const std::string& dir, vex_idl_service_object_type service) {
    return dir + "/" + (service != nullptr ? service->name : "");
}

namespace {

// The checks of checkServiceDirectory on an lstat result.
bool trustedDirectory(const std::string& dir, const struct stat& info, std::string* reason) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
    if (S_ISLNK(info.st_mode)) {
        *reason = dir + ": a symbolic link, not a directory";
    } else if (!S_ISDIR(info.st_mode)) {
        *reason = dir + ": not a directory";
    } else if (info.st_uid != ::geteuid()) {
        *reason = dir + ": owned by uid " + std::to_string(info.st_uid) +
                  ", not by this user (uid " + std::to_string(::geteuid()) + ")";
    } else if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        *reason = dir + ": writable by group or others (mode " + mode + ")";
    } else {
        return true;
    }
    return false;
}

bool makeParents(const std::string& dir, std::string* reason) {
    for (size_t pos = dir.find('/', 1); pos != std::string::npos; pos = dir.find('/', pos + 1)) {
        std::string part = dir.substr(0, pos);
        if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            *reason = part + ": cannot create it: " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

}  // namespace

bool checkServiceDirectory(const std::string& dir, std::string* reason, bool* missing) {
    if (missing != nullptr) {
        *missing = false;
    }
    struct stat info;
    if (dir.empty() || ::lstat(dir.c_str(), &info) != 0) {
        if (missing != nullptr) {
            *missing = !dir.empty() && (errno == ENOENT || errno == ENOTDIR);
        }
        *reason = dir + ": " + (dir.empty() ? "empty path" : std::strerror(errno));
        return false;
    }
    return trustedDirectory(dir, info, reason);
}

std::string parentDirectory(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

bool prepareServiceDirectory(const std::string& dir, std::string* reason) {
    bool missing = false;
    if (checkServiceDirectory(dir, reason, &missing)) {
        return true;
    }
    if (!missing || !makeParents(dir, reason)) {
        return false;
    }
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        *reason = dir + ": cannot create it: " + std::strerror(errno);
        return false;
    }
    // The umask may have taken bits away; the owner needs them all, nobody else any.
    UniqueFd created(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat made;
    if (created && ::fstat(created.get(), &made) == 0 && made.st_uid == ::geteuid()) {
        ::fchmod(created.get(), 0700);
    }
    return checkServiceDirectory(dir, reason);
}

void removeStaleSocket(const std::string& dir, const std::string& name) {
    UniqueFd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info;
    if (dirFd && ::fstatat(dirFd.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISSOCK(info.st_mode)) {
        ::unlinkat(dirFd.get(), name.c_str(), 0);
    }
}

bool peerUid(int fd, uid_t* uid, pid_t* pid) {
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof cred) {
        return false;
    }
    *uid = cred.uid;
    if (pid != nullptr) {
        *pid = cred.pid;
    }
    return true;
}

bool trustedUid(uid_t uid) {
    return uid == ::geteuid() || uid == 0;
}

bool servesPeer(int fd, const std::string& refusal) {
    uid_t uid = 0;
    pid_t pid = 0;
    if (peerUid(fd, &uid, &pid) && trustedUid(uid)) {
        return true;
    }
    std::fprintf(stderr, "%s from uid %u (pid %d): only uid %u and root are served\n",
                 refusal.c_str(), static_cast<unsigned>(uid), static_cast<int>(pid),
                 static_cast<unsigned>(::geteuid()));
    return false;
}

UniqueFd connectUnix(const std::string& path, Clock::time_point deadline, ConnectOutcome* outcome,
                     int wakeFd) {
    ConnectOutcome ignored;
    ConnectOutcome& result = outcome != nullptr ? *outcome : ignored;
    result = ConnectOutcome{};
    sockaddr_un addr;
    if (!fillAddress(path, &addr)) {
        return UniqueFd();
    }
    // Anything but "nobody there" says nothing of whether a service is up.
    auto failed = [&result] {
        result.status = ConnectStatus::Failed;
        result.error = errno;
        return UniqueFd();
    };
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        return failed();
    }
    // A UNIX-domain connect never completes later: it succeeds at once, or fails with EAGAIN
    // while the listener's accept queue is full, which is retried until the deadline.
    auto pause = std::chrono::milliseconds(1);
    for (;;) {
        if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) {
            break;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == ENOENT || errno == ECONNREFUSED || errno == ENOTDIR) {
            return UniqueFd();
        }
        if (errno != EAGAIN) {
            return failed();
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            result.status = ConnectStatus::Timeout;
            return UniqueFd();
        }
        pollfd wake{wakeFd, POLLIN, 0};
        int waitMs = static_cast<int>(std::min<long long>(pause.count(), left.count()));
        if (::poll(&wake, wakeFd >= 0 ? 1 : 0, waitMs) > 0) {
            result.status = ConnectStatus::Interrupted;
            return UniqueFd();
        }
        pause = std::min(pause * 2, std::chrono::milliseconds(50));
    }
    uid_t uid = 0;
    if (!peerUid(fd.get(), &uid)) {
        return failed();
    }
    if (!trustedUid(uid)) {
        result.status = ConnectStatus::UntrustedPeer;
        result.peerUid = uid;
        return UniqueFd();
    }
    result.status = ConnectStatus::Connected;
    return fd;
}

std::string untrustedPeerText(const std::string& path, uid_t peer) {
    return path + " is served by uid " + std::to_string(peer) + ", neither this user (uid " +
           std::to_string(::geteuid()) + ") nor root";
}

UniqueFd listenUnix(const std::string& path, std::string* error) {
    sockaddr_un addr;
    if (!fillAddress(path, &addr)) {
        *error = "socket path too long: " + path;
        return UniqueFd();
    }
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        *error = std::string("socket: ") + std::strerror(errno);
        return UniqueFd();
    }
    // On Linux the socket file takes the socket's own mode, less the umask: set before bind, no
    // umask can widen it, and the chmod after bind makes it exact.
    if (::fchmod(fd.get(), 0600) != 0) {
        *error = std::string("fchmod socket: ") + std::strerror(errno);
        return UniqueFd();
    }
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        *error = "bind " + path + ": " + std::strerror(errno);
        return UniqueFd();
    }
    if (::chmod(path.c_str(), 0600) != 0) {
        *error = "chmod " + path + ": " + std::strerror(errno);
        ::unlink(path.c_str());
        return UniqueFd();
    }
    if (::listen(fd.get(), 64) != 0) {
        *error = "listen " + path + ": " + std::strerror(errno);
        ::unlink(path.c_str());
        return UniqueFd();
    }
    return fd;
}

UniqueFd listenService(const std::string& dir, const std::string& name, bool* taken,
                       std::string* error) {
    *taken = false;
    const std::string path = dir + "/" + name;
    ConnectOutcome other;
    connectUnix(path, Clock::now() + std::chrono::milliseconds(500), &other);
    if (other.status == ConnectStatus::Failed) {
        *error =
            "cannot tell whether a service is up at " + path + ": " + std::strerror(other.error);
        return UniqueFd();
    }
    if (other.status != ConnectStatus::NoService) {
        *taken = true;
        return UniqueFd();
    }
    removeStaleSocket(dir, name);
    return listenUnix(path, error);
}

void logOnce(const std::string& line) {
    // A hash, not the text: nothing to destroy at exit while a library thread may still log.
    static std::mutex mu;  // guards last
    static size_t last = 0;
    size_t hash = std::hash<std::string>()(line);
    std::lock_guard<std::mutex> lock(mu);
    if (hash != last) {
        last = hash;
        std::fprintf(stderr, "%s\n", line.c_str());
    }
}

size_t writeAll(int fd, const uint8_t* data, size_t len, Clock::time_point deadline) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = ::send(fd, data + done, len - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            return done;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return done;
        }
        pollfd pfd{fd, POLLOUT, 0};
        ::poll(&pfd, 1, static_cast<int>(std::min<long long>(left.count() + 1, 60000)));
    }
    return done;
}

UniqueFd makeWakeFd() {
    return UniqueFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
}

void signalWakeFd(int fd) {
    uint64_t one = 1;
    // A full counter already means "wake up", so a failed write loses nothing.
    ssize_t ignored = ::write(fd, &one, sizeof one);
    (void)ignored;
}

void drainWakeFd(int fd) {
    uint64_t value;
    while (::read(fd, &value, sizeof value) == static_cast<ssize_t>(sizeof value)) {
    }
}

}  // namespace vexwire
