// How a thread's latest Manager call ended, as errno tells of a system call: read it with
// Manager::lastOutcome() on the thread that made the call, right after it.
//
// The facade's own results keep their meaning and stay as they are (modifyProfile still returns
// true when the modem refused the change); the outcome says what happened besides:
//   Done               the library did what was asked, or found nothing to change;
//   Refused            the modem answered with an error: modemError and messageId say which;
//   NoAnswer           a modem message got no answer in time (messageId): the modem may have done
//                      it, and its echo, if any, still reaches the cache;
//   NoLink             no modem client exists (the service is not up, or went down), or the
//                      link was lost during the call: a request already sent may have been done,
//                      and once a new link is up the library reads the modem again;
//   NotBound           the modem did not bind the link to the subscription;
//   RefreshInProgress  refused between refresh(Started) and refresh(Completed);
//   NotInitialized     no pipeline: before init, while it is torn down, or on the worker thread;
//   InvalidArguments   an empty, foreign or expired handle, or parameters the library cannot use;
//   Failed             the library failed while serving the call (out of memory, or a client's
//                      own code that it ran threw); the library goes on with the next call.
//
// Whatever the outcome, the library's cache follows the modem's echoes: a change made by a call
// that ended NoAnswer (or NoLink) reaches the cache when the modem announces it, as any other
// client's change does. Whether the cache holds every profile the modem has is told by
// ModemStatus::isComplete (kel/ModemStatus.h), not by the outcome of one call.
//
// Set by addProfile, modifyProfile, deleteProfile, filter, getProfile, match and refresh, and by
// nothing else (dump, getModemStatus, waitForModem and handle releases leave it as it was).
// Recorded by the library's worker for the call it serves and handed back with the answer, so it
// costs one small copy per call.
//
// A value class: copyable, no locking.
#ifndef KEL_OUTCOME_H
#define KEL_OUTCOME_H

#include <cstdint>
#include <string>

#ifndef KEL_EXPORT
#define KEL_EXPORT __attribute__((visibility("default")))
#endif

namespace kel {

struct KEL_EXPORT Outcome {
    enum class Kind : std::uint8_t {
        Done = 0,
        Refused = 1,
        NoAnswer = 2,
        NoLink = 3,
        NotBound = 4,
        RefreshInProgress = 5,
        NotInitialized = 6,
        InvalidArguments = 7,
        Failed = 8,
    };

    Kind kind = Kind::Done;
    // Refused: the error code of the modem's answer; 0 otherwise.
    std::uint32_t modemError = 0;
    // Refused and NoAnswer: the id of the modem message concerned (0x27 create, 0x28 modify, 0x29
    // delete, 0x2a profile list, 0x2b profile read); 0 otherwise.
    std::uint32_t messageId = 0;

    bool ok() const { return kind == Kind::Done; }
    // NoAnswer: whether the modem did it is not known.
    bool unknown() const { return kind == Kind::NoAnswer; }

    // The kind in words: "done", "refused by the modem", "no answer in time", "no modem link",
    // "not bound", "refresh in progress", "not initialised", "invalid arguments", "failed in the
    // library".
    static const char* name(Kind kind);
    // One line: "refused by the modem: message 0x0028, error 0x0003"; "done".
    std::string dump() const;

    bool operator==(const Outcome& other) const {
        return kind == other.kind && modemError == other.modemError && messageId == other.messageId;
    }
    bool operator!=(const Outcome& other) const { return !(*this == other); }
};

}  // namespace kel

#endif  // KEL_OUTCOME_H
