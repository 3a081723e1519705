#include "Carrier.h"

#include <tinyxml2.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "ValueNames.h"

namespace kelctl {
namespace {

// Every APN type; the database writes "*" for it.
constexpr unsigned int kAllTypes = 0xFFF;

// Attributes that kelctl maps or uses to select; every other one is reported as ignored.
const char* const kKnownAttributes[] = {
    "carrier",
    "mcc",
    "mnc",
    "apn",
    "type",
    "protocol",
    "roaming_protocol",
    "authtype",
    "user",
    "password",
    "max_conns",
    "max_conns_time",
    "wait_time",
    "carrier_enabled",
    "mvno_type",
    "mvno_match_data",
};

bool isKnownAttribute(const char* name) {
    for (const char* known : kKnownAttributes) {
        if (std::strcmp(name, known) == 0) {
            return true;
        }
    }
    return false;
}

std::string trim(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return "";
    }
    const std::size_t last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

std::string xmlProblem(tinyxml2::XMLError code) {
    static const std::pair<tinyxml2::XMLError, const char*> kProblems[] = {
        {tinyxml2::XML_ERROR_PARSING_ATTRIBUTE, "malformed attribute"},
        {tinyxml2::XML_ERROR_PARSING_ELEMENT, "malformed element"},
        {tinyxml2::XML_ERROR_MISMATCHED_ELEMENT, "closing tag does not match the open element"},
        {tinyxml2::XML_ERROR_PARSING_COMMENT, "unterminated comment"},
        {tinyxml2::XML_ERROR_PARSING_DECLARATION, "malformed declaration"},
        {tinyxml2::XML_ERROR_PARSING_TEXT, "malformed text or entity"},
        {tinyxml2::XML_ERROR_EMPTY_DOCUMENT, "the file holds no XML"},
        {tinyxml2::XML_ERROR_PARSING, "an element is never closed"},
    };
    for (const auto& [known, text] : kProblems) {
        if (known == code) {
            return text;
        }
    }
    return std::string("malformed XML (") + tinyxml2::XMLDocument::ErrorIDToName(code) + ")";
}

// Reads one <apn> element into an entry; false with the reason for a value kelctl cannot map.
// Main thread only, for the life of one element.
class EntryReader {
  public:
    EntryReader(const tinyxml2::XMLElement& apn, CarrierEntry* out) : element(apn), entry(out) {}

    bool read(std::string* why) {
        entry->line = element.GetLineNum();
        entry->carrier = text("carrier");
        const std::string apn = text("apn");
        // The database leaves the APN empty where the network assigns it.
        if (!apn.empty()) {
            entry->settings.setApnName(apn);
        }
        readTypes();
        // Credentials are taken as written: a blank may be part of them.
        if (const char* user = element.Attribute("user"); user != nullptr && *user != '\0') {
            entry->settings.setUserName(user);
        }
        if (const char* password = element.Attribute("password");
            password != nullptr && *password != '\0') {
            entry->settings.setPassword(password);
        }
        for (const auto* attribute = element.FirstAttribute(); attribute != nullptr;
             attribute = attribute->Next()) {
            if (!isKnownAttribute(attribute->Name())) {
                entry->ignoredAttributes.emplace_back(attribute->Name());
            }
        }
        return readIp("protocol", false, why) && readIp("roaming_protocol", true, why) &&
               readAuth(why) && readNumber("max_conns", why) && readNumber("max_conns_time", why) &&
               readNumber("wait_time", why) && readEnabled(why);
    }

  private:
    std::string text(const char* name) const {
        const char* value = element.Attribute(name);
        return value == nullptr ? std::string() : trim(value);
    }

    bool has(const char* name) const { return element.Attribute(name) != nullptr; }

    bool refuse(const char* name, const std::string& accepted, std::string* why) const {
        *why = std::string(name) + "=\"" + text(name) + "\" is not " + accepted;
        return false;
    }

    void readTypes() {
        const std::string types = text("type");
        // No type at all means the APN serves every type, as the database reads it.
        unsigned int mask = types.empty() ? kAllTypes : 0;
        std::stringstream list(types);
        std::string name;
        while (std::getline(list, name, ',')) {
            name = trim(name);
            if (name.empty()) {
                continue;
            }
            if (name == "*") {
                mask |= kAllTypes;
            } else if (const auto bit = apnTypeBit(name)) {
                mask |= *bit;
                entry->namesAttach =
                    entry->namesAttach || *bit == static_cast<unsigned int>(kel::ApnTypes::IA);
            } else {
                entry->ignoredTypes.push_back(name);
            }
        }
        entry->settings.setApnTypesMask(mask);
    }

    bool readIp(const char* name, bool roaming, std::string* why) {
        if (!has(name)) {
            return true;
        }
        const std::string value = lower(text(name));
        kel::IPType ip = kel::IPType::UNKNOWN;
        if (value == "ip") {
            ip = kel::IPType::V4;
        } else if (value == "ipv6") {
            ip = kel::IPType::V6;
        } else if (value == "ipv4v6") {
            ip = kel::IPType::V4V6;
        } else {
            return refuse(name, "one of IP, IPV6, IPV4V6", why);
        }
        if (roaming) {
            entry->settings.setRoamIPType(ip);
        } else {
            entry->settings.setHomeIPType(ip);
        }
        return true;
    }

