// The seed and state file format: one "profile ..." line per profile.
#include <cctype>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <string_view>
#include <tuple>

#include "NumberText.h"
#include "ProfileText.h"
#include "vexsim/SimModem.h"

namespace vexsim {
namespace {

// A word of the input as an error message quotes it: at most 40 bytes, each byte that is not
// printable ASCII shown as '?', so that a hostile file can neither flood nor steer a terminal.
std::string quoted(const std::string& word) {
    constexpr size_t kShown = 40;
    std::string text = "'";
    for (size_t i = 0; i < word.size() && i < kShown; ++i) {
        const unsigned char c = static_cast<unsigned char>(word[i]);
        text += c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?';
    }
    return text + (word.size() > kShown ? "'..." : "'");
}

struct Named {
    const char* name;
    int value;
};

constexpr Named kPdpTypes[] = {{"ipv4", WDS_PDP_TYPE_PDP_IPV4_V01},
                               {"ppp", WDS_PDP_TYPE_PDP_PPP_V01},
                               {"ipv6", WDS_PDP_TYPE_PDP_IPV6_V01},
                               {"ipv4v6", WDS_PDP_TYPE_PDP_IPV4V6_V01}};
constexpr Named kCommonPdpTypes[] = {{"ipv4", WDS_COMMON_PDP_TYPE_PDP_IPV4_V01},
                                     {"ipv6", WDS_COMMON_PDP_TYPE_PDP_IPV6_V01},
                                     {"ipv4v6", WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01}};
constexpr Named kPdnTypes[] = {{"ipv4", WDS_PROFILE_PDN_TYPE_IPV4_V01},
                               {"ipv6", WDS_PROFILE_PDN_TYPE_IPV6_V01},
                               {"ipv4v6", WDS_PROFILE_PDN_TYPE_IPV4_IPV6_V01},
                               {"unspec", WDS_PROFILE_PDN_TYPE_UNSPECIFIED_V01}};
// The 3GPP authentication preference mask and the 3GPP2 protocol number share these values.
constexpr Named kAuth[] = {{"none", 0}, {"pap", 1}, {"chap", 2}, {"pap_chap", 3}};
constexpr Named kApnTypes[] = {{"default", 0x001},   {"ims", 0x002},  {"mms", 0x004},
                               {"dun", 0x008},       {"supl", 0x010}, {"hipri", 0x020},
                               {"fota", 0x040},      {"cbs", 0x080},  {"ia", 0x100},
                               {"emergency", 0x200}, {"xcap", 0x400}, {"mcx", 0x800}};
constexpr uint64_t kNamedApnTypes = 0xFFF;

template <size_t N>
bool lookupName(const Named (&table)[N], const std::string& name, int* value) {
    for (const Named& entry : table) {
        if (name == entry.name) {
            *value = entry.value;
            return true;
        }
    }
    return false;
}

template <size_t N>
const char* nameOf(const Named (&table)[N], int value) {
    for (const Named& entry : table) {
        if (entry.value == value) {
            return entry.name;
        }
    }
    return nullptr;
}

bool parseNumber(const std::string& text, uint64_t max, uint64_t* value) {
    return vexwire::parseUnsignedC(text, max, value);
}

bool parseBool(const std::string& text, uint8_t* value) {
    if (text == "yes") {
        *value = 1;
        return true;
    }
    if (text == "no") {
        *value = 0;
        return true;
    }
    return false;
}

bool parseApnTypes(const std::string& text, uint64_t* mask) {
    *mask = 0;
    std::stringstream items(text);
    std::string item;
    bool any = false;
    while (std::getline(items, item, ',')) {
        int bit;
        uint64_t number;
        if (lookupName(kApnTypes, item, &bit)) {
            *mask |= static_cast<uint64_t>(bit);
        } else if (parseNumber(item, UINT64_MAX, &number)) {
            *mask |= number;
        } else {
            return false;
        }
        any = true;
    }
    return any;
}

std::string formatApnTypes(uint64_t mask) {
    if (mask == 0 || (mask & ~kNamedApnTypes) != 0) {
        char hex[32];
        std::snprintf(hex, sizeof hex, "0x%llx", static_cast<unsigned long long>(mask));
        return hex;
    }
    std::string out;
    for (const Named& entry : kApnTypes) {
        if ((mask & static_cast<uint64_t>(entry.value)) != 0) {
            out += out.empty() ? "" : ",";
            out += entry.name;
        }
    }
    return out;
}

bool setText(char* field, size_t capacity, const std::string& value) {
    if (value.size() >= capacity || value.find('\0') != std::string::npos) {
        return false;
    }
    std::memset(field, 0, capacity);
    std::memcpy(field, value.data(), value.size());
    return true;
}

// Splits a line into words; a double-quoted stretch may hold blanks and the escapes \" \\ \n \t
// \xHH. '#' outside quotes ends the line.
bool splitWords(const std::string& line, std::vector<std::string>* words, std::string* error) {
    std::string word;
    bool inWord = false;
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (c == '#') {
            break;
        }
        if (c == ' ' || c == '\t' || c == '\r') {
            if (inWord) {
                words->push_back(word);
                word.clear();
                inWord = false;
            }
            continue;
        }
        inWord = true;
        if (c != '"') {
            word += c;
            continue;
        }
        bool closed = false;
        for (++i; i < line.size(); ++i) {
            c = line[i];
            if (c == '"') {
                closed = true;
                break;
            }
            if (c != '\\') {
                word += c;
                continue;
            }
            if (++i >= line.size()) {
                break;
            }
            char e = line[i];
            if (e == 'n') {
                word += '\n';
            } else if (e == 't') {
                word += '\t';
            } else if (e == 'x' && i + 2 < line.size() &&
                       std::isxdigit(static_cast<unsigned char>(line[i + 1])) &&
                       std::isxdigit(static_cast<unsigned char>(line[i + 2]))) {
                unsigned int byte = 0;
                vexwire::parseWhole(std::string_view(line).substr(i + 1, 2), 16, &byte);
                word += static_cast<char>(byte);
                i += 2;
            } else if (e == '"' || e == '\\') {
                word += e;
            } else {
                *error = "unknown escape " + quoted(std::string("\\") + e);
                return false;
            }
        }
        if (!closed) {
            *error = "unterminated quote";
            return false;
        }
    }
    if (inWord) {
        words->push_back(word);
    }
    return true;
}

// Applies the key=value words of one line to a profile. Threads: its caller's only.
class LineParser {
  public:
    explicit LineParser(Profile* target) : profile(*target), s(target->settings) {}

