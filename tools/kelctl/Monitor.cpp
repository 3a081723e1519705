#include "Monitor.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>

#include "InputFile.h"
#include "ModemLink.h"
#include "NumberText.h"  // the platform's number parsing (platform/vex)
#include "Script.h"
#include "kel/Manager.h"
#include "kel/ModemObserver.h"

namespace kelctl {

namespace {

// Events the observer may queue ahead of the printing; beyond it the observer waits, and the
// library's own bounded queue then tells of what it had to drop.
constexpr std::size_t kPendingLimit = 1024;

struct OwnOptions {
    std::optional<long> count;  // monitor: stop after this many events
    bool initial = true;        // monitor: print the current picture first
    bool help = false;
};

// Takes monitor's own options out of words and hands the rest to the common parser, which keeps
// the options of the whole run. False with a one-line reason.
bool parseOwn(bool monitor, const std::vector<std::string>& words, OwnOptions* own,
              GlobalOptions* globals, std::string* error) {
    std::vector<std::string> rest;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word == "--help" || word == "-h") {
            own->help = true;
        } else if (monitor && word == "--no-initial") {
            own->initial = false;
        } else if (monitor && (word == "--count" || word.rfind("--count=", 0) == 0)) {
            std::string value;
            if (word == "--count") {
                if (i + 1 == words.size()) {
                    *error = "--count needs a number of events";
                    return false;
                }
                value = words[++i];
            } else {
                value = word.substr(8);
            }
            unsigned long count = 0;
            if (!vexwire::parseWhole(value, 10, &count) || count < 1 || count > 1000000000) {
                *error = kelctl::quoted(value) + " is not a number of events from 1 to 1000000000";
                return false;
            }
            own->count = static_cast<long>(count);
        } else {
            rest.push_back(word);
        }
    }
    Args args;
    if (!parseArgs(0, rest, &args, globals, error)) {
        return false;
    }
    if (!args.positional.empty()) {
        *error = "takes no operands, not \"" + args.positional.front() + "\"";
        return false;
    }
    own->help = own->help || args.help || globals->help;
    return true;
}

// Connects as every command does, except that a link that is not usable is left open for status
// to describe. False (with the reason) when there is no link at all.
bool openOwnLink(const GlobalOptions& globals, Channel& channel, ModemLink* link,
                 std::string* notReady, std::string* error) {
    if (!globals.verbose) {
        ::setenv("KELR_LOG_QUIET", "1", 1);
    }
    if (!channel.claimStandardOutput(globals.verbose, !globals.showSecrets, error)) {
        return false;
    }
    link->reportTo(&channel.deadline);
    if (link->open(globals, notReady)) {
        notReady->clear();
        return true;
    }
    if (!link->manager().getModemStatus()) {
        *error = *notReady;
        return false;
    }
    return true;
}

std::string yesNo(bool value) {
    return value ? "yes" : "no";
}

std::string unreadText(const std::vector<kel::ModemStatus::ProfileRef>& unread) {
    std::string text;
    for (const auto& ref : unread) {
        text += (text.empty() ? "" : ",") + profileName(ref.techType, ref.profileId);
    }
    return text;
}

// Why the picture is not whole; empty when it is.
std::string holesText(bool listFailed, const std::vector<kel::ModemStatus::ProfileRef>& unread) {
    std::string text = listFailed ? "the profile list failed" : "";
    if (!unread.empty()) {
        text += (text.empty() ? "" : "; ") + std::string("unread ") + unreadText(unread);
    }
    return text;
}

struct StatusLine {
    const char* key;
    bool value;
    std::string reason;  // when false
};

std::vector<StatusLine> statusLines(const kel::ModemStatus& status, const GlobalOptions& globals) {
    const std::string sub = std::to_string(status.subscriptionId);
    const std::string where = globals.modemDir.empty() ? "the embedded modem" : globals.modemDir;
    return {
        {"connected", status.connected, "no modem answered in " + where},
        {"bound", status.bound,
         status.connected ? "the modem refused subscription " + sub : "not connected"},
        {"registered", status.registered,
         status.connected ? "the modem refused to register the library for profile changes"
                          : "not connected"},
        {"cache loaded", status.cacheLoaded,
         status.connected ? "the modem did not list its profiles" : "not connected"},
        {"complete", status.isComplete(),
         status.isReady() ? holesText(status.profileListFailed, status.unreadProfiles)
                          : "not ready"},
    };
}

