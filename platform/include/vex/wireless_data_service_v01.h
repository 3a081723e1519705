/*
 * The wireless data service (WDS): the message ids, enumerations and C records that a client and
 * the modem exchange. Requests and responses travel as these records with exactly these sizes;
 * the sizes and offsets below are fixed and checked at compile time.
 *
 * Every optional field is preceded by a "_valid" byte: nonzero when the field is present.
 */
#ifndef KELR_PLATFORM_WIRELESS_DATA_SERVICE_V01_H
#define KELR_PLATFORM_WIRELESS_DATA_SERVICE_V01_H

#include <stddef.h>
#include <stdint.h>

#include "vex/vex_client.h"

#ifdef __cplusplus
#define WDS_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
extern "C" {
#else
#define WDS_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#define WDS_V01_IDL_MAJOR_VERS 0x01
#define WDS_V01_IDL_MINOR_VERS 0xF7
#define WDS_V01_IDL_TOOL_VERS 0x06

/* Service id of WDS in the service directory. */
#define WDS_SERVICE_ID_V01 0x01

/* Returns the WDS service object, or NULL when this major version is not served. */
vex_idl_service_object_type wds_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                int32_t idl_min_version,
                                                                int32_t library_version);
#define wds_get_service_object_v01()                                                    \
    wds_get_service_object_internal_v01(WDS_V01_IDL_MAJOR_VERS, WDS_V01_IDL_MINOR_VERS, \
                                        WDS_V01_IDL_TOOL_VERS)

/* Message ids. A response carries the id of its request. */
#define VEX_WDS_INDICATION_REGISTER_REQ_V01 0x0003
#define VEX_WDS_INDICATION_REGISTER_RESP_V01 0x0003
#define VEX_WDS_CREATE_PROFILE_REQ_V01 0x0027
#define VEX_WDS_CREATE_PROFILE_RESP_V01 0x0027
#define VEX_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01 0x0028
#define VEX_WDS_MODIFY_PROFILE_SETTINGS_RESP_V01 0x0028
#define VEX_WDS_DELETE_PROFILE_REQ_V01 0x0029
#define VEX_WDS_DELETE_PROFILE_RESP_V01 0x0029
#define VEX_WDS_GET_PROFILE_LIST_REQ_V01 0x002A
#define VEX_WDS_GET_PROFILE_LIST_RESP_V01 0x002A
#define VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01 0x002B
#define VEX_WDS_GET_PROFILE_SETTINGS_RESP_V01 0x002B
#define VEX_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01 0x00A7
#define VEX_WDS_CONFIGURE_PROFILE_EVENT_LIST_RESP_V01 0x00A7
#define VEX_WDS_PROFILE_CHANGED_IND_V01 0x00A8
#define VEX_WDS_BIND_SUBSCRIPTION_REQ_V01 0x00AF
#define VEX_WDS_BIND_SUBSCRIPTION_RESP_V01 0x00AF

/* Result word values and the error codes the modem reports with a failed result. */
#define VEX_RESULT_SUCCESS_V01 0
#define VEX_RESULT_FAILURE_V01 1
#define VEX_ERR_NONE_V01 0x0000
#define VEX_ERR_MALFORMED_MSG_V01 0x0001
#define VEX_ERR_NO_MEMORY_V01 0x0002
#define VEX_ERR_INTERNAL_V01 0x0003
#define VEX_ERR_INVALID_ID_V01 0x0029
#define VEX_ERR_INVALID_PROFILE_TYPE_V01 0x0031
#define VEX_ERR_INVALID_PROFILE_V01 0x0032
#define VEX_ERR_EXTENDED_INTERNAL_V01 0x0051
#define VEX_ERR_INVALID_ARG_V01 0x0030
#define VEX_ERR_NOT_SUPPORTED_V01 0x005E

/* The result at the start of every response: result word first, then the error word. */
typedef struct {
    int32_t result;
    int32_t error;
} vex_response_type_v01;