    bool apply(const std::string& key, const std::string& value, std::string* error);

  private:
    bool text(uint8_t& valid, char* field, size_t capacity, const std::string& value,
              std::string* error) {
        if (!setText(field, capacity, value)) {
            *error = "longer than " + std::to_string(capacity - 1) + " characters";
            return false;
        }
        valid = 1;
        return true;
    }
    template <typename Enum, size_t N>
    bool named(uint8_t& valid, Enum& field, const Named (&table)[N], const std::string& value) {
        int number;
        if (!lookupName(table, value, &number)) {
            return false;
        }
        field = static_cast<Enum>(number);
        valid = 1;
        return true;
    }
    template <typename Int>
    bool number(uint8_t& valid, Int& field, uint64_t max, const std::string& value) {
        uint64_t parsed;
        if (!parseNumber(value, max, &parsed)) {
            return false;
        }
        field = static_cast<Int>(parsed);
        valid = 1;
        return true;
    }
    bool flag(uint8_t& valid, uint8_t& field, const std::string& value) {
        if (!parseBool(value, &field)) {
            return false;
        }
        valid = 1;
        return true;
    }

    bool apply3gpp(const std::string& key, const std::string& value, bool* known,
                   std::string* error);
    bool apply3gpp2(const std::string& key, const std::string& value, bool* known,
                    std::string* error);

