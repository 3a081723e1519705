// The embedded modem's state file is read at the start of a run and written on every change; two
// runs on one state file at once would each write their own picture and lose the other's
// changes. A run therefore holds an exclusive lock on it from before the modem starts until the
// process ends.
//
// Main thread only.
#ifndef KELCTL_STATE_LOCK_H
#define KELCTL_STATE_LOCK_H

#include <chrono>
#include <string>

namespace kelctl {

// Takes the lock of statePath (a record lock on "STATE.lock" beside it, created 0600 and never
// through a symbolic link; the state file itself is replaced on every write, so it cannot carry
// the lock), waiting for another run to finish until deadline. The lock is kept until the process
// ends. False with a reason naming the run that holds it.
bool lockStateFile(const std::string& statePath, std::chrono::steady_clock::time_point deadline,
                   std::string* error);

}  // namespace kelctl

#endif  // KELCTL_STATE_LOCK_H
