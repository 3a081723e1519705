// The commands of vex-modemctl, as vex-modemd carries them out on its modem.
//
// Wire form on the control socket: the client sends its arguments, each ended by a NUL byte, and
// shuts down its writing side; the daemon answers with "ok", "error: REASON" (the modem refused)
// or "wrong: REASON" (a command or arguments it does not take) on the first line, then the
// command's output, and closes the connection.
#ifndef VEX_MODEMD_MODEM_CONTROL_H
#define VEX_MODEMD_MODEM_CONTROL_H

#include <string>
#include <vector>

#include "vexsim/SimModem.h"

namespace vexmodemd {

// Name of the control socket inside the service directory.
constexpr const char* kControlSocketName = "vex-modemd.ctl";
// The first line of the answer to a wrong command line.
constexpr const char* kWrongPrefix = "wrong: ";

struct Reply {
    bool ok = true;
    std::string text;    // the output, or the reason of a failure (one line)
    bool wrong = false;  // the failure is the command line's, not the modem's
};

// Threads: the daemon's control thread only; the modem itself may be called from any thread.
class ModemControl {
  public:
    ModemControl(vexsim::SimModem& target, int subscriptionCount)
        : modem(target), subscriptions(subscriptionCount) {}

    Reply execute(const std::vector<std::string>& args);

  private:
    Reply profiles(const std::vector<std::string>& args);
    Reply clients();
    Reply change(const std::string& command, const std::vector<std::string>& args);
    Reply announce(const std::string& command, const std::vector<std::string>& args);
    Reply faults(const std::string& command, const std::vector<std::string>& args);
    Reply indications(const std::string& command, const std::vector<std::string>& args);
    Reply power(const std::string& command);
    bool parseSubscription(const std::string& text, int* subscription, Reply* error) const;

    vexsim::SimModem& modem;  // borrowed; owned by the daemon's main
    const int subscriptions;
};

// Joins the reply as it travels on the control socket.
std::string encodeReply(const Reply& reply);

}  // namespace vexmodemd

#endif  // VEX_MODEMD_MODEM_CONTROL_H
