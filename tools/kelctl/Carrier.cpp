#include "Carrier.h"

#include <tinyxml2.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "InputFile.h"
#include "NumberText.h"  // the platform's number parsing (platform/vex)
#include "Output.h"
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
    "bearer",
    "bearer_bitmask",
    "network_type_bitmask",
    "profile_id",
};

// The attributes that limit an entry to some bearers or network types.
const char* const kBearerAttributes[] = {"bearer", "bearer_bitmask", "network_type_bitmask"};

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

// Reads one <apn> element into an entry. A value kelctl cannot map leaves its setting unset and
// adds a warning. Main thread only, for the life of one element.
class EntryReader {
  public:
    EntryReader(const tinyxml2::XMLElement& apn, CarrierEntry* out) : element(apn), entry(out) {}

    // The reasons for the values that were left out, one per value.
    std::vector<std::string> read() {
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
        readIp("protocol", false);
        readIp("roaming_protocol", true);
        readAuth();
        readNumber("max_conns");
        readNumber("max_conns_time");
        readNumber("wait_time");
        readEnabled();
        readBearers();
        readProfileId();
        return std::move(problems);
    }

  private:
    std::string text(const char* name) const {
        const char* value = element.Attribute(name);
        return value == nullptr ? std::string() : trim(value);
    }

    bool has(const char* name) const { return element.Attribute(name) != nullptr; }

