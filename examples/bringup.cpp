// A first bring-up of libkelr: how a client uses the library, on a simulated modem.
//
// On a device the modem is already there; here the program embeds the simulated modem, seeded
// with the profiles a carrier ships, and points the library at it. Then it does what the data-call
// software of a device does: initialise the library, wait until it has reached the modem and read
// its profiles, and add, find, read, change and delete profiles through kel::Manager.
//
// Usage: kel-example [seed-file]   (default: the repository's data/modem-seed.conf)
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "kel/Manager.h"
#include "vexsim/SimModem.h"

namespace {

// Where the simulated modem serves WDS: a private directory, so the example never meets another
// modem on this machine. Removed again at exit.
class ServiceDir {
  public:
    ServiceDir() {
        char pattern[] = "/tmp/kel-example-XXXXXX";
        if (mkdtemp(pattern) != nullptr) {
            path = pattern;
        }
    }
    ~ServiceDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string path;
};

void section(const char* title) {
    std::printf("\n== %s\n", title);
}

std::string describe(const std::shared_ptr<kel::IProfileKey>& key) {
    return key ? key->dump() : std::string("(none)");
}

}  // namespace

int main(int argc, char** argv) {
    const std::string seedFile =
        argc > 1 ? argv[1] : std::string(KELR_SOURCE_DIR) + "/data/modem-seed.conf";

    // --- The modem (a device has a real one) ---
    ServiceDir dir;
    vexsim::Config config;
    config.serviceDir = dir.path;
    config.seedFile = seedFile;
    vexsim::SimModem modem(config);
    std::string error;
    if (dir.path.empty() || !modem.start(&error)) {
        std::fprintf(stderr, "cannot start the simulated modem: %s\n", error.c_str());
        return 1;
    }
    // The library finds the modem's services in this directory.
    setenv("VEX_SERVICE_DIR", dir.path.c_str(), 1);
    std::printf("simulated modem up with %zu profiles from %s\n", modem.profiles(0).size(),
                seedFile.c_str());

    // --- The library ---
    // Subscription 0, logging to the Android log (on this host: standard error).
    kel::Manager& manager = kel::Manager::getInstance();
    manager.init(0, true);
    // The library connects in the background: it binds to the subscription, registers for the
    // modem's profile events and reads every profile once the modem announces them. Until then
    // its cache is empty; the status tells how far it got.
    if (!manager.waitForModem(std::chrono::seconds(10))) {
        std::optional<kel::ModemStatus> status = manager.getModemStatus();
        std::fprintf(stderr, "the library did not reach the modem: %s\n",
                     status ? status->dump().c_str() : "not initialised");
        return 1;
    }
    std::printf("modem link: %s\n",
                manager.getModemStatus().value_or(kel::ModemStatus()).dump().c_str());

    section("profiles the modem ships with");
    std::list<std::shared_ptr<kel::IProfileKey>> all = manager.filter(kel::FilterProfileParams());
    for (const std::shared_ptr<kel::IProfileKey>& key : all) {
        std::optional<kel::ProfileParams> params = manager.getProfile(key);
        std::printf("  %-22s %s\n", key->dump().c_str(), params ? params->dump().c_str() : "?");
    }
    // Dropping handles is how a client says it no longer needs a profile.
    all.clear();

    section("add a profile for a data call");
    // Not persistent: the library deletes it from the modem once the last handle goes.
    kel::AddProfileParams add(false, kel::TechType::TYPE_3GPP, false);
    add.setApnName("example.apn");
    add.setHomeIPType(kel::IPType::V4V6);
    add.setApnTypesMask(static_cast<unsigned int>(kel::ApnTypes::DEFAULT) |
                        static_cast<unsigned int>(kel::ApnTypes::SUPL));
    std::shared_ptr<kel::IProfileKey> added = manager.addProfile(add);
    if (!added) {
        std::fprintf(stderr, "the modem refused the profile\n");
        return 1;
    }
    std::printf("  added %s\n", describe(added).c_str());
    // The library calls this if the profile goes away while the handle is held.
    added->registerExpirationListener(
        [] { std::printf("  (listener) the added profile is gone\n"); });

    section("filter: IPv4 profiles of example.apn, dual stack counting as IPv4");
    kel::FilterProfileParams filter;
    filter.setApnName("Example.APN");  // APN names compare without case
    filter.setHomeIPType(kel::IPType::V4);
    filter.addFilterMatchCriteria(static_cast<unsigned int>(kel::FilterMatchType::HomeIPSubset));
    std::list<std::shared_ptr<kel::IProfileKey>> found = manager.filter(filter);
    for (const std::shared_ptr<kel::IProfileKey>& key : found) {
        std::printf("  found %s\n", describe(key).c_str());
    }
    found.clear();

    section("match: does it carry the IMS type?");
    kel::FilterProfileParams ims;
    ims.setApnTypesMask(static_cast<unsigned int>(kel::ApnTypes::IMS));
    // Without this the profile's types would have to be exactly IMS.
    ims.addFilterMatchCriteria(
        static_cast<unsigned int>(kel::FilterMatchType::ApnTypeBitmaskSubset));
    std::printf("  %s\n", manager.match(ims, added) ? "yes" : "no");

    section("modify: add the IMS type and a user name");
    kel::ModifyProfileParams change;
    change.setApnTypesMask(static_cast<unsigned int>(kel::ApnTypes::DEFAULT) |
                           static_cast<unsigned int>(kel::ApnTypes::IMS));
    change.setUserName("alice");
    std::printf("  %s\n", manager.modifyProfile(change, added) ? "modified" : "not modified");
    std::optional<kel::ProfileParams> now = manager.getProfile(added);
    std::printf("  now: %s\n", now ? now->dump().c_str() : "?");
    std::printf("  does it carry the IMS type now? %s\n", manager.match(ims, added) ? "yes" : "no");

    section("delete");
    std::printf("  %s\n", manager.deleteProfile(added) ? "deleted" : "not deleted");
    std::printf("  reading it again: %s\n", manager.getProfile(added) ? "still there" : "gone");
    added.reset();

    section("Manager::dump");
    for (const std::string& line : manager.dump()) {
        std::printf("%s\n", line.c_str());
    }
    return 0;
}