    Profile& profile;
    wds_profile_settings_v01& s;
};

bool LineParser::apply3gpp(const std::string& key, const std::string& value, bool* known,
                           std::string* error) {
    *known = true;
    if (key == "name") {
        return text(s.profile_name_valid, s.profile_name, sizeof s.profile_name, value, error);
    }
    if (key == "apn") {
        return text(s.apn_name_valid, s.apn_name, sizeof s.apn_name, value, error);
    }
    if (key == "user") {
        return text(s.username_valid, s.username, sizeof s.username, value, error);
    }
    if (key == "password") {
        return text(s.password_valid, s.password, sizeof s.password, value, error);
    }
    if (key == "pdp") {
        return named(s.pdp_type_valid, s.pdp_type, kPdpTypes, value);
    }
    if (key == "common_pdp") {
        return named(s.common_pdp_type_valid, s.common_pdp_type, kCommonPdpTypes, value);
    }
    if (key == "lte_roam") {
        return named(s.lte_roaming_pdp_type_valid, s.lte_roaming_pdp_type, kCommonPdpTypes, value);
    }
    if (key == "umts_roam") {
        return named(s.umts_roaming_pdp_type_valid, s.umts_roaming_pdp_type, kCommonPdpTypes,
                     value);
    }
    if (key == "auth") {
        int mask;
        if (!lookupName(kAuth, value, &mask)) {
            return false;
        }
        s.authentication_preference = static_cast<wds_auth_pref_mask_v01>(mask);
        s.authentication_preference_valid = 1;
        return true;
    }
    if (key == "class") {
        return number(s.apn_class_valid, s.apn_class, 0xFF, value);
    }
    if (key == "emergency") {
        return flag(s.support_emergency_calls_valid, s.support_emergency_calls, value);
    }
    if (key == "apn_disabled") {
        return flag(s.apn_disabled_flag_valid, s.apn_disabled_flag, value);
    }
    if (key == "max_pdn_conn_per_block") {
        return number(s.max_pdn_conn_per_block_valid, s.max_pdn_conn_per_block, 0xFFFF, value);
    }
    if (key == "max_pdn_conn_timer") {
        return number(s.max_pdn_conn_timer_valid, s.max_pdn_conn_timer, 0xFFFF, value);
    }
    if (key == "pdn_req_wait_interval") {
        return number(s.pdn_req_wait_interval_valid, s.pdn_req_wait_interval, 0xFFFF, value);
    }
    *known = false;
    return false;
}

bool LineParser::apply3gpp2(const std::string& key, const std::string& value, bool* known,
                            std::string* error) {
    *known = true;
    if (key == "apn") {
        return text(s.apn_string_valid, s.apn_string, sizeof s.apn_string, value, error);
    }
    if (key == "user") {
        return text(s.user_id_valid, s.user_id, sizeof s.user_id, value, error);
    }
    if (key == "password") {
        return text(s.auth_password_valid, s.auth_password, sizeof s.auth_password, value, error);
    }
    if (key == "pdn_user") {
        return text(s.pdn_level_user_id_valid, s.pdn_level_user_id, sizeof s.pdn_level_user_id,
                    value, error);
    }
    if (key == "pdn_password") {
        return text(s.pdn_level_auth_password_valid, s.pdn_level_auth_password,
                    sizeof s.pdn_level_auth_password, value, error);
    }
    if (key == "pdn") {
        return named(s.pdn_type_valid, s.pdn_type, kPdnTypes, value);
    }
    if (key == "auth") {
        return named(s.profile_auth_protocol_valid, s.profile_auth_protocol, kAuth, value);
    }
    if (key == "pdn_auth") {
        return named(s.pdn_level_auth_protocol_valid, s.pdn_level_auth_protocol, kAuth, value);
    }
    if (key == "class") {
        return number(s.apn_class_3gpp2_valid, s.apn_class_3gpp2, 0xFF, value);
    }
    *known = false;
    return false;
}

bool LineParser::apply(const std::string& key, const std::string& value, std::string* error) {
    uint64_t number;
    if (key == "sub") {
        if (!parseNumber(value, 15, &number)) {
            return false;
        }
        profile.subscription = static_cast<int>(number);
        return true;
    }
    if (key == "index") {
        if (!parseNumber(value, 255, &number) || number == 0) {
            return false;
        }
        profile.index = static_cast<uint8_t>(number);
        return true;
    }
    if (key == "persistent") {
        uint8_t persistent;
        if (!parseBool(value, &persistent)) {
            return false;
        }
        profile.persistent = persistent != 0;
        return true;
    }
    if (key == "types") {
        if (!parseApnTypes(value, &s.apn_type_mask)) {
            return false;
        }
        s.apn_type_mask_valid = 1;
        return true;
    }
    if (key == "clat") {
        return flag(s.clat_enabled_valid, s.clat_enabled, value);
    }
    bool known = false;
    bool ok = profile.type == WDS_PROFILE_TYPE_3GPP_V01 ? apply3gpp(key, value, &known, error)
                                                        : apply3gpp2(key, value, &known, error);
    if (!known) {
        *error = "unknown key " + quoted(key);
    }
    return ok;
}

bool parseLine(const std::vector<std::string>& words, Profile* profile, std::string* error) {
    if (words[0] != "profile") {
        *error = "expected 'profile', found " + quoted(words[0]);
        return false;
    }
    if (words.size() < 2 || (words[1] != "3gpp" && words[1] != "3gpp2")) {
        *error = "expected 3gpp or 3gpp2 after 'profile'";
        return false;
    }
    profile->type = words[1] == "3gpp" ? WDS_PROFILE_TYPE_3GPP_V01 : WDS_PROFILE_TYPE_3GPP2_V01;
    profile->persistent = true;
    LineParser parser(profile);
    std::set<std::string> seen;
    for (size_t i = 2; i < words.size(); ++i) {
        size_t eq = words[i].find('=');
        if (eq == std::string::npos || eq == 0) {
            *error = "expected key=value, found " + quoted(words[i]);
            return false;
        }
        std::string key = words[i].substr(0, eq);
        std::string value = words[i].substr(eq + 1);
        if (!seen.insert(key).second) {
            *error = quoted(key) + " given twice";
            return false;
        }
        std::string why;
        if (!parser.apply(key, value, &why)) {
            if (why.empty()) {
                *error = "bad value for " + key + ": " + quoted(value);
            } else if (why.rfind("unknown key", 0) == 0) {
                *error = why;
            } else {
                *error = key + ": " + why;
            }
            return false;
        }
    }
    return true;
}

}  // namespace

