#include "ModemLink.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include "InputFile.h"
#include "NumberText.h"  // the platform's number parsing (platform/vex)
#include "kel/ProfileParams.h"
#ifndef KELCTL_NO_EMBEDDED_MODEM
#include "VexWire.h"
#include "vex/vex_client.h"
#endif

namespace kelctl {
namespace {

using Clock = std::chrono::steady_clock;

bool isDirectory(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool fileExists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// How long to wait for the modem to answer. A --timeout bounds the whole run, so the wait takes
// only part of it and leaves the rest for reading the profiles and the command itself.
std::chrono::milliseconds readinessWait(const GlobalOptions& options) {
    return std::chrono::milliseconds(options.timeoutGiven ? std::max(1, options.timeoutMs * 3 / 5)
                                                          : options.timeoutMs);
}

// The value of "Label=value," in one line of the library's cache dump.
std::optional<std::string> dumpField(const std::string& line, const std::string& label) {
    const std::size_t at = line.find("," + label);
    const std::size_t start = at == std::string::npos ? line.find(": " + label) : at;
    if (start == std::string::npos) {
        return std::nullopt;
    }
    const std::size_t value = line.find('=', start) + 1;
    return line.substr(value, line.find(',', value) - value);
}

#ifdef KELCTL_NO_EMBEDDED_MODEM
// A device's modem is its own: there is no service directory to check.
bool checkServiceDirectory(const std::string&, std::string*) {
    return true;
}
#else
// Profiles and credentials must never reach a modem another user runs, nor one in a directory
// another user could have swapped it into.
bool checkServiceDirectory(const std::string& dir, std::string* error) {
    std::string reason;
    if (!vexwire::checkServiceDirectory(dir, &reason)) {
        *error = "--modem: refusing service directory " + reason;
        return false;
    }
    vex_service_info info{};
    if (vex_client_get_any_service(wds_get_service_object_v01(), &info) == VEX_ERR_PEER_REFUSED) {
        *error = "the modem in " + dir +
                 " runs as another user, neither this one nor root: refusing to use it";
        return false;
    }
    return true;
}
#endif

}  // namespace

std::string dataDirectory() {
    // Where this executable is decides: in its build directory it uses the source tree's data,
    // anywhere else (installed, or a moved prefix) the data installed beside it.
    std::error_code failed;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", failed);
    if (failed) {
        return KELCTL_INSTALLED_DATA_DIR;
    }
    const std::filesystem::path here = self.parent_path();
    if (std::filesystem::equivalent(here, KELCTL_BUILD_DIR, failed)) {
        return KELCTL_SOURCE_DATA_DIR;
    }
    return (here / KELCTL_BIN_TO_DATA).lexically_normal().string();
}

std::string defaultSeedFile() {
    const std::string seed = dataDirectory() + "/modem-seed.conf";
    return fileExists(seed) ? seed : "";
}

bool ModemLink::open(const GlobalOptions& options, std::string* error) {
    subscription = options.subscription;
    if (options.modemDir.empty()) {
        if (!startEmbedded(options, error)) {
            return false;
        }
    } else {
        if (!isDirectory(options.modemDir)) {
            *error = "--modem " + options.modemDir + ": no such directory";
            return false;
        }
        ::setenv("VEX_SERVICE_DIR", options.modemDir.c_str(), 1);
        if (!checkServiceDirectory(options.modemDir, error)) {
            return false;
        }
    }
    // The library finds the modem through VEX_SERVICE_DIR, so it is set before the first call.
    // kelctl acts on a real modem's table: every cure is on unless --reference asks for the
    // library's default behaviour.
    kel::Manager::getInstance().init(options.subscription, true,
                                     options.reference ? kel::Options() : kel::Options::safe());
    return waitReady(options, error);
}

ModemLink::~ModemLink() {
#ifndef KELCTL_NO_EMBEDDED_MODEM
    if (sim) {
        sim->stop();
        sim.reset();
    }
#endif
    if (!privateDir.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(privateDir, ignored);
        if (deadline != nullptr) {
            deadline->setCleanup("");
        }
    }
}

kel::Manager& ModemLink::manager() const {
    return kel::Manager::getInstance();
}

std::optional<std::string> ModemLink::modemProfileName(kel::TechType tech, int id,
                                                       const std::string& apn) const {
    if (!sim) {
        const auto found = startupNames.find({tech, id});
        // A profile deleted and another made at the same index since: the APN tells them apart.
        if (found == startupNames.end() || found->second.apn != apn) {
            return std::nullopt;
        }
        return found->second.name;
    }
#ifdef KELCTL_NO_EMBEDDED_MODEM
    return std::nullopt;
#else
    if (id < 0 || id > 255) {
        return std::nullopt;
    }
    const auto type =
        tech == kel::TechType::TYPE_3GPP2 ? WDS_PROFILE_TYPE_3GPP2_V01 : WDS_PROFILE_TYPE_3GPP_V01;
    const auto profile = sim->profile(subscription, type, static_cast<uint8_t>(id));
    if (!profile || !profile->settings.profile_name_valid) {
        return std::nullopt;
    }
    return std::string(profile->settings.profile_name);
#endif
}

#ifdef KELCTL_NO_EMBEDDED_MODEM
// Without the embedded modem, the library finds the device's own.
bool ModemLink::startEmbedded(const GlobalOptions&, std::string*) {
    return true;
}

#else
bool ModemLink::startEmbedded(const GlobalOptions& options, std::string* error) {
    const std::string seed = options.seedFile.empty() ? defaultSeedFile() : options.seedFile;
    if (seed.empty()) {
        *error = "no modem seed file is installed; give one with --seed FILE";
        return false;
    }
    std::string seedText;
    if (!readInputFile(seed, &seedText, error)) {
        *error = "--seed " + escapeText(*error);
        return false;
    }
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/kelctl-modem-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        *error = "cannot make a directory for the embedded modem under " + pattern;
        return false;
    }
    privateDir = pattern;
    if (deadline != nullptr) {
        deadline->setCleanup(privateDir);
    }
    ::setenv("VEX_SERVICE_DIR", privateDir.c_str(), 1);