Json unreadJson(const std::vector<kel::ModemStatus::ProfileRef>& unread) {
    Json names = Json::array();
    for (const auto& ref : unread) {
        names.push_back(profileName(ref.techType, ref.profileId));
    }
    return names;
}

Json statusJson(const kel::ModemStatus& status) {
    return {{"subscription", status.subscriptionId},
            {"ready", status.isReady()},
            {"connected", status.connected},
            {"bound", status.bound},
            {"registered", status.registered},
            {"cacheLoaded", status.cacheLoaded},
            {"complete", status.isComplete()},
            {"listFailed", status.profileListFailed},
            {"unread", unreadJson(status.unreadProfiles)},
            {"failedMessages", status.failedMessages},
            {"timedOutMessages", status.timedOutMessages},
            {"connections", status.connections}};
}

// "down", "ready", "broken: not bound", "up: loading the cache".
std::string statusWords(const kel::ModemStatus& status) {
    if (!status.connected) {
        return "down";
    }
    if (status.isBroken()) {
        return std::string("broken: ") + (status.bound ? "not registered" : "not bound");
    }
    if (!status.isReady()) {
        return "up: loading the cache";
    }
    return status.isComplete() ? "ready" : "ready, incomplete";
}

// --- monitor ---

// Queues the library's events for the main thread, which prints them, and wakes it.
class Queue : public kel::ModemObserver {
  public:
    Queue() : wakeFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~Queue() override {
        if (wakeFd >= 0) {
            ::close(wakeFd);
        }
    }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    void onModemEvent(const kel::ModemEvent& event) override {
        std::unique_lock<std::mutex> lock(mutex);
        // Ends when the printing catches up or stops, whichever comes first.
        room.wait(lock, [this] { return events.size() < kPendingLimit || stopped; });
        if (stopped) {
            return;
        }
        events.push_back(event);
        const std::uint64_t one = 1;
        (void)!::write(wakeFd, &one, sizeof(one));
    }
    std::deque<kel::ModemEvent> take() {
        std::uint64_t count = 0;
        (void)!::read(wakeFd, &count, sizeof(count));
        std::deque<kel::ModemEvent> taken;
        {
            std::lock_guard<std::mutex> lock(mutex);
            taken.swap(events);
        }
        room.notify_all();
        return taken;
    }
    // From now on nothing waits for the printing.
    void stop() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopped = true;
        }
        room.notify_all();
    }
    int fd() const { return wakeFd; }

  private:
    const int wakeFd;
    std::mutex mutex;  // guards events and stopped
    std::condition_variable room;
    std::deque<kel::ModemEvent> events;
    bool stopped = false;
};

std::string timeText(std::chrono::system_clock::time_point when, bool utc) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count() %
        1000;
    std::tm parts{};
    char text[48];
    if (utc) {
        ::gmtime_r(&seconds, &parts);
        std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &parts);
    } else {
        ::localtime_r(&seconds, &parts);
        std::strftime(text, sizeof(text), "%H:%M:%S", &parts);
    }
    char millis[8];
    std::snprintf(millis, sizeof(millis), ".%03d", static_cast<int>(ms));
    return std::string(text) + millis + (utc ? "Z" : "");
}

ProfileRow rowOf(const kel::ProfileState& state) {
    ProfileRow row;
    row.tech = state.techType;
    row.id = state.profileId;
    row.name = state.name;
    row.params = state.settings;
    return row;
}

// The name first, then the settings, as kelctl names them; secrets stay in clear for comparing.
std::vector<SettingChange> changesOf(const kel::ModemEvent& event) {
    std::vector<SettingChange> changes;
    if (!event.before || !event.after) {
        return changes;
    }
    const ProfileRow before = rowOf(*event.before);
    const ProfileRow after = rowOf(*event.after);
    if (before.name != after.name) {
        changes.push_back({"name", before.name.empty() ? "-" : before.name,
                           after.name.empty() ? "-" : after.name});
    }
    for (auto& change : settingChanges(before, after)) {
        changes.push_back(std::move(change));
    }
    return changes;
}

