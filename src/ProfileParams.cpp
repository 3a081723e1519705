#include "kel/ProfileParams.h"

#include <ostream>
#include <string>

#include "DumpText.h"

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
void appendMask(std::string& out, std::uint32_t mask, const BitName (&names)[N], const char* none) {
    if (mask == 0) {
        out += none;
        return;
    }
    for (const BitName& entry : names) {
        if ((mask & entry.bit) != 0) {
            out += entry.name;
        }
    }
}

// The printed name of a value, or null for a value without one.
const char* nameOf(TechType value) {
    switch (value) {
        case TechType::TYPE_3GPP:
            return "3GPP";
        case TechType::TYPE_3GPP2:
            return "3GPP2";
    }
    return nullptr;
}

const char* nameOf(IPType value) {
    switch (value) {
        case IPType::UNKNOWN:
            return "UNKNOWN";
        case IPType::V4:
            return "V4";
        case IPType::V6:
            return "V6";
        case IPType::V4V6:
            return "V4V6";
    }
    return nullptr;
}

const char* nameOf(AuthType value) {
    switch (value) {
        case AuthType::NONE:
            return "NONE";
        case AuthType::PAP:
            return "PAP";
        case AuthType::CHAP:
            return "CHAP";
        case AuthType::PAP_CHAP:
            return "PAP_CHAP";
    }
    return nullptr;
}

const char* nameOf(ApnClass value) {
    switch (value) {
        case ApnClass::IMS:
            return "IMS";
        case ApnClass::ADMN:
            return "ADMN";
        case ApnClass::INET:
            return "INET";
        case ApnClass::APP:
            return "APP";
    }
    return nullptr;
}

template <typename Enum>
void appendNamed(std::string& out, Enum value) {
    if (const char* name = nameOf(value)) {
        out += name;
    } else {
        appendText(out, static_cast<std::int32_t>(value));
    }
}

}  // namespace

void appendText(std::string& out, TechType value) {
    appendNamed(out, value);
}

void appendText(std::string& out, IPType value) {
    appendNamed(out, value);
}

void appendText(std::string& out, AuthType value) {
    appendNamed(out, value);
}

void appendText(std::string& out, ApnClass value) {
    appendNamed(out, value);
}

void appendText(std::string& out, ApnTypes mask) {
    appendMask(out, static_cast<std::uint32_t>(mask), kApnTypeNames, "NONE");
}

// "None", unlike the "NONE" of the APN types: deliberate, both spellings are kept as they are.
void appendText(std::string& out, FilterMatchType mask) {
    appendMask(out, static_cast<std::uint32_t>(mask), kFilterMatchNames, "None");
}

std::ostream& operator<<(std::ostream& os, TechType value) {
    return os << textOf(value);
}

std::ostream& operator<<(std::ostream& os, IPType value) {
    return os << textOf(value);
}

std::ostream& operator<<(std::ostream& os, AuthType value) {
    return os << textOf(value);
}

std::ostream& operator<<(std::ostream& os, ApnClass value) {
    return os << textOf(value);
}

std::ostream& operator<<(std::ostream& os, ApnTypes mask) {
    return os << textOf(mask);
}

std::ostream& operator<<(std::ostream& os, FilterMatchType mask) {
    return os << textOf(mask);
}

std::string toString(TechType value) {
    return textOf(value);
}

std::string toString(IPType value) {
    return textOf(value);
}

std::string toString(AuthType value) {
    return textOf(value);
}

std::string toString(ApnClass value) {
    return textOf(value);
}

std::string toString(ApnTypes mask) {
    return textOf(mask);
}

std::string toString(FilterMatchType mask) {
    return textOf(mask);
}

std::string ProfileParams::dump() const {
    std::string text;
    appendField(text, "ApnName=", apnName);
    appendField(text, "UserName=", userName);
    // In clear on purpose: the dump is the library's diagnostic view of a profile.
    appendField(text, "Password=", password);
    appendField(text, "AuthType=", authType);
    appendField(text, "HomeIPType=", homeIPType);
    appendField(text, "RoamIPType=", roamIPType);
    if (apnTypesMask) {
        text += "ApnTypesMask=";
        appendText(text, static_cast<ApnTypes>(*apnTypesMask));
        text += ',';
    }
    appendField(text, "ApnClass=", apnClass);
    appendField(text, "IsClatEnabled=", isClatEnabled);
    appendField(text, "MaxPdnsConnPerBlock=", maxPdnsConnPerBlock);
    appendField(text, "MaxPdnConnTimer=", maxPdnConnTimer);
    appendField(text, "PdnReqWaitInterval=", pdnReqWaitInterval);
    appendField(text, "IsApnDisabled=", isApnDisabled);
    appendField(text, "IsEmergencySupported=", isEmergencySupported);
    appendField(text, "IsKelProfile=", isKelProfile);
    appendField(text, "IsIAProfile=", isIAProfile);
    return text;
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
    std::string text;
    appendText(text, techType);
    text += isPersistent ? " persist=true: " : " persist=false: ";
    text += ProfileParams::dump();
    return text;
}

std::string FilterProfileParams::dump() const {
    std::string text;
    appendText(text, static_cast<FilterMatchType>(filterMatchCriteria));
    text += ": ";
    appendField(text, "tech=", filterByTechType);
    appendField(text, "id=", filterByProfileId);
    text += ProfileParams::dump();
    return text;
}

}  // namespace kel
