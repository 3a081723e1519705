// What the library knows of its link to the modem: whether a modem client exists, whether it is
// bound to the subscription and hears profile changes, whether the profile cache was filled, and
// how many modem messages failed. Read it with Manager::getModemStatus, wait for a usable link
// with Manager::waitForModem.
//
// The status only shows what happened; it changes nothing. A failed bind is not retried, and the
// library goes on without it: its profile operations then reach the modem's default subscription.
// A failed indication registration or event-list configuration is not retried either: the cache
// no longer hears the modem's changes until the link is made again (the modem going down and
// coming back, or a new Manager::init).
//
// A value class: copyable, no locking.
#ifndef KEL_MODEM_STATUS_H
#define KEL_MODEM_STATUS_H

#include <cstdint>
#include <string>
#include <vector>

#include "kel/Options.h"
#include "kel/ProfileParams.h"

#ifndef KEL_EXPORT
#define KEL_EXPORT __attribute__((visibility("default")))
#endif

namespace kel {

struct KEL_EXPORT ModemStatus {
    // The subscription given to Manager::init.
    int subscriptionId = 0;
    // A modem client exists. Set once the client's bind and registrations have been answered, so
    // bound and registered always describe it; all four flags are false while it is unset (the
    // modem's data service is not up yet, went down, or the client could not be created).
    bool connected = false;
    // The bind of the current client to the subscription succeeded.
    bool bound = false;
    // The current client's indication registration and event-list configuration both succeeded.
    bool registered = false;
    // The latest refresh since the current client connected filled the cache, its profile-list
    // requests answered successfully (single profiles that could not be read are not counted).
    // False while a refresh runs.
    bool cacheLoaded = false;
    // The picture's holes: profiles the modem listed or announced that the library could not read
    // (their entries hold nothing), in the order they were found. Emptied by a new link, and by
    // a refresh that reads them; an entry goes when a later read of it succeeds or it is deleted.
    struct ProfileRef {
        TechType techType = TechType::TYPE_3GPP;
        int profileId = 0;
        bool operator==(const ProfileRef& other) const {
            return techType == other.techType && profileId == other.profileId;
        }
    };
    std::vector<ProfileRef> unreadProfiles;
    // The latest refresh's profile-list request failed (or got no answer): the library does not
    // know which profiles the modem has.
    bool profileListFailed = false;
    // Modem messages that failed since init, timed-out ones included.
    std::uint64_t failedMessages = 0;
    // Modem messages that got no answer in time since init.
    std::uint64_t timedOutMessages = 0;
    // Modem clients created since init: 0 until the link first came up; each recovery from the
    // modem going down adds one.
    std::uint64_t connections = 0;

    // The switches given to Manager::init.
    Options options;

    // Usable: connected, bound, registered and cacheLoaded.
    bool isReady() const { return connected && bound && registered && cacheLoaded; }
    // The library's picture of the modem is whole: ready, every profile list read and every
    // listed profile read. Act on what filter and getProfile show only when it is.
    bool isComplete() const { return isReady() && !profileListFailed && unreadProfiles.empty(); }
    // The link came up with a failed bind or registration; only a new link can mend it.
    bool isBroken() const { return connected && (!bound || !registered); }

    // One line: "SubscriptionId=0,Connected=true,...,Connections=1,ListFailed=false,Unread=,";
    // unread profiles as "3GPP:4;3GPP2:1;". When a switch is on, "Options=" follows with
    // Options::dump, its commas written as semicolons.
    std::string dump() const;
};

}  // namespace kel

#endif  // KEL_MODEM_STATUS_H
