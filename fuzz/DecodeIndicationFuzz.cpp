// Encoded indications come from the modem's end of the service socket, so vex_client_message_decode
// must take any bytes: reject what is malformed without writing outside the record it was given,
// and accept only what the modem's own encoder makes of the record it fills in.
//
// Input: the encoded message. It is decoded as the profile-changed indication, with right and
// wrong record sizes, as an indication that does not exist, and as every WDS request and response
// (which travel as their records, so decoding them is a checked copy).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "FuzzSupport.h"
#include "VexWire.h"
#include "vex/vex_client.h"
#include "vex/wireless_data_service_v01.h"

namespace {

constexpr uint8_t kGuardByte = 0xA5;
constexpr size_t kGuardLen = 32;
constexpr size_t kLargestRecord = sizeof(wds_get_profile_list_resp_msg_v01);

constexpr unsigned int kWdsMessageIds[] = {
    VEX_WDS_INDICATION_REGISTER_REQ_V01,
    VEX_WDS_CREATE_PROFILE_REQ_V01,
    VEX_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01,
    VEX_WDS_DELETE_PROFILE_REQ_V01,
    VEX_WDS_GET_PROFILE_LIST_REQ_V01,
    VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01,
    VEX_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01,
    VEX_WDS_BIND_SUBSCRIPTION_REQ_V01,
};

// A WDS handle to decode with. Decoding needs no connection and a handle keeps naming its service
// after its release, so a notifier released at once serves for the whole run.
vex_client_type decodeHandle() {
    static const vex_client_type handle = [] {
        // The notifier's few connection attempts must not reach a modem that happens to run here.
        setenv("VEX_SERVICE_DIR", "/nonexistent/kelr-fuzz", 1);
        vex_client_os_params osParams{};
        vex_client_type notifier = nullptr;
        FUZZ_CHECK(vex_client_notifier_init(wds_get_service_object_v01(), &osParams, &notifier) ==
                   VEX_NO_ERR);
        FUZZ_CHECK(vex_client_release(notifier) == VEX_NO_ERR);
        return notifier;
    }();
    return handle;
}

// A record buffer followed by guard bytes that no decode may touch; the record part starts out
// filled with the guard byte too, to see what a decode wrote. Threads: the fuzzing thread only.
class Target {
  public:
    explicit Target(size_t recordLen) : len(recordLen), bytes(recordLen + kGuardLen, kGuardByte) {}
    void* record() { return bytes.data(); }
    unsigned int recordLen() const { return static_cast<unsigned int>(len); }
    bool guardIntact() const { return allAre(len, bytes.size(), kGuardByte); }
    bool untouched() const { return allAre(0, bytes.size(), kGuardByte); }
    bool recordCleared() const { return allAre(0, len, 0); }
    bool recordEquals(const uint8_t* data, size_t size) const {
        return size == len && (len == 0 || std::memcmp(bytes.data(), data, len) == 0);
    }

  private:
    bool allAre(size_t from, size_t to, uint8_t value) const {
        return std::all_of(bytes.data() + from, bytes.data() + to,
                           [value](uint8_t b) { return b == value; });
    }

    size_t len;
    std::vector<uint8_t> bytes;
};

vex_client_error_type decode(vex_idl_type_of_msg_type kind, unsigned int msgId, const uint8_t* data,
                             size_t size, Target& target) {
    return vex_client_message_decode(decodeHandle(), kind, msgId, data,
                                     static_cast<unsigned int>(size), target.record(),
                                     target.recordLen());
}

void checkProfileChanged(const uint8_t* data, size_t size) {
    Target target(sizeof(wds_profile_changed_ind_msg_v01));
    vex_client_error_type rc =
        decode(VEX_IDL_INDICATION, VEX_WDS_PROFILE_CHANGED_IND_V01, data, size, target);
    FUZZ_CHECK(rc == VEX_NO_ERR || rc == VEX_ERR_BAD_MESSAGE);
    FUZZ_CHECK(target.guardIntact());
    if (rc != VEX_NO_ERR) {
        // A rejected indication leaves a cleared record, never a half-expanded one.
        FUZZ_CHECK(target.recordCleared());
        return;
    }
    wds_profile_changed_ind_msg_v01 ind;
    std::memcpy(&ind, target.record(), sizeof ind);
    FUZZ_CHECK(ind.profile_changed_ind_valid == 1);
    const auto type = static_cast<int32_t>(ind.profile_changed_ind.profile_type);
    FUZZ_CHECK(type >= 0 && type <= 0xFF);  // one byte on the wire
    // The indication has one item, mandatory and given once, and nothing may trail it: whatever
    // is accepted is byte for byte what the modem encodes for the decoded record.
    std::vector<uint8_t> reencoded = vexwire::encodeProfileChanged(
        static_cast<uint8_t>(type), ind.profile_changed_ind.profile_index,
        static_cast<uint32_t>(ind.profile_changed_ind.profile_change_evt));
    FUZZ_CHECK(reencoded.size() == size && std::memcmp(reencoded.data(), data, size) == 0);
}

// A record of the wrong size, or an indication the service does not have, is refused before
// anything is written beyond the record given.
void checkRefusals(const uint8_t* data, size_t size) {
    for (size_t len : {sizeof(wds_profile_changed_ind_msg_v01) - 1,
                       sizeof(wds_profile_changed_ind_msg_v01) + 1, size_t{0}}) {
        Target target(len);
        FUZZ_CHECK(decode(VEX_IDL_INDICATION, VEX_WDS_PROFILE_CHANGED_IND_V01, data, size,
                          target) == VEX_ERR_BAD_MESSAGE);
        FUZZ_CHECK(target.guardIntact());
    }
    for (unsigned int msgId : {unsigned{VEX_WDS_CREATE_PROFILE_REQ_V01}, 0xFFFFu}) {
        Target target(sizeof(wds_profile_changed_ind_msg_v01));
        FUZZ_CHECK(decode(VEX_IDL_INDICATION, msgId, data, size, target) == VEX_ERR_BAD_MESSAGE);
        FUZZ_CHECK(target.untouched());
    }
}

// Requests and responses decode only at exactly their record size, as an exact copy.
void checkRecords(const uint8_t* data, size_t size) {
    const vex_idl_service_object_type service = wds_get_service_object_v01();
    for (unsigned int msgId : kWdsMessageIds) {
        const vex_message_desc* desc = vexwire::findMessage(service, msgId);
        FUZZ_CHECK(desc != nullptr && desc->reqLen <= kLargestRecord &&
                   desc->respLen <= kLargestRecord);
        for (vex_idl_type_of_msg_type kind : {VEX_IDL_REQUEST, VEX_IDL_RESPONSE}) {
            Target target(kind == VEX_IDL_REQUEST ? desc->reqLen : desc->respLen);
            vex_client_error_type rc = decode(kind, msgId, data, size, target);
            FUZZ_CHECK(target.guardIntact());
            if (size == target.recordLen()) {
                FUZZ_CHECK(rc == VEX_NO_ERR && target.recordEquals(data, size));
            } else {
                FUZZ_CHECK(rc == VEX_ERR_BAD_MESSAGE);
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > vexwire::kMaxPayload) {
        return 0;  // never arrives: the framing breaks the connection first
    }
    checkProfileChanged(data, size);
    checkRefusals(data, size);
    checkRecords(data, size);
    return 0;
}