std::string quoteValue(const std::string& value) {
    bool plain = !value.empty();
    for (unsigned char c : value) {
        if (c <= ' ' || c == '"' || c == '\\' || c == '#' || c >= 0x7F) {
            plain = false;
        }
    }
    if (plain) {
        return value;
    }
    std::string out = "\"";
    for (unsigned char c : value) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < ' ' || c == 0x7F) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

bool splitProfileWords(const std::string& line, std::vector<std::string>* words,
                       std::string* error) {
    return splitWords(line, words, error);
}

bool parseProfiles(const std::string& text, std::vector<Profile>* out, std::string* error) {
    std::vector<Profile> parsed;
    std::set<std::tuple<int, int, int>> indexes;
    std::stringstream lines(text);
    std::string line;
    int lineNumber = 0;
    while (std::getline(lines, line)) {
        ++lineNumber;
        std::vector<std::string> words;
        std::string why;
        Profile profile;
        bool ok = splitWords(line, &words, &why);
        if (ok && words.empty()) {
            continue;
        }
        ok = ok && parseLine(words, &profile, &why);
        if (ok && profile.index != 0 &&
            !indexes.emplace(profile.subscription, profile.type, profile.index).second) {
            why = "index " + std::to_string(profile.index) + " used twice";
            ok = false;
        }
        if (!ok) {
            if (error != nullptr) {
                *error = "line " + std::to_string(lineNumber) + ": " + why;
            }
            return false;
        }
        parsed.push_back(profile);
    }
    out->insert(out->end(), parsed.begin(), parsed.end());
    return true;
}