    bool readAuth(std::string* why) {
        if (!has("authtype")) {
            return true;
        }
        const std::string value = text("authtype");
        static const char* const kValues[] = {"-1", "0", "1", "2", "3"};
        for (int i = 0; i < 5; ++i) {
            if (value == kValues[i]) {
                // -1 is the database's "not set".
                if (i > 0) {
                    entry->settings.setAuthType(static_cast<kel::AuthType>(i - 1));
                }
                return true;
            }
        }
        return refuse("authtype", "one of -1, 0 (none), 1 (pap), 2 (chap), 3 (pap or chap)", why);
    }

    bool readNumber(const char* name, std::string* why) {
        if (!has(name)) {
            return true;
        }
        const std::string value = text(name);
        char* end = nullptr;
        errno = 0;
        const long number = std::strtol(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0' || errno != 0 || number < 0 || number > 65535) {
            return refuse(name, "a number from 0 to 65535", why);
        }
        const int n = static_cast<int>(number);
        if (std::strcmp(name, "max_conns") == 0) {
            entry->settings.setMaxPdnsConnPerBlock(n);
        } else if (std::strcmp(name, "max_conns_time") == 0) {
            entry->settings.setMaxPdnConnTimer(n);
        } else {
            entry->settings.setPdnReqWaitInterval(n);
        }
        return true;
    }

    bool readEnabled(std::string* why) {
        if (!has("carrier_enabled")) {
            return true;
        }
        const auto enabled = yesNoFromName(text("carrier_enabled"));
        if (!enabled) {
            return refuse("carrier_enabled", "true or false", why);
        }
        entry->settings.setIsApnDisabled(!*enabled);
        return true;
    }

    const tinyxml2::XMLElement& element;
    CarrierEntry* entry;
};

bool selected(const tinyxml2::XMLElement& element, const CarrierSelector& selector) {
    auto value = [&element](const char* name) {
        const char* text = element.Attribute(name);
        return text == nullptr ? std::string() : trim(text);
    };
    if (value("mcc") != selector.mcc || value("mnc") != selector.mnc) {
        return false;
    }
    if (selector.mvnoType.empty()) {
        return value("mvno_type").empty();
    }
    return lower(value("mvno_type")) == selector.mvnoType &&
           lower(value("mvno_match_data")) == lower(selector.mvnoMatch);
}

bool readFile(const std::string& path, std::string* text, std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = path + ": cannot read: " + std::strerror(errno);
        return false;
    }
    std::ostringstream content;
    content << in.rdbuf();
    if (in.bad()) {
        *error = path + ": cannot read: " + std::strerror(errno);
        return false;
    }
    *text = content.str();
    return true;
}

}  // namespace

const CarrierEntry* CarrierPlan::attachEntry() const {
    for (const auto& entry : entries) {
        if (entry.namesAttach) {
            return &entry;
        }
    }
    return nullptr;
}

std::list<kel::ProfileParams> CarrierPlan::typeUpdates() const {
    std::list<kel::ProfileParams> updates;
    for (const auto& entry : entries) {
        updates.push_back(entry.settings);
    }
    return updates;
}

bool loadCarrier(const std::string& path, const CarrierSelector& selector, CarrierPlan* plan,
                 std::string* error) {
    std::string text;
    if (!readFile(path, &text, error)) {
        return false;
    }
    tinyxml2::XMLDocument document;
    const tinyxml2::XMLError status = document.Parse(text.c_str(), text.size());
    if (status != tinyxml2::XML_SUCCESS) {
        *error = path + ":" + std::to_string(document.ErrorLineNum()) + ": " + xmlProblem(status);
        return false;
    }
    const tinyxml2::XMLElement* root = document.RootElement();
    if (root == nullptr || std::strcmp(root->Name(), "apns") != 0) {
        *error = path + ":" + std::to_string(root == nullptr ? 1 : root->GetLineNum()) +
                 ": the file is not a carrier APN database (its root element is not <apns>)";
        return false;
    }
    plan->file = path;
    for (const auto* element = root->FirstChildElement("apn"); element != nullptr;
         element = element->NextSiblingElement("apn")) {
        ++plan->entriesInFile;
        if (!selected(*element, selector)) {
            continue;
        }
        CarrierEntry entry;
        std::string why;
        if (!EntryReader(*element, &entry).read(&why)) {
            *error = path + ":" + std::to_string(element->GetLineNum()) + ": " + why;
            return false;
        }
        plan->entries.push_back(std::move(entry));
    }
    if (plan->entries.empty()) {
        std::string who = "mcc " + selector.mcc + " mnc " + selector.mnc;
        if (!selector.mvnoType.empty()) {
            who += " (" + selector.mvnoType + " " + selector.mvnoMatch + ")";
        }
        *error = path + ": no entry for " + who;
        return false;
    }
    return true;
}

}  // namespace kelctl
