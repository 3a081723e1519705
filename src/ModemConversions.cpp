#include "ModemConversions.h"

#include <array>

#include "LocalLogBuffer.h"

namespace kel {

namespace {

struct ApnTypeRow {
    std::uint32_t library;
    std::uint64_t vex;
};

// The one correspondence between library and modem APN-type bits, in library-bit order. Both
// directions use it, so the two can never disagree.
constexpr std::array<ApnTypeRow, 12> kApnTypeTable{{
    {static_cast<std::uint32_t>(ApnTypes::DEFAULT), WDS_APN_TYPE_MASK_DEFAULT_V01},
    {static_cast<std::uint32_t>(ApnTypes::MMS), WDS_APN_TYPE_MASK_MMS_V01},
    {static_cast<std::uint32_t>(ApnTypes::SUPL), WDS_APN_TYPE_MASK_SUPL_V01},
    {static_cast<std::uint32_t>(ApnTypes::DUN), WDS_APN_TYPE_MASK_DUN_V01},
    {static_cast<std::uint32_t>(ApnTypes::HIPRI), WDS_APN_TYPE_MASK_HIPRI_V01},
    {static_cast<std::uint32_t>(ApnTypes::FOTA), WDS_APN_TYPE_MASK_FOTA_V01},
    {static_cast<std::uint32_t>(ApnTypes::IMS), WDS_APN_TYPE_MASK_IMS_V01},
    {static_cast<std::uint32_t>(ApnTypes::CBS), WDS_APN_TYPE_MASK_CBS_V01},
    {static_cast<std::uint32_t>(ApnTypes::IA), WDS_APN_TYPE_MASK_IA_V01},
    {static_cast<std::uint32_t>(ApnTypes::EMERGENCY), WDS_APN_TYPE_MASK_EMERGENCY_V01},
    {static_cast<std::uint32_t>(ApnTypes::MCX), WDS_APN_TYPE_MASK_MCX_V01},
    {static_cast<std::uint32_t>(ApnTypes::XCAP), WDS_APN_TYPE_MASK_XCAP_V01},
}};

// The 3GPP2 protocol enumerations and AuthType share 1..3; everything else means no
// authentication.
int authProtocolValue(int value) {
    return (value >= 1 && value <= 3) ? value : 0;
}

}  // namespace

TechType convertProfileType(wds_profile_type_enum_v01 profileType) {
    switch (profileType) {
        case WDS_PROFILE_TYPE_3GPP_V01:
            return TechType::TYPE_3GPP;
        case WDS_PROFILE_TYPE_3GPP2_V01:
            return TechType::TYPE_3GPP2;
        case WDS_PROFILE_TYPE_EPC_V01:
        case WDS_PROFILE_TYPE_ENUM_MIN_ENUM_VAL_V01:
        case WDS_PROFILE_TYPE_ENUM_MAX_ENUM_VAL_V01:
            break;
    }
    KEL_LOG(Debug, "Unknown tech type %d", static_cast<int>(profileType));
    return TechType::TYPE_3GPP;
}

IPType convertPdnType(wds_profile_pdn_type_enum_v01 pdnType) {
    switch (pdnType) {
        case WDS_PROFILE_PDN_TYPE_IPV4_V01:
            return IPType::V4;
        case WDS_PROFILE_PDN_TYPE_IPV6_V01:
            return IPType::V6;
        case WDS_PROFILE_PDN_TYPE_IPV4_IPV6_V01:
            return IPType::V4V6;
        case WDS_PROFILE_PDN_TYPE_UNSPECIFIED_V01:
            return IPType::UNKNOWN;
        case WDS_PROFILE_PDN_TYPE_ENUM_MIN_ENUM_VAL_V01:
        case WDS_PROFILE_PDN_TYPE_ENUM_MAX_ENUM_VAL_V01:
            break;
    }
    KEL_LOG(Debug, "Unknown profile_pdn_type_enum %d", static_cast<int>(pdnType));
    return IPType::UNKNOWN;
}

IPType convertPdpType(wds_pdp_type_enum_v01 pdpType) {
    switch (pdpType) {
        case WDS_PDP_TYPE_PDP_IPV4_V01:
            return IPType::V4;
        case WDS_PDP_TYPE_PDP_IPV6_V01:
            return IPType::V6;
        case WDS_PDP_TYPE_PDP_IPV4V6_V01:
            return IPType::V4V6;
        case WDS_PDP_TYPE_PDP_PPP_V01:  // no library counterpart
        case WDS_PDP_TYPE_ENUM_MIN_ENUM_VAL_V01:
        case WDS_PDP_TYPE_ENUM_MAX_ENUM_VAL_V01:
            break;
    }
    KEL_LOG(Debug, "Unknown pdp_type_enum %d", static_cast<int>(pdpType));
    return IPType::UNKNOWN;
}

IPType convertPdpType(wds_common_pdp_type_enum_v01 pdpType) {
    switch (pdpType) {
        case WDS_COMMON_PDP_TYPE_PDP_IPV4_V01:
            return IPType::V4;
        case WDS_COMMON_PDP_TYPE_PDP_IPV6_V01:
            return IPType::V6;
        case WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01:
            return IPType::V4V6;
        case WDS_COMMON_PDP_TYPE_PDP_UNUSED_V01:
        case WDS_COMMON_PDP_TYPE_ENUM_MIN_ENUM_VAL_V01:
        case WDS_COMMON_PDP_TYPE_ENUM_MAX_ENUM_VAL_V01:
            break;
    }
    // Same text as the PDP-type overload on purpose: log readers search for one message.
    KEL_LOG(Debug, "Unknown pdp_type_enum %d", static_cast<int>(pdpType));
    return IPType::UNKNOWN;
}

std::uint32_t convertToSingleCommonApnType(std::uint64_t vexApnType) {
    for (const ApnTypeRow& row : kApnTypeTable) {
        if (row.vex == vexApnType) {
            return row.library;
        }
    }
    return 0;
}

std::uint32_t convertToCommonApnTypeMask(std::uint64_t vexApnTypeMask) {
    std::uint32_t mask = 0;
    for (const ApnTypeRow& row : kApnTypeTable) {
        if ((vexApnTypeMask & row.vex) != 0) {
            mask |= row.library;
        }
    }
    return mask;
}

AuthType convertToAuthType(unsigned char authPref) {
    return static_cast<AuthType>(authPref & 0x03);
}

AuthType convertToAuthType(wds_profile_auth_protocol_enum_v01 authProtocol) {
    return static_cast<AuthType>(authProtocolValue(static_cast<int>(authProtocol)));
}

wds_profile_identifier_type_v01 convertToProfileIdentifier(TechType techType, int profileId) {
    wds_profile_identifier_type_v01 identifier{};
    identifier.profile_type =
        techType == TechType::TYPE_3GPP2 ? WDS_PROFILE_TYPE_3GPP2_V01 : WDS_PROFILE_TYPE_3GPP_V01;
    identifier.profile_index = static_cast<std::uint8_t>(profileId & 0xFF);
    return identifier;
}

std::uint64_t convertToSingleVexApnType(ApnTypes apnType) {
    for (const ApnTypeRow& row : kApnTypeTable) {
        if (row.library == static_cast<std::uint32_t>(apnType)) {
            return row.vex;
        }
    }
    return 0;
}

std::uint64_t convertToVexApnTypeMask(std::uint32_t apnTypesMask) {
    std::uint64_t mask = 0;
    for (const ApnTypeRow& row : kApnTypeTable) {
        if ((apnTypesMask & row.library) != 0) {
            mask |= row.vex;
        }
    }
    return mask;
}

// The library-to-modem IP conversions fall back silently. UNKNOWN becomes dual stack in the PDN
// and PDP forms but the modem's "no setting" (0xFF) in the common form: the asymmetry is
// deliberate, it is how a stale home-type override is cleared on the modem.
wds_profile_pdn_type_enum_v01 convertToVexProfilePdnType(IPType ipType) {
    switch (ipType) {
        case IPType::V4:
            return WDS_PROFILE_PDN_TYPE_IPV4_V01;
        case IPType::V6:
            return WDS_PROFILE_PDN_TYPE_IPV6_V01;
        case IPType::V4V6:
        case IPType::UNKNOWN:
            break;
    }
    return WDS_PROFILE_PDN_TYPE_IPV4_IPV6_V01;
}

wds_pdp_type_enum_v01 convertToVexPdpType(IPType ipType) {
    switch (ipType) {
        case IPType::V4:
            return WDS_PDP_TYPE_PDP_IPV4_V01;
        case IPType::V6:
            return WDS_PDP_TYPE_PDP_IPV6_V01;
        case IPType::V4V6:
        case IPType::UNKNOWN:
            break;
    }
    return WDS_PDP_TYPE_PDP_IPV4V6_V01;
}

wds_common_pdp_type_enum_v01 convertToVexCommonPdpType(IPType ipType) {
    switch (ipType) {
        case IPType::UNKNOWN:
            return WDS_COMMON_PDP_TYPE_PDP_UNUSED_V01;
        case IPType::V4:
            return WDS_COMMON_PDP_TYPE_PDP_IPV4_V01;
        case IPType::V6:
            return WDS_COMMON_PDP_TYPE_PDP_IPV6_V01;
        case IPType::V4V6:
            break;
    }
    return WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01;
}

wds_auth_pref_mask_v01 convertToVexAuthPref(AuthType authType) {
    return static_cast<wds_auth_pref_mask_v01>(static_cast<int>(authType) & 0x03);
}

wds_profile_auth_protocol_enum_v01 convertToVexAuthProtocol(AuthType authType) {
    return static_cast<wds_profile_auth_protocol_enum_v01>(
        authProtocolValue(static_cast<int>(authType)));
}

wds_profile_pdn_level_auth_protocol_enum_v01 convertToVexPdnLevelAuthProtocol(AuthType authType) {
    return static_cast<wds_profile_pdn_level_auth_protocol_enum_v01>(
        authProtocolValue(static_cast<int>(authType)));
}

std::string convertToLower(const std::string& s) {
    std::string lower = s;
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c | 0x20);
        }
    }
    return lower;
}

std::string normalizeApnName(const std::string& apnName) {
    return convertToLower(apnName.substr(0, kMaxApnNameLength));
}

bool expired(ExpirationListener listener) {
    return listener.second.expired();
}

}  // namespace kel