std::string formatProfile(const Profile& profile) {
    const wds_profile_settings_v01& s = profile.settings;
    bool is3gpp = profile.type == WDS_PROFILE_TYPE_3GPP_V01;
    std::string line = is3gpp ? "profile 3gpp" : "profile 3gpp2";
    line += " sub=" + std::to_string(profile.subscription);
    if (profile.index != 0) {
        line += " index=" + std::to_string(profile.index);
    }
    line += profile.persistent ? " persistent=yes" : " persistent=no";
    auto add = [&line](const char* key, const std::string& value) {
        line += std::string(" ") + key + "=" + quoteValue(value);
    };
    auto addText = [&add](uint8_t valid, const char* key, const char* field, size_t capacity) {
        if (valid) {
            add(key, std::string(field, strnlen(field, capacity)));
        }
    };
    auto addNamed = [&add](uint8_t valid, const char* key, const char* name, int value) {
        if (valid) {
            add(key, name != nullptr ? name : std::to_string(value));
        }
    };
    auto addFlag = [&add](uint8_t valid, const char* key, uint8_t value) {
        if (valid) {
            add(key, value ? "yes" : "no");
        }
    };
    auto addNumber = [&add](uint8_t valid, const char* key, unsigned value) {
        if (valid) {
            add(key, std::to_string(value));
        }
    };
    if (is3gpp) {
        addText(s.profile_name_valid, "name", s.profile_name, sizeof s.profile_name);
        addText(s.apn_name_valid, "apn", s.apn_name, sizeof s.apn_name);
        addNamed(s.pdp_type_valid, "pdp", nameOf(kPdpTypes, s.pdp_type), s.pdp_type);
        addNamed(s.common_pdp_type_valid, "common_pdp", nameOf(kCommonPdpTypes, s.common_pdp_type),
                 s.common_pdp_type);
        addNamed(s.lte_roaming_pdp_type_valid, "lte_roam",
                 nameOf(kCommonPdpTypes, s.lte_roaming_pdp_type), s.lte_roaming_pdp_type);
        addNamed(s.umts_roaming_pdp_type_valid, "umts_roam",
                 nameOf(kCommonPdpTypes, s.umts_roaming_pdp_type), s.umts_roaming_pdp_type);
        addText(s.username_valid, "user", s.username, sizeof s.username);
        addText(s.password_valid, "password", s.password, sizeof s.password);
        addNamed(s.authentication_preference_valid, "auth",
                 nameOf(kAuth, s.authentication_preference), s.authentication_preference);
        addNumber(s.apn_class_valid, "class", s.apn_class);
        addFlag(s.support_emergency_calls_valid, "emergency", s.support_emergency_calls);
        addFlag(s.apn_disabled_flag_valid, "apn_disabled", s.apn_disabled_flag);
        addNumber(s.max_pdn_conn_per_block_valid, "max_pdn_conn_per_block",
                  s.max_pdn_conn_per_block);
        addNumber(s.max_pdn_conn_timer_valid, "max_pdn_conn_timer", s.max_pdn_conn_timer);
        addNumber(s.pdn_req_wait_interval_valid, "pdn_req_wait_interval", s.pdn_req_wait_interval);
    } else {
        addText(s.apn_string_valid, "apn", s.apn_string, sizeof s.apn_string);
        addNamed(s.pdn_type_valid, "pdn", nameOf(kPdnTypes, s.pdn_type), s.pdn_type);
        addText(s.user_id_valid, "user", s.user_id, sizeof s.user_id);
        addText(s.auth_password_valid, "password", s.auth_password, sizeof s.auth_password);
        addNamed(s.profile_auth_protocol_valid, "auth", nameOf(kAuth, s.profile_auth_protocol),
                 s.profile_auth_protocol);
        addText(s.pdn_level_user_id_valid, "pdn_user", s.pdn_level_user_id,
                sizeof s.pdn_level_user_id);
        addText(s.pdn_level_auth_password_valid, "pdn_password", s.pdn_level_auth_password,
                sizeof s.pdn_level_auth_password);
        addNamed(s.pdn_level_auth_protocol_valid, "pdn_auth",
                 nameOf(kAuth, s.pdn_level_auth_protocol), s.pdn_level_auth_protocol);
        addNumber(s.apn_class_3gpp2_valid, "class", s.apn_class_3gpp2);
    }
    if (s.apn_type_mask_valid) {
        add("types", formatApnTypes(s.apn_type_mask));
    }
    addFlag(s.clat_enabled_valid, "clat", s.clat_enabled);
    return line;
}

}  // namespace vexsim
