// The modem kelctl works on: the embedded simulated modem (the default, so kelctl works on a
// fresh machine with nothing running) or a running modem's service directory. Opening the link
// initialises the library and waits until it is connected and its cache filled, so that the
// first command sees the modem's profiles.
//
// Main thread only; the embedded modem serves on its own threads.
#ifndef KELCTL_MODEM_LINK_H
#define KELCTL_MODEM_LINK_H

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Options.h"
#include "Output.h"
#include "kel/Manager.h"
#ifdef KELCTL_NO_EMBEDDED_MODEM
// A device's kelctl works on the device's modem only (Android.bp); the simulated modem is a
// host's, so there sim stays empty.
namespace vexsim {
class SimModem {};
}  // namespace vexsim
#else
#include "vexsim/SimModem.h"
#endif

namespace kelctl {

class ModemLink {
  public:
    ModemLink() = default;
    ~ModemLink();
    ModemLink(const ModemLink&) = delete;
    ModemLink& operator=(const ModemLink&) = delete;

    kel::Manager& manager() const;
    // The modem's name for a profile with this APN. The embedded modem's table is read as it is
    // now; a running modem's names are those the library read when kelctl connected.
    std::optional<std::string> modemProfileName(kel::TechType tech, int id,
                                                const std::string& apn) const;
    bool isEmbedded() const { return sim != nullptr; }
    // The run's deadline, told which directory to clean up should it stop the process.
    void reportTo(RunDeadline* runDeadline) { deadline = runDeadline; }

    // False with a one-line reason when the modem cannot be started or does not answer within
    // the timeout (with --timeout, within part of it, so that the run has time left for its
    // work). Call once.
    bool open(const GlobalOptions& options, std::string* error);

  private:
    bool startEmbedded(const GlobalOptions& options, std::string* error);
    // Waits for the library's link to the modem; false with the reason when it is not usable.
    bool waitReady(const GlobalOptions& options, std::string* error);
    std::string notReadyText(const GlobalOptions& options,
                             const std::optional<kel::ModemStatus>& status) const;
    void readNamesFromLibrary();

    struct NamedApn {
        std::string name;
        std::string apn;  // as the library normalised it
    };

    std::unique_ptr<vexsim::SimModem> sim;
    std::map<std::pair<kel::TechType, int>, NamedApn> startupNames;
    std::string privateDir;           // the embedded modem's service directory, removed at the end
    RunDeadline* deadline = nullptr;  // borrowed from the channel, which outlives the link
    int subscription = 0;
    int embeddedSubscriptions = 0;  // the embedded modem's; 0 for a running modem
};

// kelctl's data: the source tree's when kelctl runs in its build directory, otherwise the data
// installed relative to the executable.
std::string dataDirectory();
// The seed file the embedded modem starts from when --seed is not given; empty when none is
// installed.
std::string defaultSeedFile();

}  // namespace kelctl

#endif  // KELCTL_MODEM_LINK_H
