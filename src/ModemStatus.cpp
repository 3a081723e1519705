#include <algorithm>
#include <cstdlib>
#include <limits>

#include "ChangeNotifier.h"
#include "DumpText.h"
#include "LocalLogBuffer.h"
#include "ModemStatusBoard.h"

namespace kel {

namespace {

// Counters abort rather than wrap, as every counter of the library does.
void increment(std::uint64_t& counter) {
    if (counter == std::numeric_limits<std::uint64_t>::max()) {
        KEL_LOG(Error, "ModemStatus: counter exhausted");
        std::abort();
    }
    ++counter;
}

void appendFlag(std::string& out, const char* label, bool value) {
    out += label;
    appendText(out, value);
}

// What makes a status event: the link's flags, not its counters nor the picture's holes (told
// as events of their own).
bool linkDiffers(const ModemStatus& a, const ModemStatus& b) {
    return a.connected != b.connected || a.bound != b.bound || a.registered != b.registered ||
           a.cacheLoaded != b.cacheLoaded || a.connections != b.connections;
}

}  // namespace

std::string ModemStatus::dump() const {
    std::string text = "SubscriptionId=";
    appendText(text, subscriptionId);
    appendFlag(text, ",Connected=", connected);
    appendFlag(text, ",Bound=", bound);
    appendFlag(text, ",Registered=", registered);
    appendFlag(text, ",CacheLoaded=", cacheLoaded);
    text += ",FailedMessages=";
    appendText(text, failedMessages);
    text += ",TimedOutMessages=";
    appendText(text, timedOutMessages);
    text += ",Connections=";
    appendText(text, connections);
    appendFlag(text, ",ListFailed=", profileListFailed);
    text += ",Unread=";
    for (const ProfileRef& unread : unreadProfiles) {
        appendText(text, unread.techType);
        text += ':';
        appendText(text, unread.profileId);
        text += ';';
    }
    text += ',';
    if (options.anyOn()) {
        // Nested, its own separators turned so the line still splits on commas.
        std::string switches = options.dump();
        std::replace(switches.begin(), switches.end(), ',', ';');
        text += "Options=" + switches + ',';
    }
    return text;
}

ModemStatusBoard::ModemStatusBoard(int subscriptionId, const Options& options) {
    status.subscriptionId = subscriptionId;
    status.options = options;
}

ModemStatus ModemStatusBoard::get() const {
    std::lock_guard<std::mutex> lock(mutex);
    return status;
}

void ModemStatusBoard::update(const std::function<void(ModemStatus&)>& change) {
    const bool watched = notifier != nullptr && notifier->watched();
    ModemStatus before;
    ModemStatus after;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (watched) {
            before = status;
        }
        change(status);
        if (watched) {
            after = status;
        }
    }
    changed.notify_all();
    if (watched && linkDiffers(before, after)) {
        ModemEvent event = makeEvent(ModemEvent::Kind::StatusChanged);
        event.oldStatus = std::move(before);
        event.newStatus = std::move(after);
        notifier->post(std::move(event));
    }
}

void ModemStatusBoard::linkUp(bool bound, bool registered) {
    update([bound, registered](ModemStatus& now) {
        now.connected = true;
        now.bound = bound;
        now.registered = registered;
        now.cacheLoaded = false;
        now.profileListFailed = false;
        now.unreadProfiles.clear();
        increment(now.connections);
    });
}

void ModemStatusBoard::linkDown() {
    update([](ModemStatus& now) {
        now.connected = false;
        now.bound = false;
        now.registered = false;
        now.cacheLoaded = false;
        now.profileListFailed = false;
        now.unreadProfiles.clear();
    });
}

void ModemStatusBoard::setPicture(bool listFailed, std::vector<ModemStatus::ProfileRef> unread) {
    update([listFailed, &unread](ModemStatus& now) {
        now.profileListFailed = listFailed;
        now.unreadProfiles = std::move(unread);
    });
}

void ModemStatusBoard::setCacheLoaded(bool loaded) {
    update([loaded](ModemStatus& now) { now.cacheLoaded = loaded; });
}

void ModemStatusBoard::countFailedMessage(bool timedOut) {
    // Nobody waits for a count, so the waiters are not woken.
    std::lock_guard<std::mutex> lock(mutex);
    increment(status.failedMessages);
    if (timedOut) {
        increment(status.timedOutMessages);
    }
}

bool ModemStatusBoard::waitUntilReady(std::chrono::milliseconds timeout) {
    const std::chrono::milliseconds bounded =
        std::clamp<std::chrono::milliseconds>(timeout, std::chrono::milliseconds::zero(), kMaxWait);
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, bounded,
                     [this] { return closed || status.isReady() || status.isBroken(); });
    return !closed && status.isReady();
}

void ModemStatusBoard::close() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        closed = true;
    }
    changed.notify_all();
}

}  // namespace kel