typedef enum {
    WDS_PROFILE_TYPE_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    WDS_PROFILE_TYPE_3GPP_V01 = 0x00,
    WDS_PROFILE_TYPE_3GPP2_V01 = 0x01,
    WDS_PROFILE_TYPE_EPC_V01 = 0x02,
    WDS_PROFILE_TYPE_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} wds_profile_type_enum_v01;

/* 3GPP2 PDN type. */
typedef enum {
    WDS_PROFILE_PDN_TYPE_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    WDS_PROFILE_PDN_TYPE_IPV4_V01 = 0x00,
    WDS_PROFILE_PDN_TYPE_IPV6_V01 = 0x01,
    WDS_PROFILE_PDN_TYPE_IPV4_IPV6_V01 = 0x02,
    WDS_PROFILE_PDN_TYPE_UNSPECIFIED_V01 = 0x03,
    WDS_PROFILE_PDN_TYPE_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} wds_profile_pdn_type_enum_v01;

/* 3GPP PDP type. */
typedef enum {
    WDS_PDP_TYPE_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    WDS_PDP_TYPE_PDP_IPV4_V01 = 0x00,
    WDS_PDP_TYPE_PDP_PPP_V01 = 0x01,
    WDS_PDP_TYPE_PDP_IPV6_V01 = 0x02,
    WDS_PDP_TYPE_PDP_IPV4V6_V01 = 0x03,
    WDS_PDP_TYPE_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} wds_pdp_type_enum_v01;

/* Common (technology-independent) PDP type, also used for the roaming PDP types; 0xFF is the
 * modem's "no setting". */
typedef enum {
    WDS_COMMON_PDP_TYPE_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    WDS_COMMON_PDP_TYPE_PDP_IPV4_V01 = 0x00,
    WDS_COMMON_PDP_TYPE_PDP_IPV6_V01 = 0x01,
    WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01 = 0x02,
    WDS_COMMON_PDP_TYPE_PDP_UNUSED_V01 = 0xFF,
    WDS_COMMON_PDP_TYPE_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} wds_common_pdp_type_enum_v01;

/* 3GPP2 authentication protocol (profile level and PDN level share the numbering). */
typedef enum {
    WDS_PROFILE_AUTH_PROTOCOL_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    WDS_PROFILE_AUTH_PROTOCOL_NONE_V01 = 0,
    WDS_PROFILE_AUTH_PROTOCOL_PAP_V01 = 1,
    WDS_PROFILE_AUTH_PROTOCOL_CHAP_V01 = 2,
    WDS_PROFILE_AUTH_PROTOCOL_PAP_CHAP_V01 = 3,
    WDS_PROFILE_AUTH_PROTOCOL_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} wds_profile_auth_protocol_enum_v01;

typedef enum {
    WDS_PROFILE_PDN_LEVEL_AUTH_PROTOCOL_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    WDS_PROFILE_PDN_LEVEL_AUTH_PROTOCOL_NONE_V01 = 0,
    WDS_PROFILE_PDN_LEVEL_AUTH_PROTOCOL_PAP_V01 = 1,
    WDS_PROFILE_PDN_LEVEL_AUTH_PROTOCOL_CHAP_V01 = 2,
    WDS_PROFILE_PDN_LEVEL_AUTH_PROTOCOL_PAP_CHAP_V01 = 3,
    WDS_PROFILE_PDN_LEVEL_AUTH_PROTOCOL_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} wds_profile_pdn_level_auth_protocol_enum_v01;

/* 3GPP authentication preference: a bit mask. */
typedef uint8_t wds_auth_pref_mask_v01;
#define WDS_MASK_AUTH_PREF_PAP_V01 ((wds_auth_pref_mask_v01)0x01)
#define WDS_MASK_AUTH_PREF_CHAP_V01 ((wds_auth_pref_mask_v01)0x02)

