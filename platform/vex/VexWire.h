// What the vex client library and the simulated modem share: the service object's message tables,
// the framing on the service socket, the indication encoding and a few socket helpers.
//
// Framing. Every message on a service connection (a SOCK_STREAM UNIX-domain socket) is a 16-byte
// header followed by `length` payload bytes. Both ends run on one host, so the header's words are
// in host byte order:
//   u16 magic 0x5658, u8 kind (FrameKind), u8 status (FrameStatus), u32 message id,
//   u32 transaction id, u32 payload length (at most kMaxPayload).
// A connection opens with a Hello from the client (message id = the service id, payload one byte:
// the Role). Requests carry the request record, exactly the service's size for the message id; the
// response echoes the message id and transaction id and carries the response record, or no payload
// and status Rejected when the request was unknown or of the wrong size. Indications carry
// transaction id 0 and the encoded indication: type-length-value items, each a u8 type, a u16
// little-endian length and the value. Anything else (bad magic, unknown kind, oversized length)
// breaks the connection.
#ifndef VEX_VEX_WIRE_H
#define VEX_VEX_WIRE_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "UniqueFd.h"
#include "vex/vex_client.h"

// One request/response pair of a service: the sizes both ends check.
struct vex_message_desc {
    unsigned int msgId;
    uint32_t reqLen;
    uint32_t respLen;
};

// One item of an encoded indication.
struct vex_tlv_desc {
    uint8_t type;
    uint16_t length;
    bool mandatory;
};

// One indication of a service: its items and how they expand into the C record.
struct vex_indication_desc {
    unsigned int msgId;
    const vex_tlv_desc* tlvs;
    size_t tlvCount;
    uint32_t recordLen;
    // Writes the item of tlvs[i] (value of exactly tlvs[i].length bytes) into the zeroed record.
    void (*expand)(size_t i, const uint8_t* value, void* record);
};

struct vex_service_object {
    const char* name;  // also the name of the service socket in the service directory
    uint32_t serviceId;
    int32_t majorVersion;
    int32_t minorVersion;
    int32_t toolVersion;
    const vex_message_desc* messages;
    size_t messageCount;
    const vex_indication_desc* indications;
    size_t indicationCount;
};

namespace vexwire {

constexpr uint16_t kMagic = 0x5658;
constexpr size_t kHeaderLen = 16;
constexpr uint32_t kMaxPayload = 64 * 1024;

enum class FrameKind : uint8_t { Hello = 1, Request = 2, Response = 3, Indication = 4 };
enum class FrameStatus : uint8_t { Ok = 0, Rejected = 1 };
enum class Role : uint8_t { Client = 0, Notifier = 1 };

struct FrameHeader {
    FrameKind kind = FrameKind::Request;
    FrameStatus status = FrameStatus::Ok;
    uint32_t msgId = 0;
    uint32_t txnId = 0;
    uint32_t length = 0;
};

struct Frame {
    FrameHeader header;
    std::vector<uint8_t> payload;
};

// Header plus payload, ready to write.
std::vector<uint8_t> encodeFrame(const FrameHeader& header, const void* payload, size_t length);

// Splits a byte stream into frames. Threads: its owner's only.
class FrameReader {
  public:
    enum class Result { Frame, NeedMore, Invalid };
    // Reads what the non-blocking socket holds now; false on end of stream or a socket error.
    bool fill(int fd);
    Result next(Frame* out);

