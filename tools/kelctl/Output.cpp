#include "Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "InputFile.h"
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

bool secretsShown = false;

std::string jsonString(const std::string& text) {
    return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Where a masked password value ends in the library's text: at the "," before the next
// "Label=", or at the end of the line (the library ends a field list with ",").
std::size_t secretEnd(const std::string& line, std::size_t start) {
    for (std::size_t comma = line.find(',', start); comma != std::string::npos;
         comma = line.find(',', comma + 1)) {
        std::size_t label = comma + 1;
        while (label < line.size() && std::isalpha(static_cast<unsigned char>(line[label]))) {
            ++label;
        }
        if (label == line.size() || (label > comma + 1 && line[label] == '=')) {
            return comma;
        }
    }
    return line.size();
}

}  // namespace

void showSecrets(bool shown) {
    secretsShown = shown;
}

std::string shownValue(const std::string& key, const std::string& value) {
    return key == "password" && !secretsShown ? kHidden : value;
}

std::string maskedLibraryText(const std::string& line) {
    if (secretsShown) {
        return line;
    }
    static const std::string kLabel = "Password=";
    std::string text = line;
    for (std::size_t at = text.find(kLabel); at != std::string::npos;
         at = text.find(kLabel, at + 1)) {
        const std::size_t start = at + kLabel.size();
        text.replace(start, secretEnd(text, start) - start, kHidden);
    }
    return text;
}

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
    for (const auto& [key, raw] : settingsFields(params)) {
        line += line.empty() ? "" : " ";
        const std::string value = shownValue(key, raw);
        const bool quote = value.empty() || value.find_first_of(" \t\"'") != std::string::npos;
        line += key + "=" + (quote ? jsonString(value) : escapeText(value));
    }
    return line;
}

std::string secondsText(int ms) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g s", ms / 1000.0);
    return text;
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
            orDash(escapeText(row.name)),
            p.hasApnName() ? orDash(escapeText(p.getApnName())) : "-",
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

Json settingsJson(const kel::ProfileParams& p) {
    Json json = Json::object();
    if (p.hasApnName()) {
        json["apn"] = p.getApnName();
    }
    if (p.hasHomeIPType()) {
        json["ip"] = ipName(p.getHomeIPType());
    }
    if (p.hasRoamIPType()) {
        json["roam_ip"] = ipName(p.getRoamIPType());
    }
    if (p.hasApnTypesMask()) {
        Json types = Json::array();
        const std::string names = p.getApnTypesMask() == 0 ? "" : typesNames(p.getApnTypesMask());
        for (std::size_t start = 0; start < names.size();) {
            const std::size_t comma = std::min(names.find(',', start), names.size());
            types.push_back(names.substr(start, comma - start));
            start = comma + 1;
        }
        json["types"] = types;
        json["types_mask"] = p.getApnTypesMask();
    }
    if (p.hasApnClass()) {
        json["class"] = className(p.getApnClass());
    }
    if (p.hasAuthType()) {
        json["auth"] = authName(p.getAuthType());
    }
    if (p.hasUserName()) {
        json["user"] = p.getUserName();
    }
    if (p.hasPassword()) {
        json["password"] = shownValue("password", p.getPassword());
    }
    if (p.hasIsClatEnabled()) {
        json["clat"] = p.getIsClatEnabled();
    }
    if (p.hasIsEmergencySupported()) {
        json["emergency_calls"] = p.getIsEmergencySupported();
    }
    if (p.hasIsApnDisabled()) {
        json["disabled"] = p.getIsApnDisabled();
    }
    if (p.hasMaxPdnsConnPerBlock()) {
        json["max_conns"] = p.getMaxPdnsConnPerBlock();
    }
    if (p.hasMaxPdnConnTimer()) {
        json["max_conns_time"] = p.getMaxPdnConnTimer();
    }
    if (p.hasPdnReqWaitInterval()) {
        json["wait_time"] = p.getPdnReqWaitInterval();
    }
    return json;
}

Json profileJson(const ProfileRow& row) {
    Json json = Json::object();
    if (!row.token.empty() && row.token.size() <= 18 &&
        row.token.find_first_not_of("0123456789") == std::string::npos) {
        json["token"] = std::stoll(row.token);
    }
    json["tech"] = techName(row.tech);
    json["id"] = row.id;
    if (!row.name.empty()) {
        json["name"] = row.name;
    }
    json.update(settingsJson(row.params));
    json["kel"] = row.params.getIsKelProfile();
    json["ia"] = row.params.getIsIAProfile();
    return json;
}

Json profilesJson(const std::vector<ProfileRow>& rows) {
    Json json = Json::array();
    for (const auto& row : rows) {
        json.push_back(profileJson(row));
    }
    return json;
}