const char* originText(kel::ModemEvent::Origin origin) {
    return origin == kel::ModemEvent::Origin::ThisProcess ? "this process" : "another client";
}

// How monitor prints: text lines or JSON lines, each stamped.
class Printer {
  public:
    Printer(int fd, bool jsonLines) : out(fd), json(jsonLines) {}

    // False once standard output is closed.
    bool profile(std::chrono::system_clock::time_point when, const ProfileRow& row) {
        if (json) {
            return line(when, {{"event", "profile"},
                               {"profile", profileName(row.tech, row.id)},
                               {"settings", profileJson(row)}});
        }
        return text(when, "profile " + rowSummary(row));
    }
    bool status(std::chrono::system_clock::time_point when, const kel::ModemStatus& now,
                const kel::ModemStatus* before) {
        if (json) {
            Json document = {{"event", "status"}, {"status", statusJson(now)}};
            if (before != nullptr) {
                document["previous"] = statusJson(*before);
            }
            return line(when, document);
        }
        return text(when, "status " + statusWords(now));
    }
    bool event(const kel::ModemEvent& event);

  private:
    bool profileEvent(const kel::ModemEvent& event);
    bool text(std::chrono::system_clock::time_point when, const std::string& body) {
        // Names and APNs are the modem's bytes: escaped, as every text line kelctl prints.
        return write(timeText(when, false) + " " + terminalText(body) + "\n");
    }
    bool line(std::chrono::system_clock::time_point when, Json document) {
        Json stamped = {{"time", timeText(when, true)}};
        stamped.update(document);
        // One line each, valid UTF-8 whatever the modem holds.
        return write(stamped.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
    }
    bool write(const std::string& data) {
        std::size_t done = 0;
        while (done < data.size()) {
            const ssize_t n = ::write(out, data.data() + done, data.size() - done);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                return false;
            }
            done += static_cast<std::size_t>(n);
        }
        return true;
    }

    const int out;
    const bool json;
};

bool Printer::profileEvent(const kel::ModemEvent& event) {
    using Kind = kel::ModemEvent::Kind;
    const std::string name = profileName(event.techType, event.profileId);
    const std::string origin = originText(event.origin);
    const std::vector<SettingChange> changes = changesOf(event);
    if (json) {
        Json document = {
            {"event", kel::ModemEvent::name(event.kind)}, {"profile", name}, {"origin", origin}};
        if (event.kind == Kind::ProfileChanged) {
            document["changes"] = settingChangesJson(changes);
        }
        const auto& state = event.kind == Kind::ProfileDeleted ? event.before : event.after;
        document["settings"] = state ? profileJson(rowOf(*state)) : Json(nullptr);
        return line(event.time, document);
    }
    std::string body = std::string(kel::ModemEvent::name(event.kind)) + " ";
    if (event.kind == Kind::ProfileAdded) {
        body += event.after ? rowSummary(rowOf(*event.after)) : name + " unread";
    } else if (event.kind == Kind::ProfileChanged) {
        body += name + " " +
                (!event.after      ? std::string("unread")
                 : changes.empty() ? "read again"
                                   : changesText(changes));
    } else {
        body += name;
    }
    return text(event.time, body + " (" + origin + ")");
}