  private:
    std::vector<uint8_t> buffer;
    size_t start = 0;  // bytes before this are consumed
};

// Service tables.
const vex_message_desc* findMessage(vex_idl_service_object_type service, unsigned int msgId);
const vex_indication_desc* findIndication(vex_idl_service_object_type service, unsigned int msgId);
// Every service object this library defines, in a fixed order (a handle names its service by its
// position here).
const vex_service_object* const* knownServices(size_t* count);

// Validates an encoded indication completely and expands it into its zeroed record.
vex_client_error_type decodeIndication(const vex_indication_desc& desc, const uint8_t* buf,
                                       size_t len, void* record, size_t recordLen);
// Appends one item to an encoded indication.
void appendTlv(std::vector<uint8_t>* out, uint8_t type, const void* value, uint16_t length);
// The profile-changed indication as the modem sends it.
std::vector<uint8_t> encodeProfileChanged(uint8_t profileType, uint8_t profileIndex,
                                          uint32_t event);

// $VEX_SERVICE_DIR when set and not empty, else $XDG_RUNTIME_DIR/vex-services when that is set,
// else /tmp/vex-services-UID for the effective uid.
std::string serviceDirectory();
std::string servicePath(const std::string& dir, vex_idl_service_object_type service);

// A service directory is trusted only when it is a real directory (not a symbolic link), owned by
// the effective uid and not writable by group or others: anyone else who could create or replace
// entries in it could put an impostor's socket there. False with "DIR: reason" in *reason, and
// *missing (when given) set when there is no such directory: no service is up, none is refused.
bool checkServiceDirectory(const std::string& dir, std::string* reason, bool* missing = nullptr);
// The directory part of path: "." for a bare name, "/" for a name at the root.
std::string parentDirectory(const std::string& path);
// Creates dir (and missing parents) with mode 0700 when it is missing, then checks it.
bool prepareServiceDirectory(const std::string& dir, std::string* reason);
// Removes name in dir only when it is a socket, the leftover of a service that died; never
// follows a symbolic link, at the directory or at name.
void removeStaleSocket(const std::string& dir, const std::string& name);

// Whom a connected UNIX socket's peer runs as. Only its own uid and root are trusted, at both
// ends: a modem serves only them, and a client talks only to a modem run by them.
bool peerUid(int fd, uid_t* uid, pid_t* pid = nullptr);
bool trustedUid(uid_t uid);
// Whether a service may serve an accepted connection; when not, logs "REFUSAL from uid N (pid
// P): only uid M and root are served" on standard error.
bool servesPeer(int fd, const std::string& refusal);

using Clock = std::chrono::steady_clock;

enum class ConnectStatus {
    Connected,
    NoService,      // nobody listens at the path (or it is too long)
    Timeout,        // the service's accept queue stayed full until the deadline
    Interrupted,    // the wake fd became readable
    UntrustedPeer,  // the listener runs as another user; the connection is closed
    Failed          // this end could not try (out of descriptors, say): nothing is known
};
struct ConnectOutcome {
    ConnectStatus status = ConnectStatus::NoService;
    uid_t peerUid = 0;  // for UntrustedPeer
    int error = 0;      // for Failed: the errno
};
// A connected, non-blocking, close-on-exec stream socket to a trusted peer, or empty with the
// reason in *outcome. Never waits past the deadline: a service whose accept queue is full is
// retried with a short back-off until then. A readable wakeFd (when given) ends the wait early.
UniqueFd connectUnix(const std::string& path, Clock::time_point deadline,
                     ConnectOutcome* outcome = nullptr, int wakeFd = -1);
// "PATH is served by uid N, neither this user (uid M) nor root".
std::string untrustedPeerText(const std::string& path, uid_t peer);
// A listening, non-blocking socket at path with mode 0600 whatever the umask; empty with a
// reason in *error.
UniqueFd listenUnix(const std::string& path, std::string* error);
// Listens at dir/name for a service that starts: refused, with *taken set, while something
// answers there; the socket a dead service left behind is removed first. Empty with a reason in
// *error otherwise.
UniqueFd listenService(const std::string& dir, const std::string& name, bool* taken,
                       std::string* error);

// One line on standard error, unless it is the line printed last: a client that retries every
// few milliseconds reports a refusal once, not on every attempt.
void logOnce(const std::string& line);

// Writes everything to a non-blocking socket, waiting for room until the deadline. Returns the
// number of bytes written (less than len on timeout or a broken connection).
size_t writeAll(int fd, const uint8_t* data, size_t len, Clock::time_point deadline);

// Non-blocking, close-on-exec eventfd used to wake a thread blocked in poll.
UniqueFd makeWakeFd();
void signalWakeFd(int fd);
void drainWakeFd(int fd);

}  // namespace vexwire

#endif  // VEX_VEX_WIRE_H
