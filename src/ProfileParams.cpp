#include "kel/ProfileParams.h"

#include <sstream>

namespace kel {
namespace {

struct BitName {
    std::uint32_t bit;
    const char* name;
};

// Printed in this order; the bar is part of each name.
constexpr BitName kApnTypeNames[] = {
    {0x001, "DEFAULT|"}, {0x002, "MMS|"},       {0x004, "SUPL|"}, {0x008, "DUN|"},
    {0x010, "HIPRI|"},   {0x020, "FOTA|"},      {0x040, "IMS|"},  {0x080, "CBS|"},
    {0x100, "IA|"},      {0x200, "EMERGENCY|"}, {0x400, "MCX|"},  {0x800, "XCAP|"},
};

constexpr BitName kFilterMatchNames[] = {
    {0x01, "HomeIPSubset|"},         {0x02, "RoamIPSubset|"},   {0x04, "ApnNameSubset|"},
    {0x08, "ApnTypeBitmaskSubset|"}, {0x10, "HomeIPSuperset|"}, {0x20, "RoamIPSuperset|"},
};

template <size_t N>
std::ostream& printMask(std::ostream& os, std::uint32_t mask, const BitName (&names)[N],
                        const char* none) {
    if (mask == 0) {
        return os << none;
    }
    for (const BitName& entry : names) {
        if ((mask & entry.bit) != 0) {
            os << entry.name;
        }
    }
    return os;
}

template <typename Enum>
std::ostream& printNumber(std::ostream& os, Enum value) {
    return os << static_cast<std::int32_t>(value);
}

template <typename T>
std::string streamed(const T& value) {
    std::ostringstream os;
    os << value;
    return os.str();
}

}  // namespace

std::ostream& operator<<(std::ostream& os, TechType value) {
    switch (value) {
        case TechType::TYPE_3GPP:
            return os << "3GPP";
        case TechType::TYPE_3GPP2:
            return os << "3GPP2";
    }
    return printNumber(os, value);
}

std::ostream& operator<<(std::ostream& os, IPType value) {
    switch (value) {
        case IPType::UNKNOWN:
            return os << "UNKNOWN";
        case IPType::V4:
            return os << "V4";
        case IPType::V6:
            return os << "V6";
        case IPType::V4V6:
            return os << "V4V6";
    }
    return printNumber(os, value);
}

std::ostream& operator<<(std::ostream& os, AuthType value) {
    switch (value) {
        case AuthType::NONE:
            return os << "NONE";
        case AuthType::PAP:
            return os << "PAP";
        case AuthType::CHAP:
            return os << "CHAP";
        case AuthType::PAP_CHAP:
            return os << "PAP_CHAP";
    }
    return printNumber(os, value);
}

std::ostream& operator<<(std::ostream& os, ApnClass value) {
    switch (value) {
        case ApnClass::IMS:
            return os << "IMS";
        case ApnClass::ADMN:
            return os << "ADMN";
        case ApnClass::INET:
            return os << "INET";
        case ApnClass::APP:
            return os << "APP";
    }
    return printNumber(os, value);
}

std::ostream& operator<<(std::ostream& os, ApnTypes mask) {
    return printMask(os, static_cast<std::uint32_t>(mask), kApnTypeNames, "NONE");
}

// "None", unlike the "NONE" of the APN types: deliberate, both spellings are kept as they are.
std::ostream& operator<<(std::ostream& os, FilterMatchType mask) {
    return printMask(os, static_cast<std::uint32_t>(mask), kFilterMatchNames, "None");
}

std::string toString(TechType value) {
    return streamed(value);
}

std::string toString(IPType value) {
    return streamed(value);
}

std::string toString(AuthType value) {
    return streamed(value);
}

std::string toString(ApnClass value) {
    return streamed(value);
}

std::string toString(ApnTypes mask) {
    return streamed(mask);
}

std::string toString(FilterMatchType mask) {
    return streamed(mask);
}

std::string ProfileParams::dump() const {
    std::ostringstream os;
    os << std::boolalpha;
    if (apnName) {
        os << "ApnName=" << *apnName << ",";
    }
    if (userName) {
        os << "UserName=" << *userName << ",";
    }
    // In clear on purpose: the dump is the library's diagnostic view of a profile.
    if (password) {
        os << "Password=" << *password << ",";
    }
    if (authType) {
        os << "AuthType=" << *authType << ",";
    }
    if (homeIPType) {
        os << "HomeIPType=" << *homeIPType << ",";
    }
    if (roamIPType) {
        os << "RoamIPType=" << *roamIPType << ",";
    }
    if (apnTypesMask) {
        os << "ApnTypesMask=" << static_cast<ApnTypes>(*apnTypesMask) << ",";
    }
    if (apnClass) {
        os << "ApnClass=" << *apnClass << ",";
    }
    if (isClatEnabled) {
        os << "IsClatEnabled=" << *isClatEnabled << ",";
    }
    if (maxPdnsConnPerBlock) {
        os << "MaxPdnsConnPerBlock=" << *maxPdnsConnPerBlock << ",";
    }
    if (maxPdnConnTimer) {
        os << "MaxPdnConnTimer=" << *maxPdnConnTimer << ",";
    }
    if (pdnReqWaitInterval) {
        os << "PdnReqWaitInterval=" << *pdnReqWaitInterval << ",";
    }
    if (isApnDisabled) {
        os << "IsApnDisabled=" << *isApnDisabled << ",";
    }
    if (isEmergencySupported) {
        os << "IsEmergencySupported=" << *isEmergencySupported << ",";
    }
    if (isKelProfile) {
        os << "IsKelProfile=" << getIsKelProfile() << ",";
    }
    if (isIAProfile) {
        os << "IsIAProfile=" << getIsIAProfile() << ",";
    }
    return os.str();
}

AddProfileParams::AddProfileParams(bool persistent, TechType tech, bool iaProfile)
    : isPersistent(persistent), techType(tech) {
    isIAProfile = iaProfile;
}

AddProfileParams::AddProfileParams(const ProfileParams& params, bool persistent, TechType tech,
                                   bool iaProfile)
    : ProfileParams(params), isPersistent(persistent), techType(tech) {
    isIAProfile = iaProfile;
}

std::string AddProfileParams::dump() const {
    std::ostringstream os;
    os << techType << " persist=" << (isPersistent ? "true" : "false") << ": "
       << ProfileParams::dump();
    return os.str();
}

std::string FilterProfileParams::dump() const {
    std::ostringstream os;
    os << static_cast<FilterMatchType>(filterMatchCriteria) << ": ";
    if (filterByTechType) {
        os << "tech=" << *filterByTechType << ",";
    }
    if (filterByProfileId) {
        os << "id=" << *filterByProfileId << ",";
    }
    os << ProfileParams::dump();
    return os.str();
}

}  // namespace kel
