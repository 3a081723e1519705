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
#include "VexWire.h"
#include "kel/ProfileParams.h"
#include "vex/vex_client.h"

namespace kelctl {
namespace {

using Clock = std::chrono::steady_clock;

// What the library's client sends the modem before it is ready: bind, indication registration
// and event-list configuration. The request after them is the first read of the profile list.
constexpr std::uint64_t kRegistrationRequests = 3;

// Logged by the library whenever it has read the modem's profile list.
constexpr const char* kListReadLine = "VEX_WDS_GET_PROFILE_LIST_REQ_V01 request successful!";

std::string secondsText(int ms) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g s", ms / 1000.0);
    return text;
}

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

bool cacheHasProfiles(kel::Manager& manager) {
    return !manager.filter(kel::FilterProfileParams()).empty();
}

bool historyHas(kel::Manager& manager, const std::string& text) {
    const std::vector<std::string> lines = manager.dump();
    return std::any_of(lines.begin(), lines.end(), [&text](const std::string& line) {
        return line.find(text) != std::string::npos;
    });
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
        std::string reason;
        if (!vexwire::checkServiceDirectory(options.modemDir, &reason)) {
            *error = "--modem: refusing service directory " + reason;
            return false;
        }
        ::setenv("VEX_SERVICE_DIR", options.modemDir.c_str(), 1);
        // Profiles and credentials must never reach a modem another user runs there.
        vex_service_info info{};
        if (vex_client_get_any_service(wds_get_service_object_v01(), &info) ==
            VEX_ERR_PEER_REFUSED) {
            *error = "the modem in " + options.modemDir +
                     " runs as another user, neither this one nor root: refusing to use it";
            return false;
        }
    }
    // The library finds the modem through VEX_SERVICE_DIR, so it is set before the first call.
    kel::Manager::getInstance().init(options.subscription, true);
    return isEmbedded() ? waitEmbedded(options, error) : waitRunning(options, error);
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

bool ModemLink::waitEmbedded(const GlobalOptions&, std::string*) {
    return false;
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
    sim = std::make_unique<vexsim::SimModem>(config);
    std::string why;
    if (!sim->start(&why)) {
        *error = "the embedded modem did not start: " + why;
        return false;
    }
    return true;
}

bool ModemLink::waitEmbedded(const GlobalOptions& options, std::string* error) {
    // The modem tells the library its profiles are ready once the client has registered; the
    // library then reads them on its worker thread. Once the modem has served the first read,
    // that refresh is under way on the worker, and the worker serves one thing at a time: any
    // later call sees the filled cache.
    const int sub = subscription;
    const bool ready = sim->waitUntil(
        [this, sub] {
            for (const auto& client : sim->clients()) {
                if (!client.notifierOnly && client.bound && client.subscription == sub &&
                    client.indicationsRegistered && client.eventListConfigured &&
                    client.profilesReadySent && client.requestsServed > kRegistrationRequests) {
                    return true;
                }
            }
            return false;
        },
        readinessWait(options));
    if (!ready) {
        *error = "the library did not connect to the embedded modem within " +
                 secondsText(options.timeoutMs);
        return false;
    }
    manager().filter(kel::FilterProfileParams());
    return true;
}
#endif

bool ModemLink::waitRunning(const GlobalOptions& options, std::string* error) {
    // The modem is in another process: readiness is read from the library itself. Its cache
    // holds profiles only after it has read the modem, so the wait polls a filter, backing off
    // so that the polling stays a small part of the library's log history.
    const auto waitEnd = Clock::now() + readinessWait(options);
    auto pause = std::chrono::milliseconds(5);
    while (Clock::now() < waitEnd) {
        if (cacheHasProfiles(manager())) {
            readNamesFromLibrary();
            return true;
        }
        std::this_thread::sleep_for(std::min<Clock::duration>(pause, waitEnd - Clock::now()));
        pause = std::min(pause * 2, std::chrono::milliseconds(200));
    }
    // A modem without profiles, or one that never announces them, still answers a read of its
    // profile list; the library logs that read.
    manager().refresh(kel::PDCRefreshStatus::Completed);
    if (cacheHasProfiles(manager()) || historyHas(manager(), kListReadLine)) {
        readNamesFromLibrary();
        return true;
    }
    *error = "no modem answered in " + options.modemDir + " within " +
             secondsText(options.timeoutMs) + " (is vex-modemd running there?)";
    return false;
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
        if (!tech || !id || !name || id->empty() || id->size() > 3 ||
            id->find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const kel::TechType techType =
            *tech == "3GPP2" ? kel::TechType::TYPE_3GPP2 : kel::TechType::TYPE_3GPP;
        startupNames[{techType, std::stoi(*id)}] =
            NamedApn{*name, dumpField(line, "ApnName=").value_or("")};
    }
}

}  // namespace kelctl
