// apply-classes and apply-types: a plan worked out on a copy of the modem's profiles with the
// rules of the library's Util, printed by --dry-run; otherwise Util applies the entries and every
// setting the plan sets is read back. A change to the emergency profile is named as such.
//
// Main thread only, during one command.
#ifndef KELCTL_POLICY_APPLY_H
#define KELCTL_POLICY_APPLY_H

#include "Commands.h"

namespace kelctl {

bool runApplyClasses(Session& session, const Invocation& invocation, CommandResult* result);
bool runApplyTypes(Session& session, const Invocation& invocation, CommandResult* result);

}  // namespace kelctl

#endif  // KELCTL_POLICY_APPLY_H