std::string jsonText(const Json& document) {
    const std::string text = document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
    // The dump leaves DEL and the C1 controls raw; outside strings a document has neither, so
    // each becomes its \u escape and the document stays the same.
    std::string safe;
    safe.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto c = static_cast<unsigned char>(text[at]);
        const bool c1 = c == 0xC2 && at + 1 < text.size() &&
                        static_cast<unsigned char>(text[at + 1]) >= 0x80 &&
                        static_cast<unsigned char>(text[at + 1]) <= 0x9F;
        if (c == 0x7F || c1) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x",
                          c1 ? static_cast<unsigned char>(text[++at]) : c);
            safe += escaped;
        } else {
            safe += static_cast<char>(c);
        }
    }
    return safe;
}

RunDeadline::~RunDeadline() {
    disarm();
}

void RunDeadline::arm(std::chrono::milliseconds limit, int errorFd, const std::string& line) {
    std::lock_guard<std::mutex> guard(lock);
    armed = true;
    fd = errorFd;
    message = line;
    watcher = std::thread(&RunDeadline::watch, this, std::chrono::steady_clock::now() + limit);
}

void RunDeadline::setLine(const std::string& line) {
    std::lock_guard<std::mutex> guard(lock);
    message = line;
}

std::string RunDeadline::line() const {
    std::lock_guard<std::mutex> guard(lock);
    return message;
}

void RunDeadline::setCleanup(const std::string& directory) {
    std::lock_guard<std::mutex> guard(lock);
    cleanupDir = directory;
}

void RunDeadline::disarm() {
    {
        std::lock_guard<std::mutex> guard(lock);
        armed = false;
    }
    changed.notify_all();
    if (watcher.joinable()) {
        watcher.join();
    }
}

void RunDeadline::write(int target, const std::string& text) const {
    std::lock_guard<std::mutex> guard(lock);
    writeAll(target, text);
}

void RunDeadline::watch(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> guard(lock);
    if (changed.wait_until(guard, deadline, [this] { return !armed; })) {
        return;
    }
    // Whatever the main thread waits for, the run is over: the lock stays held so that nothing
    // else is printed after this line.
    if (!cleanupDir.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(cleanupDir, ignored);
    }
    writeAll(fd, message);
    ::_exit(1);
}

Channel::~Channel() {
    deadline.disarm();
    if (!logFilter.joinable()) {
        return;
    }
    // Later output of the library (its worker's last line at exit) goes straight to standard
    // error; closing the pipe's writing ends lets the filter finish what is buffered.
    ::dup2(err.get(), STDOUT_FILENO);
    ::dup2(err.get(), STDERR_FILENO);
    logFilter.join();
}

bool Channel::claimStandardOutput(bool verbose, bool maskSecrets, std::string* error) {
    UniqueFd realOut(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    UniqueFd realErr(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    if (!realOut || !realErr) {
        *error = std::string("cannot duplicate standard output: ") + std::strerror(errno);
        return false;
    }
    UniqueFd filterInput;
    UniqueFd elsewhere;
    // The library's log passes through the filter whenever it is shown: it may quote a profile's
    // bytes, which are escaped there.
    if (verbose) {
        maskLog = maskSecrets;
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            *error = std::string("cannot make a pipe for the log: ") + std::strerror(errno);
            return false;
        }
        filterInput = UniqueFd(ends[0]);
        elsewhere = UniqueFd(ends[1]);
    } else {
        elsewhere = UniqueFd(verbose ? ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)
                                     : ::open("/dev/null", O_WRONLY | O_CLOEXEC));
    }
    if (!elsewhere || ::dup2(elsewhere.get(), STDOUT_FILENO) < 0 ||
        (filterInput && ::dup2(elsewhere.get(), STDERR_FILENO) < 0)) {
        *error = std::string("cannot redirect standard output: ") + std::strerror(errno);
        return false;
    }
    out = std::move(realOut);
    err = std::move(realErr);
    if (filterInput) {
        logFilter = std::thread(&Channel::filterLog, this, std::move(filterInput));
    }
    return true;
}

void Channel::filterLog(UniqueFd input) const {
    std::string pending;
    char chunk[4096];
    for (;;) {
        const ssize_t n = ::read(input.get(), chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        pending.append(chunk, static_cast<std::size_t>(n));
        std::size_t start = 0;
        for (std::size_t end = pending.find('\n'); end != std::string::npos;
             end = pending.find('\n', start)) {
            const std::string line = pending.substr(start, end - start);
            deadline.write(err.get(),
                           terminalText(maskLog ? maskedLibraryText(line) : line) + "\n");
            start = end + 1;
        }
        pending.erase(0, start);
    }
    if (!pending.empty()) {
        deadline.write(err.get(), terminalText(maskLog ? maskedLibraryText(pending) : pending));
    }
}

// Whatever a profile, a seed, a state file or a carrier file holds, no control character and no
// invalid UTF-8 reaches the terminal raw.
void Channel::print(const std::string& text) const {
    printed = printed || !text.empty();
    deadline.write(out ? out.get() : STDOUT_FILENO, terminalText(text));
}

void Channel::error(const std::string& text) const {
    errorText = text;
    deadline.write(errorFd(), terminalText(text));
}

}  // namespace kelctl
