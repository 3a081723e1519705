#include "Truth.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "ValueNames.h"
#include "kel/Manager.h"

namespace kelctl {
namespace {

using Clock = std::chrono::steady_clock;

// The library gives each modem message this long before it counts it unanswered.
constexpr int kMessageTimeoutMs = 1000;
// How often a wait asks the library whether the echo has landed: each ask is one round trip
// through the library's worker, which handles the echo in between.
constexpr std::chrono::milliseconds kPollInterval{20};
// What a wait leaves of --timeout for reading back and printing.
constexpr int kMarginMs = 500;

enum class PictureUse { None, Shows, ActsOn };

PictureUse useOf(const CommandSpec& definition) {
    static const char* const kShows[] = {"list", "get", "filter", "dump"};
    static const char* const kActsOn[] = {"data-call", "emergency",     "attach",
                                          "carrier",   "apply-classes", "apply-types"};
    auto named = [&definition](const char* name) {
        return std::strcmp(name, definition.name) == 0;
    };
    if (std::any_of(std::begin(kShows), std::end(kShows), named)) {
        return PictureUse::Shows;
    }
    if (std::any_of(std::begin(kActsOn), std::end(kActsOn), named)) {
        return PictureUse::ActsOn;
    }
    return PictureUse::None;
}

// Where a showing command's own document goes when the picture's holes are put beside it.
const char* documentKey(const CommandSpec& definition) {
    const std::string name = definition.name;
    if (name == "get") {
        return "profile";
    }
    return name == "dump" ? "lines" : "profiles";
}

std::string tenths(int ms) {
    return secondsText((std::max(ms, 0) + 50) / 100 * 100);
}

}  // namespace

void limitWaits(Session& session, const GlobalOptions& globals, Clock::time_point runStart) {
    session.timeoutMs = globals.timeoutMs;
    if (globals.timeoutGiven) {
        session.runEnd = runStart + std::chrono::milliseconds(globals.timeoutMs);
    }
}

bool mayHaveBeenDone(const kel::Outcome& outcome) {
    return outcome.unknown() || outcome.kind == kel::Outcome::Kind::NoLink;
}

LateAnswer waitForEcho(const Session& session, Clock::time_point asked, const kel::Outcome& outcome,
                       const std::function<bool()>& held) {
    const Clock::time_point now = Clock::now();
    Clock::time_point end = now + std::chrono::milliseconds(session.timeoutMs);
    if (session.runEnd) {
        const auto margin = std::chrono::milliseconds(std::min(kMarginMs, session.timeoutMs / 5));
        end = std::max(now, *session.runEnd - margin);
    }
    LateAnswer answer;
    answer.linkDropped = outcome.kind == kel::Outcome::Kind::NoLink;
    if (answer.linkDropped) {
        kel::Manager::getInstance().waitForModem(
            std::chrono::duration_cast<std::chrono::milliseconds>(end - now));
    }
    for (;;) {
        answer.landed = held();
        const Clock::time_point at = Clock::now();
        answer.afterMs = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(at - asked).count());
        if (answer.landed || at >= end) {
            return answer;
        }
        std::this_thread::sleep_for(std::min<Clock::duration>(kPollInterval, end - at));
    }
}

std::string lateText(const LateAnswer& answer, const std::string& landedFact,
                     const std::string& mayStill) {
    const std::string late = answer.linkDropped
                                 ? std::string("the modem link dropped")
                                 : "no answer within " + secondsText(kMessageTimeoutMs);
    if (answer.landed) {
        return late + "; " + tenths(answer.afterMs) + " after asking, " + landedFact;
    }
    return late + "; the modem may still " + mayStill;
}

bool isUnread(kel::TechType tech, int id) {
    const std::optional<kel::ModemStatus> status = picture();
    return status &&
           std::find(status->unreadProfiles.begin(), status->unreadProfiles.end(),
                     kel::ModemStatus::ProfileRef{tech, id}) != status->unreadProfiles.end();
}

std::string outcomeText(const kel::Outcome& outcome) {
    char code[48];
    switch (outcome.kind) {
        case kel::Outcome::Kind::Done:
            return "done";
        case kel::Outcome::Kind::Refused:
            std::snprintf(code, sizeof(code), "error 0x%04x", outcome.modemError);
            return std::string("the modem refused it (") + code + ")";
        case kel::Outcome::Kind::NoAnswer:
            return "no answer within " + secondsText(kMessageTimeoutMs);
        case kel::Outcome::Kind::NoLink:
            return "no modem link";
        case kel::Outcome::Kind::NotBound:
            return "the modem did not bind the library to the subscription";
        case kel::Outcome::Kind::RefreshInProgress:
            return "a refresh is in progress (refresh --completed ends it)";
        case kel::Outcome::Kind::NotInitialized:
            return "the library is not running";
        case kel::Outcome::Kind::InvalidArguments:
            return "the library no longer knows that profile";
    }
    return kel::Outcome::name(outcome.kind);
}

std::optional<kel::ModemStatus> picture() {
    return kel::Manager::getInstance().getModemStatus();
}

std::string holesText(const kel::ModemStatus& status) {
    std::string text = status.profileListFailed ? "the modem's profile list" : "";
    for (const auto& unread : status.unreadProfiles) {
        text += (text.empty() ? "" : ", ") + profileName(unread.techType, unread.profileId);
    }
    return text;
}

Json holesJson(const kel::ModemStatus& status) {
    Json unread = Json::array();
    for (const auto& profile : status.unreadProfiles) {
        unread.push_back(profileName(profile.techType, profile.profileId));
    }
    return {{"unread", unread}, {"list_failed", status.profileListFailed}};
}

bool runWithWholePicture(const CommandSpec& definition, Session& session,
                         const Invocation& invocation, CommandResult* result) {
    const PictureUse use = useOf(definition);
    if (use == PictureUse::ActsOn) {
        std::optional<kel::ModemStatus> status = picture();
        // A re-read expires every handle, so a script's named handles forbid it.
        if (status && !status->isComplete() && session.handles.empty()) {
            result->notes += "kelctl: note: the library could not read " + holesText(*status) +
                             "; reading the modem again\n";
            kel::Manager::getInstance().refresh(kel::PDCRefreshStatus::Completed);
            status = picture();
        }
        if (status && !status->isComplete()) {
            result->error =
                "the library could not read " + holesText(*status) +
                (session.handles.empty() ? " (read twice)"
                                         : " (a re-read would expire the script's handles)") +
                "; nothing was changed";
            result->json = {{"incomplete", holesJson(*status)}, {"changed", false}};
            result->jsonOnFailure = true;
            return false;
        }
    }
    const bool ok = definition.run(session, invocation, result);
    if (use != PictureUse::Shows) {
        return ok;
    }
    const std::optional<kel::ModemStatus> status = picture();
    if (!status || status->isComplete()) {
        return ok;
    }
    const std::string unread = "the library could not read " + holesText(*status);
    if (ok || result->error.empty()) {
        result->error = "incomplete: " + unread;
    } else if (result->error != unread) {
        result->error += " (incomplete: " + unread + ")";
    }
    result->json = {{documentKey(definition), ok ? result->json : Json(nullptr)},
                    {"incomplete", holesJson(*status)}};
    result->jsonOnFailure = true;
    return false;
}

}  // namespace kelctl
