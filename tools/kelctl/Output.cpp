#include "Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ValueNames.h"

namespace kelctl {
namespace {

void writeAll(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;  // the reader is gone; nothing useful is left to do with the text
        }
        done += static_cast<std::size_t>(n);
    }
}

std::string orDash(const std::string& text) {
    return text.empty() ? "-" : text;
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
                    out += escaped;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

std::string jsonBool(bool value) {
    return value ? "true" : "false";
}

std::string jsonTypes(unsigned int mask) {
    std::string out = "[";
    const std::string names = mask == 0 ? "" : typesNames(mask);
    std::size_t start = 0;
    while (start < names.size()) {
        std::size_t comma = names.find(',', start);
        if (comma == std::string::npos) {
            comma = names.size();
        }
        out += (out.size() > 1 ? "," : "") + jsonString(names.substr(start, comma - start));
        start = comma + 1;
    }
    return out + "]";
}

}  // namespace

std::vector<std::pair<std::string, std::string>> settingsFields(const kel::ProfileParams& p) {
    std::vector<std::pair<std::string, std::string>> fields;
    if (p.hasApnName()) {
        fields.emplace_back("apn", p.getApnName());
    }
    if (p.hasHomeIPType()) {
        fields.emplace_back("ip", ipName(p.getHomeIPType()));
    }
    if (p.hasRoamIPType()) {
        fields.emplace_back("roam-ip", ipName(p.getRoamIPType()));
    }
    if (p.hasApnTypesMask()) {
        fields.emplace_back("types", typesNames(p.getApnTypesMask()));
    }
    if (p.hasApnClass()) {
        fields.emplace_back("class", className(p.getApnClass()));
    }
    if (p.hasAuthType()) {
        fields.emplace_back("auth", authName(p.getAuthType()));
    }
    if (p.hasUserName()) {
        fields.emplace_back("user", p.getUserName());
    }
    if (p.hasPassword()) {
        fields.emplace_back("password", p.getPassword());
    }
    if (p.hasIsClatEnabled()) {
        fields.emplace_back("clat", yesNo(p.getIsClatEnabled()));
    }
    if (p.hasIsEmergencySupported()) {
        fields.emplace_back("emergency-calls", yesNo(p.getIsEmergencySupported()));
    }
    if (p.hasIsApnDisabled()) {
        fields.emplace_back("disabled", yesNo(p.getIsApnDisabled()));
    }
    if (p.hasMaxPdnsConnPerBlock()) {
        fields.emplace_back("max-conns", std::to_string(p.getMaxPdnsConnPerBlock()));
    }
    if (p.hasMaxPdnConnTimer()) {
        fields.emplace_back("max-conns-time", std::to_string(p.getMaxPdnConnTimer()));
    }
    if (p.hasPdnReqWaitInterval()) {
        fields.emplace_back("wait-time", std::to_string(p.getPdnReqWaitInterval()));
    }
    return fields;
}

std::string settingsLine(const kel::ProfileParams& params) {
    std::string line;
    for (const auto& [key, value] : settingsFields(params)) {
        line += line.empty() ? "" : " ";
        const bool quote = value.empty() || value.find_first_of(" \t\"'") != std::string::npos;
        line += key + "=" + (quote ? jsonString(value) : value);
    }
    return line;
}

std::string profileName(kel::TechType tech, int id) {
    return techName(tech) + ":" + std::to_string(id);
}

std::string flagsText(const kel::ProfileParams& p) {
    std::string flags;
    auto add = [&flags](bool set, const char* name) {
        if (set) {
            flags += flags.empty() ? "" : ",";
            flags += name;
        }
    };
    add(p.getIsKelProfile(), "kel");
    add(p.getIsIAProfile(), "ia");
    add(p.hasIsEmergencySupported() && p.getIsEmergencySupported(), "emergency");
    add(p.hasIsApnDisabled() && p.getIsApnDisabled(), "disabled");
    add(p.hasIsClatEnabled() && p.getIsClatEnabled(), "clat");
    return orDash(flags);
}