/* The modem's APN-type bits (their order differs from the library's). */
typedef uint64_t wds_apn_type_mask_v01;
#define WDS_APN_TYPE_MASK_DEFAULT_V01 ((wds_apn_type_mask_v01)0x001ull)
#define WDS_APN_TYPE_MASK_IMS_V01 ((wds_apn_type_mask_v01)0x002ull)
#define WDS_APN_TYPE_MASK_MMS_V01 ((wds_apn_type_mask_v01)0x004ull)
#define WDS_APN_TYPE_MASK_DUN_V01 ((wds_apn_type_mask_v01)0x008ull)
#define WDS_APN_TYPE_MASK_SUPL_V01 ((wds_apn_type_mask_v01)0x010ull)
#define WDS_APN_TYPE_MASK_HIPRI_V01 ((wds_apn_type_mask_v01)0x020ull)
#define WDS_APN_TYPE_MASK_FOTA_V01 ((wds_apn_type_mask_v01)0x040ull)
#define WDS_APN_TYPE_MASK_CBS_V01 ((wds_apn_type_mask_v01)0x080ull)
#define WDS_APN_TYPE_MASK_IA_V01 ((wds_apn_type_mask_v01)0x100ull)
#define WDS_APN_TYPE_MASK_EMERGENCY_V01 ((wds_apn_type_mask_v01)0x200ull)
#define WDS_APN_TYPE_MASK_XCAP_V01 ((wds_apn_type_mask_v01)0x400ull)
#define WDS_APN_TYPE_MASK_MCX_V01 ((wds_apn_type_mask_v01)0x800ull)

/* What changed, in a profile-changed indication. Any other value means the profiles are ready
 * to be read. */
typedef enum {
    WDS_PROFILE_CHANGED_EVENT_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    WDS_PROFILE_CREATE_EVT_V01 = 1,
    WDS_PROFILE_DELETE_EVT_V01 = 2,
    WDS_PROFILE_MODIFY_EVT_V01 = 3,
    WDS_PROFILE_SUBSCRIPTION_CHANGE_EVT_V01 = 4,
    WDS_PROFILES_READY_EVT_V01 = 5,
    WDS_PROFILE_CHANGED_EVENT_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} wds_profile_changed_event_enum_v01;

/* Subscription that a client binds to: 0 for the first, 1 for the second, and so on. */
typedef enum {
    WDS_BIND_SUBSCRIPTION_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    WDS_PRIMARY_SUBS_V01 = 0x0000,
    WDS_SECONDARY_SUBS_V01 = 0x0001,
    WDS_TERTIARY_SUBS_V01 = 0x0002,
    WDS_BIND_SUBSCRIPTION_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} wds_bind_subscription_enum_v01;

/* A profile is named by its type and its index within that type's table. */
typedef struct {
    wds_profile_type_enum_v01 profile_type;
    uint8_t profile_index;
} wds_profile_identifier_type_v01;

#define WDS_PROFILE_NAME_MAX_V01 50
#define WDS_APN_NAME_MAX_V01 150
#define WDS_USER_NAME_MAX_V01 127
#define WDS_PASSWORD_MAX_V01 127
#define WDS_PROFILE_LIST_MAX_V01 255
#define WDS_PROFILE_EVENT_LIST_MAX_V01 255

/* Bytes of wds_profile_settings_v01 held for settings this service does not model. */
#define WDS_PROFILE_SETTINGS_RESERVED_V01 2030

/* The settings of one profile, shared by the create and modify requests and the get-settings
 * response. 3GPP fields come first, then the 3GPP2 fields, then those of both families. */
