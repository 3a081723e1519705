// What kelctl may claim of the modem: a call the modem did not answer in time is followed by a
// bounded wait for its echo before kelctl says what the modem holds, and nothing is read out or
// acted on while the library's picture of the modem has holes. Every verdict comes from the
// library's outcomes (Manager::lastOutcome) and its status (ModemStatus), never from its text.
//
// Main thread only.
#ifndef KELCTL_TRUTH_H
#define KELCTL_TRUTH_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "Commands.h"
#include "Options.h"
#include "kel/ModemStatus.h"
#include "kel/Outcome.h"

namespace kelctl {

// Bounds the session's waits for late answers by the run's --timeout, which started at
// runStart; without --timeout each wait may take the timeout's length.
void limitWaits(Session& session, const GlobalOptions& globals,
                std::chrono::steady_clock::time_point runStart);

// What a wait for the modem's echo found.
struct LateAnswer {
    bool landed = false;
    bool linkDropped = false;  // the call ended with no link: the request may have been sent
    int afterMs = 0;           // from the unanswered call to the echo's landing
};

// Whether the outcome leaves open what the modem did: no answer in time, or the link gone (it
// may have dropped after the request went out).
bool mayHaveBeenDone(const kel::Outcome& outcome);
// Asks held() until it is true or the session's wait ends; held() reads the library (a Manager
// call). asked: when the unanswered call was made. After a lost link, the wait is first for the
// link to come back, when the library reads the modem again.
LateAnswer waitForEcho(const Session& session, std::chrono::steady_clock::time_point asked,
                       const kel::Outcome& outcome, const std::function<bool()>& held);

// "no answer within 1 s; 1.2 s after asking, the modem holds the change" (landedFact: "the
// modem holds the change") or "no answer within 1 s; the modem may still apply it" (mayStill:
// "apply it").
std::string lateText(const LateAnswer& answer, const std::string& landedFact,
                     const std::string& mayStill);
// Whether the library's picture names this profile as one it could not read.
bool isUnread(kel::TechType tech, int id);
// Why the library did not do what was asked, from its outcome: "the modem refused it (message
// 0x28, error 0x0003)", "no modem link", ...
std::string outcomeText(const kel::Outcome& outcome);

// The library's picture as it stands now; empty before the link is up.
std::optional<kel::ModemStatus> picture();
// "3gpp:1, 3gpp2:2"; "the modem's profile list" when a list failed.
std::string holesText(const kel::ModemStatus& status);
Json holesJson(const kel::ModemStatus& status);

// Runs a command with the picture checked: a command that changes the modem from what it sees
// re-reads the modem once when the picture has holes and then, if it still has, changes nothing;
// a command that shows the modem's profiles fails naming the holes. False when the command failed
// or the picture was not whole.
bool runWithWholePicture(const CommandSpec& definition, Session& session,
                         const Invocation& invocation, CommandResult* result);

}  // namespace kelctl

#endif  // KELCTL_TRUTH_H
