// What the fuzz targets share: an invariant check that aborts, so that libFuzzer reports the input
// that broke it and the corpus replay fails, and the field lists of the WDS profile settings.
#ifndef KELR_FUZZ_FUZZ_SUPPORT_H
#define KELR_FUZZ_FUZZ_SUPPORT_H

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vex/wireless_data_service_v01.h"

namespace kelfuzz {

[[noreturn]] inline void fail(const char* condition, const char* file, int line,
                              const std::string& detail) {
    std::fprintf(stderr, "%s:%d: invariant broken: %s%s%s\n", file, line, condition,
                 detail.empty() ? "" : ": ", detail.c_str());
    std::abort();
}

}  // namespace kelfuzz

#define FUZZ_CHECK(cond) ((cond) ? (void)0 : ::kelfuzz::fail(#cond, __FILE__, __LINE__, ""))
// As FUZZ_CHECK, with a text that shows what differed (built only when the check fails).
#define FUZZ_CHECK_MSG(cond, detail) \
    ((cond) ? (void)0 : ::kelfuzz::fail(#cond, __FILE__, __LINE__, (detail)))

// The members of wds_profile_settings_v01, each of which has a "_valid" flag named after it:
// the text fields, then every other value.
// clang-format off
#define WDS_SETTINGS_TEXTS(X) \
    X(profile_name) X(apn_name) X(username) X(password) X(user_id) X(auth_password) \
    X(apn_string) X(pdn_level_user_id) X(pdn_level_auth_password)
#define WDS_SETTINGS_VALUES(X) \
    X(pdp_type) X(authentication_preference) X(apn_disabled_flag) X(apn_class) \
    X(support_emergency_calls) X(max_pdn_conn_per_block) X(max_pdn_conn_timer) \
    X(pdn_req_wait_interval) X(lte_roaming_pdp_type) X(umts_roaming_pdp_type) \
    X(profile_auth_protocol) X(pdn_type) X(apn_class_3gpp2) X(pdn_level_auth_protocol) \
    X(apn_type_mask) X(clat_enabled) X(common_pdp_type) X(persistent)
// clang-format on

namespace kelfuzz {

// The first member in which two settings records differ ("" when none), field by field so that
// padding plays no part. Texts are compared as whole arrays: writers clear a field first.
inline std::string firstSettingsDifference(const wds_profile_settings_v01& x,
                                           const wds_profile_settings_v01& y) {
#define KELR_COMPARE_TEXT(field)                              \
    if (x.field##_valid != y.field##_valid ||                 \
        std::memcmp(x.field, y.field, sizeof x.field) != 0) { \
        return #field;                                        \
    }
#define KELR_COMPARE_VALUE(field)                                   \
    if (x.field##_valid != y.field##_valid || x.field != y.field) { \
        return #field;                                              \
    }
    WDS_SETTINGS_TEXTS(KELR_COMPARE_TEXT)
    WDS_SETTINGS_VALUES(KELR_COMPARE_VALUE)
#undef KELR_COMPARE_TEXT
#undef KELR_COMPARE_VALUE
    return std::memcmp(x.reserved, y.reserved, sizeof x.reserved) == 0 ? "" : "reserved";
}

// Whether every text ends within its array, as a reader of the record may rely on.
inline bool textsTerminated(const wds_profile_settings_v01& s) {
#define KELR_TERMINATED(field)                                \
    if (strnlen(s.field, sizeof s.field) == sizeof s.field) { \
        return false;                                         \
    }
    WDS_SETTINGS_TEXTS(KELR_TERMINATED)
#undef KELR_TERMINATED
    return true;
}

}  // namespace kelfuzz

#endif  // KELR_FUZZ_FUZZ_SUPPORT_H