typedef struct {
    /* 3GPP */
    uint8_t profile_name_valid;
    char profile_name[WDS_PROFILE_NAME_MAX_V01 + 1];
    uint8_t pdp_type_valid;
    wds_pdp_type_enum_v01 pdp_type;
    uint8_t apn_name_valid;
    char apn_name[WDS_APN_NAME_MAX_V01 + 1];
    uint8_t username_valid;
    char username[WDS_USER_NAME_MAX_V01 + 1];
    uint8_t password_valid;
    char password[WDS_PASSWORD_MAX_V01 + 1];
    uint8_t authentication_preference_valid;
    wds_auth_pref_mask_v01 authentication_preference;
    uint8_t apn_disabled_flag_valid;
    uint8_t apn_disabled_flag;
    uint8_t apn_class_valid;
    uint8_t apn_class;
    uint8_t support_emergency_calls_valid;
    uint8_t support_emergency_calls;
    uint8_t max_pdn_conn_per_block_valid;
    uint16_t max_pdn_conn_per_block;
    uint8_t max_pdn_conn_timer_valid;
    uint16_t max_pdn_conn_timer;
    uint8_t pdn_req_wait_interval_valid;
    uint16_t pdn_req_wait_interval;
    uint8_t lte_roaming_pdp_type_valid;
    wds_common_pdp_type_enum_v01 lte_roaming_pdp_type;
    uint8_t umts_roaming_pdp_type_valid;
    wds_common_pdp_type_enum_v01 umts_roaming_pdp_type;
    /* 3GPP2 */
    uint8_t user_id_valid;
    char user_id[WDS_USER_NAME_MAX_V01 + 1];
    uint8_t auth_password_valid;
    char auth_password[WDS_PASSWORD_MAX_V01 + 1];
    uint8_t profile_auth_protocol_valid;
    wds_profile_auth_protocol_enum_v01 profile_auth_protocol;
    uint8_t apn_string_valid;
    char apn_string[WDS_APN_NAME_MAX_V01 + 1];
    uint8_t pdn_type_valid;
    wds_profile_pdn_type_enum_v01 pdn_type;
    uint8_t apn_class_3gpp2_valid;
    uint8_t apn_class_3gpp2;
    uint8_t pdn_level_user_id_valid;
    char pdn_level_user_id[WDS_USER_NAME_MAX_V01 + 1];
    uint8_t pdn_level_auth_password_valid;
    char pdn_level_auth_password[WDS_PASSWORD_MAX_V01 + 1];
    uint8_t pdn_level_auth_protocol_valid;
    wds_profile_pdn_level_auth_protocol_enum_v01 pdn_level_auth_protocol;
    /* Both families */
    uint8_t apn_type_mask_valid;
    wds_apn_type_mask_v01 apn_type_mask;
    uint8_t clat_enabled_valid;
    uint8_t clat_enabled;
    uint8_t common_pdp_type_valid;
    wds_common_pdp_type_enum_v01 common_pdp_type;
    uint8_t persistent_valid;
    uint8_t persistent;
    /* Settings this service does not model. */
    uint8_t reserved[WDS_PROFILE_SETTINGS_RESERVED_V01];
} wds_profile_settings_v01;

/* VEX_WDS_INDICATION_REGISTER_REQ_V01 */
typedef struct {
    uint8_t reserved_head[16];
    uint8_t report_profile_changed_events_valid;
    uint8_t report_profile_changed_events;
    uint8_t reserved_tail[380];
} wds_indication_register_req_msg_v01;

typedef struct {
    vex_response_type_v01 resp;
} wds_indication_register_resp_msg_v01;

/* VEX_WDS_BIND_SUBSCRIPTION_REQ_V01 */
typedef struct {
    wds_bind_subscription_enum_v01 subscription;
} wds_bind_subscription_req_msg_v01;

typedef struct {
    vex_response_type_v01 resp;
} wds_bind_subscription_resp_msg_v01;

/* VEX_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01: which profiles a client hears about. A profile
 * type or index of 0xFF stands for all of them. */
typedef struct {
    wds_profile_type_enum_v01 profile_type;
    uint8_t profile_index;
} wds_configure_profile_event_type_v01;

typedef struct {
    uint8_t profile_event_register_valid;
    uint32_t profile_event_register_len;
    wds_configure_profile_event_type_v01 profile_event_register[WDS_PROFILE_EVENT_LIST_MAX_V01];
    uint8_t report_profile_events_valid;
    uint8_t report_profile_events;
} wds_configure_profile_event_list_req_msg_v01;

