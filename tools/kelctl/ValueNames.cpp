#include "ValueNames.h"

#include <cstdio>
#include <vector>

namespace kelctl {
namespace {

template <typename T>
struct Named {
    const char* name;
    T value;
};

const std::vector<Named<kel::TechType>> kTechs = {
    {"3gpp", kel::TechType::TYPE_3GPP},
    {"3gpp2", kel::TechType::TYPE_3GPP2},
};

const std::vector<Named<kel::IPType>> kIpTypes = {
    {"v4", kel::IPType::V4},
    {"v6", kel::IPType::V6},
    {"v4v6", kel::IPType::V4V6},
};

const std::vector<Named<kel::AuthType>> kAuthTypes = {
    {"none", kel::AuthType::NONE},
    {"pap", kel::AuthType::PAP},
    {"chap", kel::AuthType::CHAP},
    {"pap_chap", kel::AuthType::PAP_CHAP},
};

const std::vector<Named<kel::ApnClass>> kClasses = {
    {"ims", kel::ApnClass::IMS},
    {"admn", kel::ApnClass::ADMN},
    {"inet", kel::ApnClass::INET},
    {"app", kel::ApnClass::APP},
};

// In bit order, so that a printed list follows the bits.
const std::vector<Named<kel::ApnTypes>> kApnTypes = {
    {"default", kel::ApnTypes::DEFAULT}, {"mms", kel::ApnTypes::MMS},
    {"supl", kel::ApnTypes::SUPL},       {"dun", kel::ApnTypes::DUN},
    {"hipri", kel::ApnTypes::HIPRI},     {"fota", kel::ApnTypes::FOTA},
    {"ims", kel::ApnTypes::IMS},         {"cbs", kel::ApnTypes::CBS},
    {"ia", kel::ApnTypes::IA},           {"emergency", kel::ApnTypes::EMERGENCY},
    {"mcx", kel::ApnTypes::MCX},         {"xcap", kel::ApnTypes::XCAP},
};

const std::vector<Named<kel::FilterMatchType>> kCriteria = {
    {"home-subset", kel::FilterMatchType::HomeIPSubset},
    {"roam-subset", kel::FilterMatchType::RoamIPSubset},
    {"apn-subset", kel::FilterMatchType::ApnNameSubset},
    {"types-subset", kel::FilterMatchType::ApnTypeBitmaskSubset},
    {"home-superset", kel::FilterMatchType::HomeIPSuperset},
    {"roam-superset", kel::FilterMatchType::RoamIPSuperset},
};

template <typename T>
std::optional<T> find(const std::vector<Named<T>>& table, const std::string& name) {
    const std::string wanted = lower(name);
    for (const auto& entry : table) {
        if (wanted == entry.name) {
            return entry.value;
        }
    }
    return std::nullopt;
}

template <typename T>
std::string nameOf(const std::vector<Named<T>>& table, T value) {
    for (const auto& entry : table) {
        if (entry.value == value) {
            return entry.name;
        }
    }
    return std::to_string(static_cast<long long>(value));
}

template <typename T>
std::string allNames(const std::vector<Named<T>>& table) {
    std::string text;
    for (const auto& entry : table) {
        text += text.empty() ? "" : ", ";
        text += entry.name;
    }
    return text;
}

template <typename T>
std::optional<unsigned int> bitsFromNames(const std::vector<Named<T>>& table,
                                          const std::string& list, std::string* bad) {
    if (lower(list) == "none") {
        return 0u;
    }
    unsigned int bits = 0;
    std::size_t start = 0;
    while (start <= list.size()) {
        std::size_t comma = list.find(',', start);
        if (comma == std::string::npos) {
            comma = list.size();
        }
        const std::string name = list.substr(start, comma - start);
        const auto bit = find(table, name);
        if (!bit) {
            *bad = name;
            return std::nullopt;
        }
        bits |= static_cast<unsigned int>(*bit);
        start = comma + 1;
    }
    return bits;
}

}  // namespace

std::string lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

std::optional<kel::TechType> techFromName(const std::string& name) {
    return find(kTechs, name);
}
std::optional<kel::IPType> ipFromName(const std::string& name) {
    return find(kIpTypes, name);
}
std::optional<kel::AuthType> authFromName(const std::string& name) {
    return find(kAuthTypes, name);
}
std::optional<kel::ApnClass> classFromName(const std::string& name) {
    return find(kClasses, name);
}

std::optional<bool> yesNoFromName(const std::string& name) {
    const std::string value = lower(name);
    if (value == "yes" || value == "true" || value == "1") {
        return true;
    }
    if (value == "no" || value == "false" || value == "0") {
        return false;
    }
    return std::nullopt;
}

std::optional<unsigned int> typesFromNames(const std::string& list, std::string* bad) {
    return bitsFromNames(kApnTypes, list, bad);
}

std::optional<unsigned int> criteriaFromNames(const std::string& list, std::string* bad) {
    return bitsFromNames(kCriteria, list, bad);
}

std::optional<unsigned int> apnTypeBit(const std::string& name) {
    const auto bit = find(kApnTypes, name);
    if (!bit) {
        return std::nullopt;
    }
    return static_cast<unsigned int>(*bit);
}

std::string techName(kel::TechType tech) {
    return nameOf(kTechs, tech);
}

std::string ipName(kel::IPType ip) {
    return ip == kel::IPType::UNKNOWN ? "unknown" : nameOf(kIpTypes, ip);
}

std::string authName(kel::AuthType auth) {
    return nameOf(kAuthTypes, auth);
}
std::string className(kel::ApnClass apnClass) {
    return nameOf(kClasses, apnClass);
}

std::string typesNames(unsigned int mask) {
    if (mask == 0) {
        return "none";
    }
    std::string text;
    unsigned int known = 0;
    for (const auto& entry : kApnTypes) {
        const auto bit = static_cast<unsigned int>(entry.value);
        known |= bit;
        if ((mask & bit) != 0) {
            text += text.empty() ? "" : ",";
            text += entry.name;
        }
    }
    if ((mask & ~known) != 0) {
        char hex[16];
        std::snprintf(hex, sizeof(hex), "0x%x", mask & ~known);
        text += text.empty() ? "" : ",";
        text += hex;
    }
    return text;
}

std::string yesNo(bool value) {
    return value ? "yes" : "no";
}

std::string techNames() {
    return allNames(kTechs);
}
std::string ipNames() {
    return allNames(kIpTypes);
}
std::string authNames() {
    return allNames(kAuthTypes);
}
std::string classNames() {
    return allNames(kClasses);
}
std::string typeNames() {
    return allNames(kApnTypes) + " (comma-separated), or none";
}
std::string criteriaNames() {
    return allNames(kCriteria) + " (comma-separated)";
}

}  // namespace kelctl
