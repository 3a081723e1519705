#include "ChangeNotifier.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "DumpText.h"
#include "LocalLogBuffer.h"
#include "ModemProfile.h"

namespace kel {

namespace {

// A setting's value as ProfileParams::dump writes it, when present.
template <typename T>
std::optional<std::string> valueOf(bool present, T value) {
    if (!present) {
        return std::nullopt;
    }
    return textOf(value);
}

struct SettingField {
    const char* name;
    std::function<std::optional<std::string>(const ProfileState&)> read;
};

// In ProfileParams::dump order, the profile name last.
const std::vector<SettingField>& settingFields() {
    static const std::vector<SettingField> fields = {
        {"ApnName",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasApnName(), s.settings.getApnName());
         }},
        {"UserName",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasUserName(), s.settings.getUserName());
         }},
        {"Password",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasPassword(), s.settings.getPassword());
         }},
        {"AuthType",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasAuthType(), s.settings.getAuthType());
         }},
        {"HomeIPType",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasHomeIPType(), s.settings.getHomeIPType());
         }},
        {"RoamIPType",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasRoamIPType(), s.settings.getRoamIPType());
         }},
        {"ApnTypesMask",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasApnTypesMask(),
                            static_cast<ApnTypes>(s.settings.getApnTypesMask()));
         }},
        {"ApnClass",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasApnClass(), s.settings.getApnClass());
         }},
        {"IsClatEnabled",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasIsClatEnabled(), s.settings.getIsClatEnabled());
         }},
        {"MaxPdnsConnPerBlock",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasMaxPdnsConnPerBlock(),
                            s.settings.getMaxPdnsConnPerBlock());
         }},
        {"MaxPdnConnTimer",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasMaxPdnConnTimer(), s.settings.getMaxPdnConnTimer());
         }},
        {"PdnReqWaitInterval",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasPdnReqWaitInterval(), s.settings.getPdnReqWaitInterval());
         }},
        {"IsApnDisabled",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasIsApnDisabled(), s.settings.getIsApnDisabled());
         }},
        {"IsEmergencySupported",
         [](const ProfileState& s) {
             return valueOf(s.settings.hasIsEmergencySupported(),
                            s.settings.getIsEmergencySupported());
         }},
        {"IsKelProfile",
         [](const ProfileState& s) { return valueOf(true, s.settings.getIsKelProfile()); }},
        {"IsIAProfile",
         [](const ProfileState& s) { return valueOf(true, s.settings.getIsIAProfile()); }},
        {"ProfileName", [](const ProfileState& s) { return valueOf(!s.name.empty(), s.name); }},
    };
    return fields;
}

}  // namespace

const char* ModemEvent::name(Kind kind) {
    switch (kind) {
        case Kind::ProfileAdded:
            return "added";
        case Kind::ProfileChanged:
            return "changed";
        case Kind::ProfileDeleted:
            return "deleted";
        case Kind::RefreshStarted:
            return "refresh-started";
        case Kind::RefreshCompleted:
            return "refresh-completed";
        case Kind::PictureIncomplete:
            return "incomplete";
        case Kind::PictureWhole:
            return "whole";
        case Kind::StatusChanged:
            return "status";
        case Kind::EventsLost:
            return "events-lost";
    }
    return "unknown";
}

std::vector<SettingChange> ModemEvent::diff(const ProfileState& before, const ProfileState& after) {
    std::vector<SettingChange> changes;
    for (const SettingField& field : settingFields()) {
        SettingChange change{field.name, field.read(before), field.read(after)};
        if (change.from != change.to) {
            changes.push_back(std::move(change));
        }
    }
    return changes;
}

ChangeNotifier::ChangeNotifier(std::size_t limit) : queueLimit(std::max<std::size_t>(limit, 1)) {}

ChangeNotifier::~ChangeNotifier() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
        watching = false;
    }
    wake.notify_all();
    if (thread.joinable()) {
        thread.join();
    }
}

bool ChangeNotifier::add(std::shared_ptr<ModemObserver> observer) {
    if (!observer) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& entry : observers) {
        if (entry->observer == observer) {
            return false;
        }
    }
    observers.push_back(std::make_shared<Entry>(Entry{std::move(observer)}));
    watching = true;
    if (!thread.joinable() && !stopping) {
        thread = std::thread(&ChangeNotifier::run, this);
    }
    return true;
}