std::string profileTable(const std::vector<ProfileRow>& rows) {
    std::vector<std::vector<std::string>> cells = {
        {"TOKEN", "TECH", "ID", "NAME", "APN", "IP", "ROAM-IP", "TYPES", "CLASS", "FLAGS"}};
    for (const auto& row : rows) {
        const kel::ProfileParams& p = row.params;
        cells.push_back({
            orDash(row.token),
            techName(row.tech),
            std::to_string(row.id),
            orDash(row.name),
            p.hasApnName() ? orDash(p.getApnName()) : "-",
            p.hasHomeIPType() ? ipName(p.getHomeIPType()) : "-",
            p.hasRoamIPType() ? ipName(p.getRoamIPType()) : "-",
            p.hasApnTypesMask() ? typesNames(p.getApnTypesMask()) : "-",
            p.hasApnClass() ? className(p.getApnClass()) : "-",
            flagsText(p),
        });
    }
    std::vector<std::size_t> widths(cells.front().size(), 0);
    for (const auto& line : cells) {
        for (std::size_t i = 0; i < line.size(); ++i) {
            widths[i] = std::max(widths[i], line[i].size());
        }
    }
    std::string text;
    for (const auto& line : cells) {
        std::string out;
        for (std::size_t i = 0; i < line.size(); ++i) {
            out += line[i];
            if (i + 1 < line.size()) {
                out += std::string(widths[i] - line[i].size() + 2, ' ');
            }
        }
        text += out + "\n";
    }
    return text;
}

std::string profileJson(const ProfileRow& row) {
    const kel::ProfileParams& p = row.params;
    std::string json = "{";
    auto field = [&json](const std::string& key, const std::string& value) {
        json += (json.size() > 1 ? "," : "") + jsonString(key) + ":" + value;
    };
    if (!row.token.empty()) {
        field("token", row.token);
    }
    field("tech", jsonString(techName(row.tech)));
    field("id", std::to_string(row.id));
    if (!row.name.empty()) {
        field("name", jsonString(row.name));
    }
    if (p.hasApnName()) {
        field("apn", jsonString(p.getApnName()));
    }
    if (p.hasHomeIPType()) {
        field("ip", jsonString(ipName(p.getHomeIPType())));
    }
    if (p.hasRoamIPType()) {
        field("roam_ip", jsonString(ipName(p.getRoamIPType())));
    }
    if (p.hasApnTypesMask()) {
        field("types", jsonTypes(p.getApnTypesMask()));
        field("types_mask", std::to_string(p.getApnTypesMask()));
    }
    if (p.hasApnClass()) {
        field("class", jsonString(className(p.getApnClass())));
    }
    if (p.hasAuthType()) {
        field("auth", jsonString(authName(p.getAuthType())));
    }
    if (p.hasUserName()) {
        field("user", jsonString(p.getUserName()));
    }
    if (p.hasPassword()) {
        field("password", jsonString(p.getPassword()));
    }
    if (p.hasIsClatEnabled()) {
        field("clat", jsonBool(p.getIsClatEnabled()));
    }
    if (p.hasIsEmergencySupported()) {
        field("emergency_calls", jsonBool(p.getIsEmergencySupported()));
    }
    if (p.hasIsApnDisabled()) {
        field("disabled", jsonBool(p.getIsApnDisabled()));
    }
    if (p.hasMaxPdnsConnPerBlock()) {
        field("max_conns", std::to_string(p.getMaxPdnsConnPerBlock()));
    }
    if (p.hasMaxPdnConnTimer()) {
        field("max_conns_time", std::to_string(p.getMaxPdnConnTimer()));
    }
    if (p.hasPdnReqWaitInterval()) {
        field("wait_time", std::to_string(p.getPdnReqWaitInterval()));
    }
    field("kel", jsonBool(p.getIsKelProfile()));
    field("ia", jsonBool(p.getIsIAProfile()));
    return json + "}";
}

std::string profilesJson(const std::vector<ProfileRow>& rows) {
    std::string json = "[";
    for (const auto& row : rows) {
        json += (json.size() > 1 ? ",\n " : "") + profileJson(row);
    }
    return json + "]\n";
}

bool Channel::claimStandardOutput(bool verbose, std::string* error) {
    UniqueFd real(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    if (!real) {
        *error = std::string("cannot duplicate standard output: ") + std::strerror(errno);
        return false;
    }
    UniqueFd elsewhere(verbose ? ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)
                               : ::open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (!elsewhere || ::dup2(elsewhere.get(), STDOUT_FILENO) < 0) {
        *error = std::string("cannot redirect standard output: ") + std::strerror(errno);
        return false;
    }
    out = std::move(real);
    return true;
}

void Channel::print(const std::string& text) const {
    writeAll(out ? out.get() : STDOUT_FILENO, text);
}

void Channel::error(const std::string& text) const {
    writeAll(STDERR_FILENO, text);
}

}  // namespace kelctl