typedef struct {
    vex_response_type_v01 resp;
} wds_configure_profile_event_list_resp_msg_v01;

/* VEX_WDS_CREATE_PROFILE_REQ_V01 */
typedef struct {
    wds_profile_type_enum_v01 profile_type;
    uint8_t reserved[4];
    wds_profile_settings_v01 settings;
} wds_create_profile_req_msg_v01;

typedef struct {
    vex_response_type_v01 resp;
    wds_profile_identifier_type_v01 profile;
    uint8_t extended_error_code_valid;
    uint16_t extended_error_code;
    uint8_t reserved[4];
} wds_create_profile_resp_msg_v01;

/* VEX_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01 */
typedef struct {
    wds_profile_identifier_type_v01 profile;
    wds_profile_settings_v01 settings;
} wds_modify_profile_settings_req_msg_v01;

typedef struct {
    vex_response_type_v01 resp;
    uint8_t extended_error_code_valid;
    uint16_t extended_error_code;
    uint8_t reserved[4];
} wds_modify_profile_settings_resp_msg_v01;

/* VEX_WDS_DELETE_PROFILE_REQ_V01 */
typedef struct {
    wds_profile_identifier_type_v01 profile;
} wds_delete_profile_req_msg_v01;

typedef struct {
    vex_response_type_v01 resp;
    uint8_t extended_error_code_valid;
    uint16_t extended_error_code;
    uint8_t reserved[4];
} wds_delete_profile_resp_msg_v01;

/* VEX_WDS_GET_PROFILE_LIST_REQ_V01 */
typedef struct {
    uint8_t profile_type_valid;
    wds_profile_type_enum_v01 profile_type;
    uint8_t reserved[176];
} wds_get_profile_list_req_msg_v01;

typedef struct {
    wds_profile_type_enum_v01 profile_type;
    uint8_t profile_index;
    char profile_name[WDS_PROFILE_NAME_MAX_V01 + 1];
} wds_profile_info_type_v01;

typedef struct {
    vex_response_type_v01 resp;
    uint32_t profile_list_len;
    wds_profile_info_type_v01 profile_list[WDS_PROFILE_LIST_MAX_V01];
    uint8_t extended_error_code_valid;
    uint16_t extended_error_code;
    uint8_t reserved[4];
} wds_get_profile_list_resp_msg_v01;

/* VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01 */
typedef struct {
    wds_profile_identifier_type_v01 profile;
} wds_get_profile_settings_req_msg_v01;

typedef struct {
    vex_response_type_v01 resp;
    wds_profile_settings_v01 settings;
    uint8_t extended_error_code_valid;
    uint16_t extended_error_code;
    uint8_t reserved[12];
} wds_get_profile_settings_resp_msg_v01;

/* VEX_WDS_PROFILE_CHANGED_IND_V01, as vex_client_message_decode expands it. */
typedef struct {
    wds_profile_type_enum_v01 profile_type;
    uint8_t profile_index;
    wds_profile_changed_event_enum_v01 profile_change_evt;
} wds_profile_changed_ind_type_v01;

typedef struct {
    uint8_t profile_changed_ind_valid;
    wds_profile_changed_ind_type_v01 profile_changed_ind;
} wds_profile_changed_ind_msg_v01;

/* Encoded form of an indication on the wire (what the indication callback receives): a sequence
 * of type-length-value items, each a 1-byte type, a 2-byte little-endian length and the value. */
#define WDS_PROFILE_CHANGED_IND_TLV_V01 0x10
#define WDS_PROFILE_CHANGED_IND_TLV_LEN_V01 6 /* type (u8), index (u8), event (u32 LE) */