bool ChangeNotifier::remove(const std::shared_ptr<ModemObserver>& observer) {
    std::unique_lock<std::mutex> lock(mutex);
    auto it = std::find_if(observers.begin(), observers.end(),
                           [&observer](const auto& entry) { return entry->observer == observer; });
    if (it == observers.end()) {
        return false;
    }
    const Entry* removed = it->get();
    observers.erase(it);
    watching = !observers.empty();
    if (observers.empty()) {
        // Nobody would hear them: what is queued goes, lost counts included.
        queue.clear();
        lost = 0;
    }
    if (std::this_thread::get_id() != notifierId) {
        // Waits for the observer's own code only; the worker never waits here.
        callEnded.wait(lock, [this, removed] { return calling != removed; });
    }
    return true;
}

void ChangeNotifier::post(ModemEvent event) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (observers.empty() || stopping) {
            return;
        }
        if (queue.size() >= queueLimit) {
            ++lost;
            return;
        }
        if (lost > 0) {
            // Told where the gap is, so it may run one over the limit.
            queue.push_back(lostEvent(std::exchange(lost, 0)));
        }
        queue.push_back(std::move(event));
        // The notifier is woken by the first event of a batch and by a full batch; in between it
        // lingers for more, so that a burst wakes it once per batch rather than once per event.
        if (queue.size() != 1 && queue.size() != kBatch) {
            return;
        }
    }
    wake.notify_one();
}

ModemEvent ChangeNotifier::lostEvent(std::uint64_t count) {
    ModemEvent event = makeEvent(ModemEvent::Kind::EventsLost);
    event.count = count;
    return event;
}

void ChangeNotifier::run() {
    // Woken by the worker for every batch, the notifier must not preempt it: it runs while the
    // worker waits for the modem. Best effort; the default policy serves as well, only slower.
    sched_param unprioritised{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &unprioritised);
    std::unique_lock<std::mutex> lock(mutex);
    notifierId = std::this_thread::get_id();
    while (true) {
        wake.wait(lock, [this] { return stopping || !queue.empty() || lost > 0; });
        wake.wait_for(lock, kLinger, [this] { return stopping || queue.size() >= kBatch; });
        if (stopping) {
            return;
        }
        std::deque<ModemEvent> batch;
        if (!queue.empty()) {
            // What waits is taken at once, so the queue holds at most its limit besides.
            batch.swap(queue);
        } else {
            // The queue drained while events were being dropped: tell of them now.
            batch.push_back(lostEvent(std::exchange(lost, 0)));
        }
        for (ModemEvent& event : batch) {
            if (event.kind == ModemEvent::Kind::ProfileChanged && event.before && event.after) {
                // Worked out here rather than on the worker, which must not wait for it.
                lock.unlock();
                event.changes = ModemEvent::diff(*event.before, *event.after);
                lock.lock();
            }
            deliver(event, lock);
        }
    }
}

void ChangeNotifier::deliver(const ModemEvent& event, std::unique_lock<std::mutex>& lock) {
    // Observers added meanwhile hear from the next event on; removed ones are skipped.
    const std::vector<std::shared_ptr<Entry>> current = observers;
    for (const auto& entry : current) {
        if (stopping || std::find(observers.begin(), observers.end(), entry) == observers.end()) {
            continue;
        }
        calling = entry.get();
        lock.unlock();
        try {
            entry->observer->onModemEvent(event);
        } catch (...) {
            KEL_LOG(Error, "ChangeNotifier: an observer threw on %s", ModemEvent::name(event.kind));
        }
        lock.lock();
        calling = nullptr;
        callEnded.notify_all();
    }
}

ProfileState ChangeNotifier::stateOf(const ModemProfile& profile) {
    ProfileState state;
    state.techType = profile.getTechType();
    state.profileId = profile.getProfileId();
    state.settings = profile.get();
    if (const auto* profile3gpp = dynamic_cast<const Modem3gppProfile*>(&profile)) {
        state.name = profile3gpp->getProfileName();
    }
    return state;
}

}  // namespace kel
