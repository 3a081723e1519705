// kelctl status and kelctl monitor: the modem link as it stands, and a stream of what changes.
// Both open their own link (status reports a link that is not usable instead of refusing to run)
// and run only as commands of their own, not in scripts.
//
// Main thread only; monitor's observer runs on the library's notifier thread and only queues.
#ifndef KELCTL_MONITOR_H
#define KELCTL_MONITOR_H

#include <string>
#include <vector>

#include "Commands.h"
#include "Options.h"
#include "Output.h"

namespace kelctl {

// kelctl status: exit 0 when the link is ready, 1 when it is not, or broken, with the reason.
int runStatus(const std::vector<std::string>& words, GlobalOptions globals, Channel& channel);

// kelctl monitor: the current picture, then one line (or JSON line) per event until --count
// events, --timeout, SIGINT, SIGTERM or a closed standard output.
int runMonitor(const std::vector<std::string>& words, GlobalOptions globals, Channel& channel);

// The command table's entry for both: refused in a script.
bool cmdOwnRun(Session& session, const Invocation& invocation, CommandResult* result);

}  // namespace kelctl

#endif  // KELCTL_MONITOR_H