    vexsim::Config config;
    config.serviceDir = privateDir;
    // Read here, through kelctl's bounded reader, rather than by the modem.
    config.seedText = seedText;
    config.stateFile = options.stateFile;
    embeddedSubscriptions = config.subscriptions;
    sim = std::make_unique<vexsim::SimModem>(config);
    std::string why;
    if (!sim->start(&why)) {
        *error = "the embedded modem did not start: " + why;
        return false;
    }
    return true;
}

#endif

bool ModemLink::waitReady(const GlobalOptions& options, std::string* error) {
    kel::Manager& library = manager();
    bool ready = library.waitForModem(readinessWait(options));
    std::optional<kel::ModemStatus> status = library.getModemStatus();
    if (!ready && status && status->connected && status->bound && status->registered) {
        // A modem that never announces its profiles as ready still answers a read of them.
        library.refresh(kel::PDCRefreshStatus::Completed);
        status = library.getModemStatus();
        ready = status && status->isReady();
    }
    if (!ready) {
        *error = notReadyText(options, status);
        return false;
    }
    if (!isEmbedded()) {
        readNamesFromLibrary();
    }
    return true;
}

std::string ModemLink::notReadyText(const GlobalOptions& options,
                                    const std::optional<kel::ModemStatus>& status) const {
    const std::string sub = "subscription " + std::to_string(subscription);
    if (!status || !status->connected) {
        return isEmbedded()
                   ? "the library did not connect to the embedded modem within " +
                         secondsText(options.timeoutMs)
                   : "no modem answered in " + options.modemDir + " within " +
                         secondsText(options.timeoutMs) + " (is vex-modemd running there?)";
    }
    // A failed bind leaves the library on the modem's default subscription: acting then would
    // change another subscription's profiles.
    if (!status->bound) {
        if (embeddedSubscriptions > 0 && subscription >= embeddedSubscriptions) {
            return sub + ": the modem has no such subscription (it has " +
                   std::to_string(embeddedSubscriptions) + "); nothing was done";
        }
        return sub + ": the modem refused to bind the library to it (it may have no such " +
               "subscription); nothing was done";
    }
    if (!status->registered) {
        return sub + ": the modem refused to register the library for profile changes; nothing " +
               "was done";
    }
    return sub + ": the modem did not list its profiles within " + secondsText(options.timeoutMs) +
           "; nothing was done";
}

void ModemLink::readNamesFromLibrary() {
    // The library's dump reads its cache without the worker's lock. Right after the first read
    // of the modem the worker is idle, and the call that saw the filled cache orders that read
    // before this one; later, the modem's echoes of kelctl's own changes would race with it.
    for (const std::string& line : manager().dump()) {
        if (line == "Pending:") {
            break;
        }
        const auto tech = dumpField(line, "TechType=");
        const auto id = dumpField(line, "ProfileId=");
        const auto name = dumpField(line, "ProfileName=");
        int number = 0;
        if (!tech || !id || !name || id->size() > 3 ||
            id->find_first_not_of("0123456789") != std::string::npos ||
            !vexwire::parseWhole(*id, 10, &number)) {
            continue;
        }
        const kel::TechType techType =
            *tech == "3GPP2" ? kel::TechType::TYPE_3GPP2 : kel::TechType::TYPE_3GPP;
        startupNames[{techType, number}] =
            NamedApn{*name, dumpField(line, "ApnName=").value_or("")};
    }
}

}  // namespace kelctl
