// The WDS service object: the sizes of every request and response, and the items of the
// profile-changed indication.
#include <cstring>

#include "VexWire.h"
#include "vex/wireless_data_service_v01.h"

namespace {

constexpr vex_message_desc kWdsMessages[] = {
    {VEX_WDS_INDICATION_REGISTER_REQ_V01, sizeof(wds_indication_register_req_msg_v01),
     sizeof(wds_indication_register_resp_msg_v01)},
    {VEX_WDS_CREATE_PROFILE_REQ_V01, sizeof(wds_create_profile_req_msg_v01),
     sizeof(wds_create_profile_resp_msg_v01)},
    {VEX_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01, sizeof(wds_modify_profile_settings_req_msg_v01),
     sizeof(wds_modify_profile_settings_resp_msg_v01)},
    {VEX_WDS_DELETE_PROFILE_REQ_V01, sizeof(wds_delete_profile_req_msg_v01),
     sizeof(wds_delete_profile_resp_msg_v01)},
    {VEX_WDS_GET_PROFILE_LIST_REQ_V01, sizeof(wds_get_profile_list_req_msg_v01),
     sizeof(wds_get_profile_list_resp_msg_v01)},
    {VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01, sizeof(wds_get_profile_settings_req_msg_v01),
     sizeof(wds_get_profile_settings_resp_msg_v01)},
    {VEX_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01,
     sizeof(wds_configure_profile_event_list_req_msg_v01),
     sizeof(wds_configure_profile_event_list_resp_msg_v01)},
    {VEX_WDS_BIND_SUBSCRIPTION_REQ_V01, sizeof(wds_bind_subscription_req_msg_v01),
     sizeof(wds_bind_subscription_resp_msg_v01)},
};

// The one item is mandatory: a profile-changed indication without it says nothing.
constexpr vex_tlv_desc kProfileChangedTlvs[] = {
    {WDS_PROFILE_CHANGED_IND_TLV_V01, WDS_PROFILE_CHANGED_IND_TLV_LEN_V01, true},
};

void expandProfileChanged(size_t /*item*/, const uint8_t* value, void* record) {
    auto* ind = static_cast<wds_profile_changed_ind_msg_v01*>(record);
    ind->profile_changed_ind_valid = 1;
    ind->profile_changed_ind.profile_type = static_cast<wds_profile_type_enum_v01>(value[0]);
    ind->profile_changed_ind.profile_index = value[1];
    uint32_t event = static_cast<uint32_t>(value[2]) | (static_cast<uint32_t>(value[3]) << 8) |
                     (static_cast<uint32_t>(value[4]) << 16) |
                     (static_cast<uint32_t>(value[5]) << 24);
    int32_t signedEvent;
    std::memcpy(&signedEvent, &event, sizeof signedEvent);
    ind->profile_changed_ind.profile_change_evt =
        static_cast<wds_profile_changed_event_enum_v01>(signedEvent);
}

constexpr vex_indication_desc kWdsIndications[] = {
    {VEX_WDS_PROFILE_CHANGED_IND_V01, kProfileChangedTlvs,
     sizeof kProfileChangedTlvs / sizeof kProfileChangedTlvs[0],
     sizeof(wds_profile_changed_ind_msg_v01), expandProfileChanged},
};

}  // namespace

extern const vex_service_object wdsServiceObjectV01;
const vex_service_object wdsServiceObjectV01 = {
    "wds",
    WDS_SERVICE_ID_V01,
    WDS_V01_IDL_MAJOR_VERS,
    WDS_V01_IDL_MINOR_VERS,
    WDS_V01_IDL_TOOL_VERS,
    kWdsMessages,
    sizeof kWdsMessages / sizeof kWdsMessages[0],
    kWdsIndications,
    sizeof kWdsIndications / sizeof kWdsIndications[0],
};

extern "C" vex_idl_service_object_type wds_get_service_object_internal_v01(
    int32_t idl_maj_version, int32_t idl_min_version, int32_t /*library_version*/) {
    // A client built against an older minor version is served; a newer one or another major
    // version is not.
    if (idl_maj_version != WDS_V01_IDL_MAJOR_VERS || idl_min_version < 0 ||
        idl_min_version > WDS_V01_IDL_MINOR_VERS) {
        return nullptr;
    }
    return &wdsServiceObjectV01;
}
