// Hearing what changes: register a ModemObserver with Manager::addObserver and it is told of
// every change of the library's picture of the modem's profiles, of every refresh, and of every
// change of the modem link's status (kel/ModemStatus.h).
//
// Thread. Observers are called on one thread the library owns for them, the notifier thread,
// never on a client's thread nor on the library's worker. From there an observer may call every
// Manager method (a profile's read, a filter, even removeObserver of itself) and drop handles; it
// must not destroy the Manager. Events are handed over in batches: an observer hears of a change
// a few milliseconds after it happened at most, later only when observers are slow.
//
// Order. Events reach every observer in the order the library's picture changed: for one profile
// that is the modem's order; status changes come in the order they happened. A change this
// process made is told when the library makes it (its origin is ThisProcess) and its echo from
// the modem is not told again. A change by another client of the modem, or by the modem itself,
// is told once per announcement of the modem (origin Elsewhere), with the profile as the library
// reads it then: when changes follow each other faster than the library reads, an event may
// already show a later state, and the next one then shows nothing changed, but none is missed.
//
// A slow observer. Events wait in a bounded queue; the worker never waits for an observer. When
// the queue is full, events are dropped and counted, and the observers are told once with a single
// EventsLost event carrying the count before the events that follow; read the picture again
// (Manager::filter, getModemStatus) after one. Memory stays bounded whatever the observer does.
//
// Removal. Once removeObserver returns, the observer is not called again and no call to it is in
// progress, unless removeObserver was called from inside that observer's own call: that is safe
// too, and the call in progress is the last. Destroying the Manager removes every observer.
//
// Cost. With no observer registered the library builds no events at all.
#ifndef KEL_MODEM_OBSERVER_H
#define KEL_MODEM_OBSERVER_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kel/ModemStatus.h"
#include "kel/ProfileParams.h"

namespace kel {

// One profile as the library's picture holds it.
struct KEL_EXPORT ProfileState {
    TechType techType = TechType::TYPE_3GPP;
    int profileId = 0;
    // The modem's name for the profile (3GPP only; empty otherwise or when unknown).
    std::string name;
    // Every setting the library read, passwords in clear.
    ProfileParams settings;
};

// One setting that differs between two states of a profile: its name as ProfileParams::dump
// labels it ("ApnName", "Password", ... and "ProfileName"), its values as that dump writes them;
// an absent value is empty. Passwords in clear: a consumer that prints them masks them.
struct KEL_EXPORT SettingChange {
    std::string setting;
    std::optional<std::string> from;
    std::optional<std::string> to;
    bool operator==(const SettingChange& other) const {
        return setting == other.setting && from == other.from && to == other.to;
    }
};

struct KEL_EXPORT ModemEvent {
    enum class Kind : std::uint8_t {
        ProfileAdded = 0,       // after: the new profile (empty when it could not be read)
        ProfileChanged = 1,     // before, after, and changes: what differs (maybe nothing)
        ProfileDeleted = 2,     // before: the profile as it was (empty when not cached)
        RefreshStarted = 3,     // the library drops its picture and re-reads the modem
        RefreshCompleted = 4,   // count: profiles read; profiles: the new picture
        PictureIncomplete = 5,  // listFailed and unread say what the library could not read
        PictureWhole = 6,       // every listed profile is read again
        StatusChanged = 7,      // oldStatus and newStatus
        EventsLost = 8,         // count: events dropped because the queue was full
    };
    enum class Origin : std::uint8_t {
        Elsewhere = 0,    // another client of the modem, or the modem itself
        ThisProcess = 1,  // a call made through this process's library
    };

    Kind kind = Kind::ProfileAdded;
    // When the library's picture changed.
    std::chrono::system_clock::time_point time;

    // Profile events.
    Origin origin = Origin::Elsewhere;
    TechType techType = TechType::TYPE_3GPP;
    int profileId = 0;
    std::optional<ProfileState> before;
    std::optional<ProfileState> after;
    std::vector<SettingChange> changes;

    // RefreshCompleted and EventsLost.
    std::uint64_t count = 0;
    // RefreshCompleted: every profile read, ordered by technology and id.
    std::vector<ProfileState> profiles;

    // PictureIncomplete.
    bool listFailed = false;
    std::vector<ModemStatus::ProfileRef> unread;

    // StatusChanged: changes of connected, bound, registered, cacheLoaded or connections (the
    // message counters and the picture's holes do not make one).
    ModemStatus oldStatus;
    ModemStatus newStatus;

    // "added", "changed", "deleted", "refresh-started", "refresh-completed", "incomplete",
    // "whole", "status", "events-lost".
    static const char* name(Kind kind);
    // The settings whose values differ between before and after, in ProfileParams::dump order,
    // the profile name last.
    static std::vector<SettingChange> diff(const ProfileState& before, const ProfileState& after);
};

// Implemented by a client; see the contract above.
class KEL_EXPORT ModemObserver {
  public:
    virtual ~ModemObserver() = default;
    // On the notifier thread. An exception thrown out of it is caught and dropped.
    virtual void onModemEvent(const ModemEvent& event) = 0;
};

}  // namespace kel

#endif  // KEL_MODEM_OBSERVER_H
