// Script mode: kelctl commands one per line, with profile handles kept under names across lines
// ("h1 = data-call --apn internet", "get h1", "drop h1"). A handle lives only as long as the
// process holding it; a script is how a handle outlives one command.
//
// Main thread only.
#ifndef KELCTL_SCRIPT_H
#define KELCTL_SCRIPT_H

#include <string>
#include <vector>

#include "Commands.h"
#include "Options.h"
#include "Output.h"

namespace kelctl {

// Exit statuses, for one command and for a whole script.
enum ExitStatus : int {
    kExitOk = 0,
    kExitFailed = 1,  // the modem or the library said no, or the modem did not answer
    kExitUsage = 2,   // a bad command line or input file; nothing was sent
};

// Runs the command words of a single command line against a fresh link.
int runCommandLine(const CommandSpec& definition, const std::vector<std::string>& words,
                   GlobalOptions globals, Channel& channel);

// kelctl run FILE: every line is checked first; nothing is sent when one is wrong. Stops at the
// first line that fails.
int runScriptFile(const std::vector<std::string>& words, GlobalOptions globals, Channel& channel);

// kelctl shell: lines from standard input, each run as it comes; a failing line is reported and
// the next one is read.
int runShell(const std::vector<std::string>& words, GlobalOptions globals, Channel& channel);

// Settles which modem a run uses (--modem, VEX_SERVICE_DIR or the embedded one) and checks the
// embedded modem's files, for a command that opens its own link. False with a reason.
bool prepareRun(GlobalOptions* globals, std::string* error);

// Splits a script line into words: blanks separate, quotes group, '#' starts a comment.
bool splitLine(const std::string& line, std::vector<std::string>* words, std::string* error);

}  // namespace kelctl

#endif  // KELCTL_SCRIPT_H
