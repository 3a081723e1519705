// A get-settings response is whatever the modem put in it, so the modem profiles must read any
// response, dump it and build requests from it without reading past a field, and what they send
// must be well formed: texts terminated within their fields, validity flags 0 or 1, the settings
// the library does not model left clear. Read back, what a profile sends must read as a profile
// that sends exactly that again; a profile must match a filter made of its own settings and stay
// the same when its own settings are applied to it.
//
// Input: byte 0 fills the whole response, bytes 1 to 4 are the profile id (little-endian), then
// patches follow, each a 16-bit little-endian offset into the response (taken modulo its size),
// a length byte and that many bytes (cut at the end of the response or of the input).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "FuzzSupport.h"
#include "ModemProfile.h"
#include "kel/ProfileParams.h"
#include "vex/wireless_data_service_v01.h"

namespace {

using Response = wds_get_profile_settings_resp_msg_v01;

struct Input {
    Response resp;
    int profileId = 0;
};

Input readInput(const uint8_t* data, size_t size) {
    Input input;
    std::memset(&input.resp, size > 0 ? data[0] : 0, sizeof input.resp);
    uint32_t id = 0;
    for (size_t i = 1; i < 5 && i < size; ++i) {
        id |= static_cast<uint32_t>(data[i]) << (8 * (i - 1));
    }
    std::memcpy(&input.profileId, &id, sizeof id);
    auto* bytes = reinterpret_cast<uint8_t*>(&input.resp);
    for (size_t pos = 5; pos + 3 <= size;) {
        const size_t offset = (data[pos] | (data[pos + 1] << 8)) % sizeof input.resp;
        size_t length = data[pos + 2];
        pos += 3;
        length = std::min({length, size - pos, sizeof input.resp - offset});
        std::memcpy(bytes + offset, data + pos, length);
        pos += length;
    }
    return input;
}

// Whether a text the profile holds goes out as itself, cut to what its field can carry.
template <std::size_t N>
bool sentAs(bool held, const std::string& value, uint8_t valid, const char (&field)[N]) {
    return valid == (held ? 1 : 0) &&
           (!held || std::string(field, strnlen(field, N)) == value.substr(0, N - 1));
}

void checkWellFormed(const wds_profile_settings_v01& s, const std::string& dump) {
    FUZZ_CHECK_MSG(kelfuzz::textsTerminated(s), dump);
#define KELR_FLAG_IS_BOOLEAN(field) FUZZ_CHECK_MSG(s.field##_valid <= 1, #field " " + dump);
    WDS_SETTINGS_TEXTS(KELR_FLAG_IS_BOOLEAN)
    WDS_SETTINGS_VALUES(KELR_FLAG_IS_BOOLEAN)
#undef KELR_FLAG_IS_BOOLEAN
    for (uint8_t byte : s.reserved) {
        FUZZ_CHECK_MSG(byte == 0, dump);
    }
}

void checkTexts(const kel::Modem3gppProfile& p, const wds_profile_settings_v01& s) {
    FUZZ_CHECK(
        sentAs(p.hasProfileName(), p.getProfileName(), s.profile_name_valid, s.profile_name));
    FUZZ_CHECK(sentAs(p.hasApnName(), p.getApnName(), s.apn_name_valid, s.apn_name));
    FUZZ_CHECK(sentAs(p.hasUserName(), p.getUserName(), s.username_valid, s.username));
    FUZZ_CHECK(sentAs(p.hasPassword(), p.getPassword(), s.password_valid, s.password));
}

// Credentials go out twice for 3GPP2, once for the profile and once at PDN level.
void checkTexts(const kel::Modem3gpp2Profile& p, const wds_profile_settings_v01& s) {
    FUZZ_CHECK(sentAs(p.hasApnName(), p.getApnName(), s.apn_string_valid, s.apn_string));
    FUZZ_CHECK(sentAs(p.hasUserName(), p.getUserName(), s.user_id_valid, s.user_id));
    FUZZ_CHECK(
        sentAs(p.hasUserName(), p.getUserName(), s.pdn_level_user_id_valid, s.pdn_level_user_id));
    FUZZ_CHECK(sentAs(p.hasPassword(), p.getPassword(), s.auth_password_valid, s.auth_password));
    FUZZ_CHECK(sentAs(p.hasPassword(), p.getPassword(), s.pdn_level_auth_password_valid,
                      s.pdn_level_auth_password));
}

// A profile's own settings, as a filter or applied to it, leave it as it is, with one exception
// by design: a 3GPP2 profile's get() reports its PDN type as the home type, while match prefers a
// common PDP type that the modem may also have set.
bool ownSettingsApply(const kel::Modem3gppProfile&) {
    return true;
}
bool ownSettingsApply(const kel::Modem3gpp2Profile& p) {
    return !p.hasOverrideHomeIPType() || p.getOverrideHomeIPType() == kel::IPType::UNKNOWN;
}

template <typename Profile>
void checkProfile(const Input& input, wds_profile_type_enum_v01 type, const char* techName) {
    auto profile = std::make_shared<Profile>(input.profileId, input.resp);
    const std::string dump = profile->dump();
    const std::string prefix =
        std::string("TechType=") + techName + ",ProfileId=" + std::to_string(input.profileId) + ",";
    FUZZ_CHECK_MSG(dump.compare(0, prefix.size(), prefix) == 0, dump);

    const wds_create_profile_req_msg_v01 add = profile->constructAddRequest();
    const wds_modify_profile_settings_req_msg_v01 modify = profile->constructModifyRequest();
    FUZZ_CHECK(add.profile_type == type);
    FUZZ_CHECK(modify.profile.profile_type == type &&
               modify.profile.profile_index == static_cast<uint8_t>(input.profileId));
    checkWellFormed(add.settings, dump);
    checkWellFormed(modify.settings, dump);
    checkTexts(*profile, modify.settings);
    // Persistence is all that sets an add apart from a modify of the same profile.
    FUZZ_CHECK(add.settings.persistent_valid == 1 &&
               add.settings.persistent == (profile->getIsPersistent() ? 1 : 0));
    wds_profile_settings_v01 addSettings = add.settings;
    addSettings.persistent_valid = 0;
    addSettings.persistent = 0;
    const std::string addDiffers = kelfuzz::firstSettingsDifference(addSettings, modify.settings);
    FUZZ_CHECK_MSG(addDiffers.empty(), addDiffers + " in " + dump);

    // The modem keeps what it is sent; reading that back and sending it again is a fixed point
    // (after the first round, which may turn unknown values into the library's fall-backs).
    Response echo{};
    echo.settings = modify.settings;
    auto reread = std::make_shared<Profile>(input.profileId, echo);
    const wds_modify_profile_settings_req_msg_v01 resent = reread->constructModifyRequest();
    echo.settings = resent.settings;
    auto again = std::make_shared<Profile>(input.profileId, echo);
    const std::string resendDiffers =
        kelfuzz::firstSettingsDifference(resent.settings, again->constructModifyRequest().settings);
    FUZZ_CHECK_MSG(resendDiffers.empty(), resendDiffers + " in " + dump);
    FUZZ_CHECK_MSG(reread->dump() == again->dump(), reread->dump() + " / " + again->dump());

    if (ownSettingsApply(*profile)) {
        kel::FilterProfileParams own(profile->get());
        own.addFilterMatchCriteria(
            static_cast<unsigned int>(kel::FilterMatchType::ApnTypeBitmaskSubset));
        FUZZ_CHECK_MSG(profile->match(own), dump + " / " + own.dump());
        auto fresh = std::make_shared<Profile>(input.profileId, input.resp);
        fresh->apply(profile);
        FUZZ_CHECK_MSG(fresh->dump() == dump, fresh->dump() + " / " + dump);
    }

    // The cache sends a diff as a modify request.
    if (std::shared_ptr<kel::ModemProfile> changes =
            reread->diff(kel::ModifyProfileParams(profile->get()))) {
        checkWellFormed(changes->constructModifyRequest().settings, changes->dump());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Input input = readInput(data, size);
    checkProfile<kel::Modem3gppProfile>(input, WDS_PROFILE_TYPE_3GPP_V01, "3GPP");
    checkProfile<kel::Modem3gpp2Profile>(input, WDS_PROFILE_TYPE_3GPP2_V01, "3GPP2");
    return 0;
}