bool Printer::event(const kel::ModemEvent& event) {
    using Kind = kel::ModemEvent::Kind;
    switch (event.kind) {
        case Kind::ProfileAdded:
        case Kind::ProfileChanged:
        case Kind::ProfileDeleted:
            return profileEvent(event);
        case Kind::RefreshStarted:
            return json ? line(event.time, {{"event", "refresh-started"}})
                        : text(event.time, "refresh started");
        case Kind::RefreshCompleted: {
            const bool ok =
                json ? line(event.time, {{"event", "refresh-completed"}, {"count", event.count}})
                     : text(event.time,
                            "refresh completed: " + std::to_string(event.count) + " profiles");
            bool printed = ok;
            for (const auto& state : event.profiles) {
                printed = printed && profile(event.time, rowOf(state));
            }
            return printed;
        }
        case Kind::PictureIncomplete:
            return json ? line(event.time, {{"event", "incomplete"},
                                            {"listFailed", event.listFailed},
                                            {"unread", unreadJson(event.unread)}})
                        : text(event.time,
                               "incomplete: " + holesText(event.listFailed, event.unread));
        case Kind::PictureWhole:
            return json ? line(event.time, {{"event", "whole"}}) : text(event.time, "whole");
        case Kind::StatusChanged:
            return status(event.time, event.newStatus, &event.oldStatus);
        case Kind::EventsLost:
            return json ? line(event.time, {{"event", "events-lost"}, {"count", event.count}})
                        : text(event.time, "events lost: " + std::to_string(event.count));
    }
    return true;
}

// SIGINT and SIGTERM become readable on a descriptor, SIGPIPE a failed write; blocked before any
// thread starts, so that every thread inherits the mask.
class Signals {
  public:
    Signals() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGPIPE);
        ::pthread_sigmask(SIG_BLOCK, &set, &previous);
        sigdelset(&set, SIGPIPE);
        fd = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    }
    ~Signals() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;
    int get() const { return fd; }

  private:
    sigset_t previous;
    int fd = -1;
};

enum class Stop { Count, Timeout, Signal, ClosedOutput };

// Prints events as they come until one of the stops.
Stop follow(Queue& queue, Printer& printer, const Signals& signals, int outFd,
            const std::optional<long>& count,
            std::optional<std::chrono::steady_clock::time_point> deadline, long* printed) {
    while (true) {
        for (const kel::ModemEvent& event : queue.take()) {
            if (!printer.event(event)) {
                return Stop::ClosedOutput;
            }
            if (count && ++*printed >= *count) {
                return Stop::Count;
            }
        }
        int wait = -1;
        if (deadline) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                *deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return Stop::Timeout;
            }
            wait = static_cast<int>(left.count());
        }
        // Standard output is watched for its reader going away while nothing is printed.
        pollfd fds[3] = {{queue.fd(), POLLIN, 0}, {signals.get(), POLLIN, 0}, {outFd, 0, 0}};
        if (::poll(fds, 3, wait) < 0 && errno != EINTR) {
            return Stop::Signal;
        }
        if (fds[1].revents != 0) {
            return Stop::Signal;
        }
        if ((fds[2].revents & (POLLERR | POLLHUP)) != 0) {
            return Stop::ClosedOutput;
        }
    }
}

std::string ownHelp(bool monitor) {
    if (!monitor) {
        return "Usage: kelctl status [options]\n\n"
               "The modem link: connected, bound, registered, cache loaded and complete, and the\n"
               "message counters; with --json as one JSON document. Exit status 0 when the link "
               "is\n"
               "ready, 1 when it is not or is broken, with the reason.\n\n" +
               globalOptionsHelp();
    }
    return "Usage: kelctl monitor [options]\n\n"
           "The modem's profiles, then one line per change as it happens: profiles added,\n"
           "changed (what, from and to) and deleted, refreshes, the link going down and coming\n"
           "back (with the profiles read again). Ends on SIGINT, SIGTERM or a closed output.\n\n"
           "  --count N     stop after N events\n"
           "  --no-initial  do not print the current profiles and status first\n"
           "  --json        one JSON document per line\n"
           "  --timeout S   stop after S seconds (exit status 1 when --count was not reached)\n\n" +
           globalOptionsHelp();
}

}  // namespace

bool cmdOwnRun(Session&, const Invocation& invocation, CommandResult* result) {
    (void)invocation;
    result->error = "only as a command of its own (kelctl status, kelctl monitor), not in scripts";
    return false;
}

