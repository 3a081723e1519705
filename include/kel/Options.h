// Switches that cure hazards the library otherwise keeps, given to Manager::init. Every switch
// is off by default, and with all of them off the library behaves exactly as it always has:
// each one changes a result, a log line or a modem message that existing clients may rely on,
// which is why none of them is simply the library's behaviour. Turn on what the device needs;
// Options::safe() turns on all of them with sensible bounds.
//
// A value class: copyable, no locking. Manager::dump and ModemStatus show the switches in force.
#ifndef KEL_OPTIONS_H
#define KEL_OPTIONS_H

#include <cstdint>
#include <string>

#ifndef KEL_EXPORT
#define KEL_EXPORT __attribute__((visibility("default")))
#endif

namespace kel {

struct KEL_EXPORT Options {
    // Deletes from the modem the non-persistent profiles that this process created and nobody
    // holds any more: after a refresh expired their handles, after another client modified one
    // (the library then takes the modem's copy for a stranger's and would keep it on the last
    // release), and when a create that got no answer in time turns out to have been made.
    // Never another process's profile, never one with a live handle. Off, such profiles stay on
    // the modem until it restarts, filling its table; that is the library's documented handle
    // rule (an expired handle deletes nothing), kept for clients that count on the profile
    // staying.
    bool reclaim = false;

    // An echo the library expects for its own change (the modem's indication of it) is
    // forgotten after this many milliseconds, and at once when the link that was to send it has
    // been replaced (the modem does not echo one link's change on another); 0 never. An echo
    // that never comes otherwise
    // stays expected for good and swallows the next indication of the same kind for that
    // profile, a change made by another client, until the next refresh. Off, because an echo
    // that arrives later than the bound is then taken for another client's change and re-read.
    std::uint32_t echoExpiryMs = 0;

    // A refresh stops reading single profiles after this many consecutive reads got no answer
    // in time; it still reads the profile lists, and reports every profile it did not read in
    // ModemStatus::unreadProfiles, so the picture shows as incomplete; 0 reads on. Every call waits
    // for a refresh, so a modem that answers every read late otherwise holds every caller for the
    // whole of it (one message timeout per profile). Off, because the cache then lacks profiles the
    // modem may well have.
    std::uint32_t refreshGiveUpAfterTimeouts = 0;

    // The indications queued behind one that cannot be decoded are handled at once. Off, they
    // wait for the next wake of the worker (the next indication), so another client's changes
    // can stay unseen for a long time; some clients time their reads on that delay.
    bool continueAfterMalformedIndication = false;

    // Profile operations that reach the modem (add, modify, delete) fail at once, with the
    // outcome NotBound, while the link is not bound to the subscription. Off, they are sent
    // anyway, and after a failed bind they land on the modem's default subscription: the
    // behaviour existing clients see today.
    bool failFastWhileUnbound = false;

    // After the modem's service came up but the library could not create its client, it waits
    // for the service to come up again and retries. Off, the library stays without a link
    // until the next Manager::init.
    bool retryClientCreation = false;

    // Every switch on: reclaim, echoes expire after 10 s, a refresh gives up after 3 timed-out
    // reads, malformed indications do not hold up the rest, unbound links fail fast, client
    // creation is retried.
    static Options safe();

    // Whether any switch is on.
    bool anyOn() const;
    // One line: "Reclaim=true,EchoExpiryMs=10000,RefreshGiveUpAfterTimeouts=3,
    // ContinueAfterMalformedIndication=true,FailFastWhileUnbound=true,RetryClientCreation=true,".
    std::string dump() const;

    bool operator==(const Options& other) const;
    bool operator!=(const Options& other) const { return !(*this == other); }
};

}  // namespace kel

#endif  // KEL_OPTIONS_H