    void leaveOut(const char* name, const std::string& accepted) {
        problems.push_back(std::string(name) + "=\"" + text(name) + "\" is not " + accepted +
                           "; the entry is applied without it");
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

    void readIp(const char* name, bool roaming) {
        if (!has(name)) {
            return;
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
            leaveOut(name, "one of IP, IPV6, IPV4V6");
            return;
        }
        if (roaming) {
            entry->settings.setRoamIPType(ip);
        } else {
            entry->settings.setHomeIPType(ip);
        }
    }

    void readAuth() {
        if (!has("authtype")) {
            return;
        }
        const std::string value = text("authtype");
        static const char* const kValues[] = {"-1", "0", "1", "2", "3"};
        for (int i = 0; i < 5; ++i) {
            if (value == kValues[i]) {
                // -1 is the database's "not set".
                if (i > 0) {
                    entry->settings.setAuthType(static_cast<kel::AuthType>(i - 1));
                }
                return;
            }
        }
        leaveOut("authtype", "one of -1, 0 (none), 1 (pap), 2 (chap), 3 (pap or chap)");
    }

    std::optional<int> number(const char* name, long max) {
        const std::string value = text(name);
        unsigned long parsed = 0;
        if (!vexwire::parseWhole(value, 10, &parsed) || parsed > static_cast<unsigned long>(max)) {
            leaveOut(name, "a number from 0 to " + std::to_string(max));
            return std::nullopt;
        }
        return static_cast<int>(parsed);
    }

    void readNumber(const char* name) {
        if (!has(name)) {
            return;
        }
        const auto n = number(name, 65535);
        if (!n) {
            return;
        }
        if (std::strcmp(name, "max_conns") == 0) {
            entry->settings.setMaxPdnsConnPerBlock(*n);
        } else if (std::strcmp(name, "max_conns_time") == 0) {
            entry->settings.setMaxPdnConnTimer(*n);
        } else {
            entry->settings.setPdnReqWaitInterval(*n);
        }
    }

    void readEnabled() {
        if (!has("carrier_enabled")) {
            return;
        }
        const auto enabled = yesNoFromName(text("carrier_enabled"));
        if (!enabled) {
            leaveOut("carrier_enabled", "true or false");
            return;
        }
        entry->settings.setIsApnDisabled(!*enabled);
    }

    void readBearers() {
        for (const char* name : kBearerAttributes) {
            const std::string value = text(name);
            // 0 is the database's "every bearer".
            if (!value.empty() && value != "0") {
                entry->bearers +=
                    (entry->bearers.empty() ? "" : " ") + std::string(name) + "=\"" + value + "\"";
            }
        }
    }

    void readProfileId() {
        if (has("profile_id")) {
            entry->profileId = number("profile_id", 255);
        }
    }

    const tinyxml2::XMLElement& element;
    CarrierEntry* entry;
    std::vector<std::string> problems;
};

std::string attributeOf(const tinyxml2::XMLElement& element, const char* name) {
    const char* text = element.Attribute(name);
    return text == nullptr ? std::string() : trim(text);
}

// An MCC or MNC as a number; nothing for one that is not a short run of digits.
std::optional<int> codeValue(const std::string& text) {
    if (text.empty() || text.size() > 6 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    int value = 0;
    return vexwire::parseWhole(text, 10, &value) ? std::optional<int>(value) : std::nullopt;
}

bool sameCode(const std::string& written, const std::string& wanted) {
    const auto a = codeValue(written);
    return written == wanted || (a && a == codeValue(wanted));
}

using Elements = std::vector<const tinyxml2::XMLElement*>;

std::string networkName(const CarrierSelector& selector) {
    return "mcc " + selector.mcc + " mnc " + selector.mnc;
}

// The network's entries: those spelling MCC and MNC as given, else those equal as numbers,
// which must then be spelled one way only.
bool networkEntries(const Elements& all, const CarrierSelector& selector, Elements* out,
                    std::string* why) {
    Elements spelled;
    Elements equal;
    std::set<std::pair<std::string, std::string>> spellings;
    for (const auto* element : all) {
        const std::string mcc = attributeOf(*element, "mcc");
        const std::string mnc = attributeOf(*element, "mnc");
        if (!sameCode(mcc, selector.mcc) || !sameCode(mnc, selector.mnc)) {
            continue;
        }
        equal.push_back(element);
        spellings.emplace(mcc, mnc);
        if (mcc == selector.mcc && mnc == selector.mnc) {
            spelled.push_back(element);
        }
    }
    if (!spelled.empty() || spellings.size() <= 1) {
        *out = spelled.empty() ? equal : spelled;
        return true;
    }
    std::string list;
    for (const auto& [mcc, mnc] : spellings) {
        list += (list.empty() ? "" : ", ") + mcc + "/" + mnc;
    }
    *why = networkName(selector) + " is written several ways (" + list +
           "); give MCC and MNC as the file writes them";
    return false;
}

// "gid \"BA\", spn \"Budget Talk\"": the virtual operators among elements, each once.
std::string mvnoSelectors(const Elements& elements) {
    constexpr std::size_t kShown = 8;
    std::vector<std::string> seen;
    std::unordered_set<std::string> known;
    for (const auto* element : elements) {
        const std::string type = lower(attributeOf(*element, "mvno_type"));
        if (type.empty()) {
            continue;
        }
        std::string one = "--mvno-type " + type + " --mvno-match \"" +
                          attributeOf(*element, "mvno_match_data") + "\"";
        if (known.insert(one).second) {
            seen.push_back(std::move(one));
        }
    }
    std::string text;
    for (std::size_t i = 0; i < seen.size() && i < kShown; ++i) {
        text += (i == 0 ? "" : ", ") + seen[i];
    }
    if (seen.size() > kShown) {
        text += " and " + std::to_string(seen.size() - kShown) + " more";
    }
    return text;
}

bool chooseEntries(const Elements& all, const CarrierSelector& selector, Elements* chosen,
                   std::string* why) {
    Elements network;
    if (!networkEntries(all, selector, &network, why)) {
        return false;
    }
    for (const auto* element : network) {
        const std::string type = lower(attributeOf(*element, "mvno_type"));
        const bool wanted =
            selector.mvnoType.empty()
                ? type.empty()
                : type == selector.mvnoType &&
                      lower(attributeOf(*element, "mvno_match_data")) == lower(selector.mvnoMatch);
        if (wanted) {
            chosen->push_back(element);
        }
    }
    if (!chosen->empty()) {
        return true;
    }
    const std::string operators = mvnoSelectors(network);
    if (selector.mvnoType.empty() && !operators.empty()) {
        *why = networkName(selector) + " has only virtual-operator entries; choose one with " +
               operators;
    } else if (!operators.empty()) {
        *why = "no entry for " + networkName(selector) + " " + selector.mvnoType + " \"" +
               selector.mvnoMatch + "\"; its virtual operators: " + operators;
    } else {
        *why = "no entry for " + networkName(selector);
    }
    return false;
}

std::string homeIpOf(const kel::ProfileParams& settings) {
    // The library counts an entry without home IP type as dual-stack.
    return ipName(settings.hasHomeIPType() ? settings.getHomeIPType() : kel::IPType::V4V6);
}

std::string apnOf(const kel::ProfileParams& settings) {
    return lower(settings.getApnName());
}

// Folds entries with the same settings into the first of them, and warns about entries of one
// APN and IP type that the database keeps apart only by bearer: the modem has one profile for
// both. Each entry is looked up once, so a file of one network with many entries is read in
// linear time.
void mergeDuplicates(const std::string& file, CarrierSelection* selection) {
    std::vector<CarrierEntry> kept;
    // Keyed in clear: the printed settings mask passwords, and two entries that differ only by
    // their password are two entries.
    std::unordered_map<std::string, std::size_t> keptBySettings;
    // Per APN and home IP type, the first kept line for each bearer limitation.
    std::unordered_map<std::string, std::map<std::string, int>> linesByBearers;
    for (auto& entry : selection->entries) {
        const std::string where = file + ":" + std::to_string(entry.line) + ": ";
        std::string key = entry.namesAttach ? "ia" : "-";
        for (const auto& [name, value] : settingsFields(entry.settings)) {
            key += '\0' + name + '\0' + value;
        }
        if (const auto same = keptBySettings.find(key); same != keptBySettings.end()) {
            CarrierEntry& first = kept[same->second];
            first.mergedLines.push_back(entry.line);
            first.mergedCarriers.push_back(entry.carrier);
            selection->warnings.push_back(
                where + "note: merged into line " + std::to_string(first.line) +
                (entry.bearers == first.bearers
                     ? ": the same entry again"
                     : ": the two differ only by bearer or network type"));
            continue;
        }
        auto& byBearers = linesByBearers[apnOf(entry.settings) + '\0' + homeIpOf(entry.settings)];
        // At most one kept limitation equals this one, so the second candidate differs.
        for (const auto& [bearers, line] : byBearers) {
            if (bearers != entry.bearers) {
                selection->warnings.push_back(
                    where + "warning: APN \"" + apnOf(entry.settings) + "\" (ip " +
                    homeIpOf(entry.settings) + ") is also at line " + std::to_string(line) +
                    " for other bearers; the modem keeps one profile for both: their APN types "
                    "are joined, and only the first entry that names ia sets up attach");
                break;
            }
        }
        byBearers.emplace(entry.bearers, entry.line);
        keptBySettings.emplace(std::move(key), kept.size());
        kept.push_back(std::move(entry));
    }
    selection->entries = std::move(kept);
}

}  // namespace

bool isDisabled(const CarrierEntry& entry) {
    return entry.settings.hasIsApnDisabled() && entry.settings.getIsApnDisabled();
}

const CarrierEntry* CarrierSelection::attachEntry() const {
    for (const auto& entry : entries) {
        if (entry.namesAttach && !isDisabled(entry)) {
            return &entry;
        }
    }
    return nullptr;
}

std::list<kel::ProfileParams> CarrierSelection::typeUpdates() const {
    std::list<kel::ProfileParams> updates;
    for (const auto& entry : entries) {
        if (!isDisabled(entry)) {
            updates.push_back(entry.settings);
        }
    }
    return updates;
}

bool loadCarrier(const std::string& path, const CarrierSelector& selector,
                 CarrierSelection* selection, std::string* error) {
    std::string text;
    if (!readInputFile(path, &text, error)) {
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
    selection->file = path;
    Elements all;
    for (const auto* element = root->FirstChildElement("apn"); element != nullptr;
         element = element->NextSiblingElement("apn")) {
        all.push_back(element);
    }
    selection->entriesInFile = static_cast<int>(all.size());
    Elements chosen;
    std::string why;
    if (!chooseEntries(all, selector, &chosen, &why)) {
        *error = path + ": " + why;
        return false;
    }
    constexpr std::size_t kClockEvery = 512;
    for (const auto* element : chosen) {
        if (selection->entries.size() % kClockEvery == 0 &&
            std::chrono::steady_clock::now() >= selector.deadline) {
            selection->ranOut = true;
            *error = path + ": --timeout ran out after " +
                     std::to_string(selection->entries.size()) + " of " +
                     std::to_string(chosen.size()) + " entries of the network were read";
            return false;
        }
        CarrierEntry entry;
        for (const auto& problem : EntryReader(*element, &entry).read()) {
            selection->warnings.push_back(path + ":" + std::to_string(entry.line) +
                                          ": warning: " + problem);
        }
        selection->entries.push_back(std::move(entry));
    }
    selection->selectedInFile = static_cast<int>(selection->entries.size());
    mergeDuplicates(path, selection);
    return true;
}

}  // namespace kelctl