int runStatus(const std::vector<std::string>& words, GlobalOptions globals, Channel& channel) {
    OwnOptions own;
    std::string error;
    if (!parseOwn(false, words, &own, &globals, &error) || !prepareRun(&globals, &error)) {
        channel.error("kelctl: status: " + error + "\n");
        return kExitUsage;
    }
    if (own.help) {
        channel.print(ownHelp(false));
        return kExitOk;
    }
    ModemLink link;
    std::string notReady;
    if (!openOwnLink(globals, channel, &link, &notReady, &error)) {
        channel.error("kelctl: status: " + error + "\n");
        if (globals.json) {
            channel.print(jsonText({{"error", error}}));
        }
        return kExitFailed;
    }
    const kel::ModemStatus status = link.manager().getModemStatus().value_or(kel::ModemStatus());
    const std::vector<StatusLine> lines = statusLines(status, globals);
    std::string reason;
    for (const StatusLine& line : lines) {
        if (!line.value && reason.empty() && std::string(line.key) != "complete") {
            reason = std::string(line.key) + ": no: " + line.reason;
        }
    }
    if (globals.json) {
        Json document = statusJson(status);
        document["reason"] = reason.empty() ? Json(nullptr) : Json(reason);
        channel.print(jsonText(document));
    } else {
        std::string text = "subscription: " + std::to_string(status.subscriptionId) + "\n";
        for (const StatusLine& line : lines) {
            text += std::string(line.key) + ": " + yesNo(line.value) +
                    (line.value || line.reason.empty() ? "" : ": " + line.reason) + "\n";
        }
        text += "failed messages: " + std::to_string(status.failedMessages) + " (" +
                std::to_string(status.timedOutMessages) + " timed out)\n";
        text += "connections: " + std::to_string(status.connections) + "\n";
        text += "ready: " + yesNo(status.isReady()) + "\n";
        channel.print(text);
    }
    if (!status.isReady()) {
        channel.error("kelctl: status: not ready: " + reason + "\n");
        return kExitFailed;
    }
    return kExitOk;
}

int runMonitor(const std::vector<std::string>& words, GlobalOptions globals, Channel& channel) {
    const Signals signals;
    const auto started = std::chrono::steady_clock::now();
    OwnOptions own;
    std::string error;
    if (!parseOwn(true, words, &own, &globals, &error) || !prepareRun(&globals, &error)) {
        channel.error("kelctl: monitor: " + error + "\n");
        return kExitUsage;
    }
    if (own.help) {
        channel.print(ownHelp(true));
        return kExitOk;
    }
    showSecrets(globals.showSecrets);
    ModemLink link;
    std::string notReady;
    if (signals.get() < 0 || !openOwnLink(globals, channel, &link, &notReady, &error) ||
        !notReady.empty()) {
        channel.error("kelctl: monitor: " + (error.empty() ? notReady : error) + "\n");
        return kExitFailed;
    }
    auto queue = std::make_shared<Queue>();
    // Registered before the picture is read, so that nothing between the two is missed.
    link.manager().addObserver(queue);
    Printer printer(channel.outputFd(), globals.json);
    bool open = true;
    if (own.initial) {
        Session session(link, channel);
        const auto now = std::chrono::system_clock::now();
        for (const ProfileRow& row : snapshot(session)) {
            open = open && printer.profile(now, row);
        }
        const auto status = link.manager().getModemStatus();
        open = open && (!status || printer.status(now, *status, nullptr));
    }
    std::optional<std::chrono::steady_clock::time_point> deadline;
    if (globals.timeoutGiven) {
        deadline = started + std::chrono::milliseconds(globals.timeoutMs);
    }
    long printed = 0;
    const Stop stop = open ? follow(queue.operator*(), printer, signals, channel.outputFd(),
                                    own.count, deadline, &printed)
                           : Stop::ClosedOutput;
    queue->stop();
    link.manager().removeObserver(queue);
    if (stop == Stop::Timeout && own.count) {
        channel.error("kelctl: monitor: " + std::to_string(printed) + " of " +
                      std::to_string(*own.count) + " events within " +
                      secondsText(globals.timeoutMs) + "\n");
        return kExitFailed;
    }
    return kExitOk;
}

}  // namespace kelctl
