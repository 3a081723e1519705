// Reacting to a profile change: a data-call client that holds the profile of its call and learns,
// through a kel::ModemObserver, when another client (here the simulated modem itself, as a carrier
// update would) changes or deletes it, and when the link to the modem drops and comes back.
//
// The observer runs on the library's notifier thread: it only records what happened and wakes the
// client's own thread, which does the work (reading the profile again, bringing the call down).
//
// Usage: kel-watch-example [seed-file]   (default: the repository's data/modem-seed.conf)
#include <stdlib.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "kel/Manager.h"
#include "kel/ModemObserver.h"
#include "vexsim/SimModem.h"

namespace {

// Hands the library's events to the client's thread.
class Inbox : public kel::ModemObserver {
  public:
    void onModemEvent(const kel::ModemEvent& event) override {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(event);
        arrived.notify_one();
    }
    // The next event, or nothing within the timeout.
    bool next(kel::ModemEvent* event, std::chrono::seconds timeout) {
        std::unique_lock<std::mutex> lock(mutex);
        if (!arrived.wait_for(lock, timeout, [this] { return !events.empty(); })) {
            return false;
        }
        *event = std::move(events.front());
        events.pop_front();
        return true;
    }

  private:
    std::mutex mutex;  // guards events
    std::condition_variable arrived;
    std::deque<kel::ModemEvent> events;
};

std::string profileText(kel::TechType tech, int id) {
    return std::string(tech == kel::TechType::TYPE_3GPP ? "3gpp:" : "3gpp2:") + std::to_string(id);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string seedFile =
        argc > 1 ? argv[1] : std::string(KELR_SOURCE_DIR) + "/data/modem-seed.conf";
    char pattern[] = "/tmp/kel-watch-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        return 1;
    }
    const std::string dir = pattern;
    vexsim::Config config;
    config.serviceDir = dir;
    config.seedFile = seedFile;
    auto modem = std::make_unique<vexsim::SimModem>(config);
    std::string error;
    if (!modem->start(&error)) {
        std::fprintf(stderr, "cannot start the simulated modem: %s\n", error.c_str());
        return 1;
    }
    setenv("VEX_SERVICE_DIR", dir.c_str(), 1);

    kel::Manager& manager = kel::Manager::getInstance();
    auto inbox = std::make_shared<Inbox>();
    // Registered before init, so that not even the first read of the modem is missed.
    manager.addObserver(inbox);
    manager.init(0, true);
    if (!manager.waitForModem(std::chrono::seconds(10))) {
        std::fprintf(stderr, "the library did not reach the modem\n");
        return 1;
    }

    // The call's profile: the first 3GPP default-type profile the modem has.
    kel::FilterProfileParams internet;
    internet.setFilterByTechType(kel::TechType::TYPE_3GPP);
    internet.setApnTypesMask(static_cast<unsigned int>(kel::ApnTypes::DEFAULT));
    internet.addFilterMatchCriteria(
        static_cast<unsigned int>(kel::FilterMatchType::ApnTypeBitmaskSubset));
    auto keys = manager.filter(internet);
    if (keys.empty()) {
        std::fprintf(stderr, "no default profile on the modem\n");
        return 1;
    }
    std::shared_ptr<kel::IProfileKey> call = keys.front();
    const auto index = static_cast<std::uint8_t>(call->getProfileId());
    std::printf("data call up on %s, APN %s\n", profileText(call->getTechType(), index).c_str(),
                manager.getProfile(call).value_or(kel::ProfileParams()).getApnName().c_str());

    // Reacts to one event; true for the one the caller waits for.
    bool restarted = false;
    auto react = [&](const kel::ModemEvent& event) {
        switch (event.kind) {
            case kel::ModemEvent::Kind::ProfileChanged:
                if (event.techType != kel::TechType::TYPE_3GPP || event.profileId != index) {
                    return false;
                }
                // The call's own profile changed under it: the call must be set up again.
                for (const kel::SettingChange& setting : event.changes) {
                    std::printf("%s changed by %s: %s: %s -> %s\n",
                                profileText(event.techType, event.profileId).c_str(),
                                event.origin == kel::ModemEvent::Origin::ThisProcess
                                    ? "this process"
                                    : "another client",
                                setting.setting.c_str(), setting.from.value_or("-").c_str(),
                                setting.to.value_or("-").c_str());
                }
                std::printf("  -> bringing the data call down and up again\n");
                return !restarted;
            case kel::ModemEvent::Kind::StatusChanged:
                std::printf("modem link: %s\n", !event.newStatus.connected  ? "down"
                                                : event.newStatus.isReady() ? "ready"
                                                                            : "up, reading");
                return restarted && event.newStatus.isReady();
            case kel::ModemEvent::Kind::RefreshCompleted:
                // Every handle expires on a re-read: the call's profile is looked up again.
                std::printf("profiles read again: %llu\n",
                            static_cast<unsigned long long>(event.count));
                return false;
            default:
                return false;
        }
    };
    auto waitFor = [&] {
        kel::ModemEvent event;
        while (inbox->next(&event, std::chrono::seconds(10))) {
            if (react(event)) {
                return true;
            }
        }
        return false;
    };

    // Another client changes the call's APN, as a carrier update would.
    wds_profile_settings_v01 change{};
    change.apn_name_valid = 1;
    std::snprintf(change.apn_name, sizeof(change.apn_name), "%s", "internet.new.example");
    modem->modifyProfile(0, WDS_PROFILE_TYPE_3GPP_V01, index, change);
    bool ok = waitFor();
    // The modem restarts: the library goes down with it, comes back and reads it again.
    restarted = true;
    modem->stop();
    ok = ok && modem->start(&error) && waitFor();
    manager.removeObserver(inbox);
    keys.clear();
    call.reset();
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return ok ? 0 : 1;
}
