// The one place where values cross between the library's enumerations and the modem's WDS
// message values: fixed tables, each with a defined fall-back so no conversion fails. Only the
// modem-to-library IP-type and technology conversions log their fall-back (Debug).
//
// Threads: free functions without state; any thread.
#ifndef KEL_MODEM_CONVERSIONS_H
#define KEL_MODEM_CONVERSIONS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "kel/IProfileKey.h"
#include "kel/ProfileParams.h"
#include "vex/wireless_data_service_v01.h"

namespace kel {

// Longest APN name the library stores or compares; longer names are cut to this.
inline constexpr std::size_t kMaxApnNameLength = WDS_APN_NAME_MAX_V01;

// One expiration listener of a modem profile: the callback and the handle that registered it,
// held weakly so the listener never keeps a handle alive.
using ExpirationListener = std::pair<std::function<void()>, std::weak_ptr<IProfileKey>>;

// Modem to library.
TechType convertProfileType(wds_profile_type_enum_v01 profileType);
IPType convertPdnType(wds_profile_pdn_type_enum_v01 pdnType);
IPType convertPdpType(wds_pdp_type_enum_v01 pdpType);
IPType convertPdpType(wds_common_pdp_type_enum_v01 pdpType);
// One modem APN-type bit to its ApnTypes bit; 0 for anything else.
std::uint32_t convertToSingleCommonApnType(std::uint64_t vexApnType);
// Modem bits without a library counterpart are dropped.
std::uint32_t convertToCommonApnTypeMask(std::uint64_t vexApnTypeMask);
// The 3GPP authentication preference mask: bit 0 PAP, bit 1 CHAP, higher bits dropped.
AuthType convertToAuthType(unsigned char authPref);
// The 3GPP2 protocol enumeration: 1..3 kept, anything else NONE.
AuthType convertToAuthType(wds_profile_auth_protocol_enum_v01 authProtocol);

// Library to modem.
// Type 1 for 3GPP2, 0 otherwise; the index is the low eight bits of profileId.
wds_profile_identifier_type_v01 convertToProfileIdentifier(TechType techType, int profileId);
// One ApnTypes bit to its modem bit; 0 for anything else, a combination of bits included.
std::uint64_t convertToSingleVexApnType(ApnTypes apnType);
// Library bits above 0x800 are dropped; the upper 32 bits of the result are always zero.
std::uint64_t convertToVexApnTypeMask(std::uint32_t apnTypesMask);
wds_profile_pdn_type_enum_v01 convertToVexProfilePdnType(IPType ipType);
wds_pdp_type_enum_v01 convertToVexPdpType(IPType ipType);
wds_common_pdp_type_enum_v01 convertToVexCommonPdpType(IPType ipType);
wds_auth_pref_mask_v01 convertToVexAuthPref(AuthType authType);
wds_profile_auth_protocol_enum_v01 convertToVexAuthProtocol(AuthType authType);
wds_profile_pdn_level_auth_protocol_enum_v01 convertToVexPdnLevelAuthProtocol(AuthType authType);

// ASCII-only lower-casing ('A'..'Z'); every other byte is kept, no locale is consulted.
std::string convertToLower(const std::string& s);
// The form in which APN names are stored and compared: the first kMaxApnNameLength characters,
// lower-cased by convertToLower.
std::string normalizeApnName(const std::string& apnName);
// Whether the listener's handle is gone (or was never set).
bool expired(ExpirationListener listener);

}  // namespace kel

#endif  // KEL_MODEM_CONVERSIONS_H