/* Sizes and offsets that the library and the modem rely on. */
WDS_STATIC_ASSERT(sizeof(vex_response_type_v01) == 8, "result words");
WDS_STATIC_ASSERT(sizeof(wds_profile_identifier_type_v01) == 8, "profile identifier");
WDS_STATIC_ASSERT(offsetof(wds_profile_identifier_type_v01, profile_index) == 4, "index");
WDS_STATIC_ASSERT(sizeof(wds_profile_settings_v01) == 3248, "profile settings");
WDS_STATIC_ASSERT(sizeof(wds_indication_register_req_msg_v01) == 398, "indication register");
WDS_STATIC_ASSERT(offsetof(wds_indication_register_req_msg_v01,
                           report_profile_changed_events_valid) == 16,
                  "indication register flag");
WDS_STATIC_ASSERT(offsetof(wds_indication_register_req_msg_v01, report_profile_changed_events) ==
                      17,
                  "indication register value");
WDS_STATIC_ASSERT(sizeof(wds_bind_subscription_req_msg_v01) == 4, "bind");
WDS_STATIC_ASSERT(sizeof(wds_configure_profile_event_list_req_msg_v01) == 2052, "event list");
WDS_STATIC_ASSERT(offsetof(wds_configure_profile_event_list_req_msg_v01,
                           profile_event_register_len) == 4,
                  "event list length");
WDS_STATIC_ASSERT(offsetof(wds_configure_profile_event_list_req_msg_v01, profile_event_register) ==
                      8,
                  "event list entries");
WDS_STATIC_ASSERT(offsetof(wds_configure_profile_event_type_v01, profile_index) == 4,
                  "event list entry index");
WDS_STATIC_ASSERT(offsetof(wds_configure_profile_event_list_req_msg_v01,
                           report_profile_events_valid) == 2048,
                  "event list trailing flag");
WDS_STATIC_ASSERT(offsetof(wds_configure_profile_event_list_req_msg_v01, report_profile_events) ==
                      2049,
                  "event list trailing value");
WDS_STATIC_ASSERT(sizeof(wds_create_profile_req_msg_v01) == 3256, "create request");
WDS_STATIC_ASSERT(sizeof(wds_create_profile_resp_msg_v01) == 24, "create response");
WDS_STATIC_ASSERT(offsetof(wds_create_profile_resp_msg_v01, profile) + 4 == 12,
                  "created profile index");
WDS_STATIC_ASSERT(sizeof(wds_modify_profile_settings_req_msg_v01) == 3256, "modify request");
WDS_STATIC_ASSERT(sizeof(wds_modify_profile_settings_resp_msg_v01) == 16, "modify response");
WDS_STATIC_ASSERT(sizeof(wds_delete_profile_req_msg_v01) == 8, "delete request");
WDS_STATIC_ASSERT(sizeof(wds_delete_profile_resp_msg_v01) == 16, "delete response");
WDS_STATIC_ASSERT(sizeof(wds_get_profile_list_req_msg_v01) == 184, "list request");
WDS_STATIC_ASSERT(offsetof(wds_get_profile_list_req_msg_v01, profile_type) == 4, "list type");
WDS_STATIC_ASSERT(sizeof(wds_get_profile_list_resp_msg_v01) == 14300, "list response");
WDS_STATIC_ASSERT(offsetof(wds_get_profile_list_resp_msg_v01, profile_list_len) == 8, "list count");
WDS_STATIC_ASSERT(offsetof(wds_get_profile_list_resp_msg_v01, profile_list) == 12, "list entries");
WDS_STATIC_ASSERT(sizeof(wds_profile_info_type_v01) == 56, "list entry");
WDS_STATIC_ASSERT(sizeof(wds_get_profile_settings_req_msg_v01) == 8, "get request");
WDS_STATIC_ASSERT(sizeof(wds_get_profile_settings_resp_msg_v01) == 3272, "get response");
WDS_STATIC_ASSERT(sizeof(wds_profile_changed_ind_msg_v01) == 16, "profile changed record");
WDS_STATIC_ASSERT(offsetof(wds_profile_changed_ind_msg_v01, profile_changed_ind) == 4,
                  "profile changed field");

#ifdef __cplusplus
}
#endif

#endif
