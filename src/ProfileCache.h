// The library's single picture of the modem's profiles: every profile under a token, the
// handles given to clients, their release and expiration, and the modem's profile-changed
// indications, the cache's own changes told apart by the echoes it expects.
//
// Threads: worker thread only (client requests through ClientRequestManager, indications through
// the event loop the same thread runs), except dump, which any thread may call: the worker holds
// viewMutex while it changes what dump shows.
#ifndef KEL_PROFILE_CACHE_H
#define KEL_PROFILE_CACHE_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ChangeNotifier.h"
#include "EventManager.h"
#include "ModemProfile.h"
#include "ProfileKey.h"
#include "VexWdsProxy.h"
#include "kel/Options.h"
#include "kel/ProfileParams.h"

namespace kel {

class ProfileCache {
  public:
    // Reads nothing yet: the cache fills on refresh() or the modem's profiles-ready indication.
    // sendRequest is handed to every handle the cache creates.
    ProfileCache(EventManager& eventManager, int subscriptionId, SendRequestFn sendRequest,
                 const Options& options = Options());
    ProfileCache(const ProfileCache&) = delete;
    ProfileCache& operator=(const ProfileCache&) = delete;

    // The new profile's handle; empty when it could not be created on the modem.
    std::shared_ptr<ProfileKey> add(AddProfileParams& params);
    // True also when nothing changes and (deliberately) when the modem refuses the change.
    bool modify(ModifyProfileParams& params, std::shared_ptr<ProfileKey> key);
    // Deletes the profile from the modem, whoever created it; every handle to it expires.
    bool remove(std::shared_ptr<ProfileKey> key);
    bool match(FilterProfileParams& params, std::shared_ptr<ProfileKey> key);
    std::optional<ProfileParams> get(std::shared_ptr<ProfileKey> key);
    // One new handle (one more reference) per matching profile.
    std::list<std::shared_ptr<ProfileKey>> filter(FilterProfileParams& params);
    // Always false, whether or not the listener was registered; the handle ignores the answer.
    bool registerExpirationListener(std::function<void()> callback, std::weak_ptr<IProfileKey> key,
                                    unsigned long long token);
    // One handle of token is gone. The last one of a non-persistent profile that the library
    // created deletes it from the modem.
    bool releaseProfile(unsigned long long token);
    // Drops every entry (expiring every handle) and re-reads the modem.
    bool refresh();
    void onIndication(ProfileChangedInd ind);
    // "Cache:", one line per entry, "Pending:", one line per expected echo. Any thread; onWorker
    // says the caller is the worker itself (an expiration listener), which must not wait for
    // viewMutex: it may hold it already, and nothing else changes the cache meanwhile.
    std::vector<std::string> dump(bool onWorker = false);
    // Drops every entry, expiring every handle: the listeners of handles still held run here.
    // The worker calls it on its way out, so that listeners always run on the worker thread.
    void expireAll();

    // How the latest operation ended (Done unless it failed), for the caller of the request being
    // served; taking it resets it to Done.
    Outcome takeOutcome() { return std::exchange(outcome, Outcome{}); }
    void setOutcome(Outcome::Kind kind) { outcome = Outcome{kind, 0, 0}; }

    // The modem link's status; unlike the cache itself, safe to use on any thread.
    ModemStatusBoard& getStatusBoard() { return vexWdsProxy.getStatusBoard(); }

    // Where the cache's changes are told (borrowed; the Manager's, which outlives the cache). Set
    // before the worker starts, with the status board's.
    void setNotifier(ChangeNotifier* changeNotifier);

    // Tokens are process-wide and never reused; the first is 0.
    static unsigned long long generateToken();

  private:
    using ProfileMap = std::unordered_map<unsigned long long, std::shared_ptr<ModemProfile>>;

    // The entry of the key's token; end() (after logging at level) when there is none.
    ProfileMap::iterator find(const ProfileKey& key, LogLevel level);
    ProfileMap::iterator find(unsigned long long token, LogLevel level);
    // Held while the worker changes what dump shows.
    std::unique_lock<std::mutex> changing() { return std::unique_lock<std::mutex>(viewMutex); }
    // Takes the entry out of the map; the caller drops the profile (running its listeners) once
    // the map is whole again, so a listener may walk it.
    std::shared_ptr<ModemProfile> detach(ProfileMap::iterator it);
    // Records an indication that the modem will send as the echo of the cache's own change.
    void expect(TechType techType, int profileId, ProfileChangedEvent event);
    // With echoExpiryMs: forgets the echoes expected for longer than that, and those of a link
    // that has since been replaced.
    void expireEchoes();
    void forgetEchoesOfLostLinks();
    // With reclaim: what the cache remembers of the profiles it created, and their deletion.
    void forgetOwn(TechType techType, int profileId);
    bool isOwn(TechType techType, int profileId) const;
    // Deletes a profile nobody holds from the modem; true when the modem deleted it.
    bool reclaimProfile(TechType techType, int profileId);
    // After a refresh: the own profiles it read, whose handles it expired, are deleted.
    void reclaimExpired();
    // Whether profile, just created by another's hand as far as the cache knows, is one of the
    // creates that got no answer in time; that create is then forgotten.
    bool takeLateCreate(const ModemProfile& profile);
    std::shared_ptr<ProfileKey> makeKey(const ModemProfile& profile, unsigned long long token);
    // The latest modem message's failure becomes the operation's outcome.
    void failedAtModem();
    // Records whether the profile could be read, and publishes the picture's holes when they
    // change.
    void noteRead(TechType techType, int profileId, bool read);
    void publishPicture();
    // Tells the observers of a profile's change, when there are any.
    bool watched() const { return notifier != nullptr && notifier->watched(); }
    void tellProfile(ModemEvent::Kind kind, ModemEvent::Origin origin, TechType techType,
                     int profileId, std::optional<ProfileState> before,
                     std::optional<ProfileState> after);
    void tell(ModemEvent::Kind kind);
    void tellRefreshed();
    // Whether a modify announcement of the profile is the one that follows its creation by
    // another client (forgotten once asked).
    bool followsCreate(TechType techType, int profileId);
    std::optional<ProfileState> stateOf(const std::shared_ptr<ModemProfile>& profile) const;

    const Options options;
    SendRequestFn sendRequest;
    VexWdsProxy vexWdsProxy;
    // Guards profiles, pendingTransactions and the profiles' settings against dump on another
    // thread; only the worker changes them, so the worker reads them without it.
    std::mutex viewMutex;
    ProfileMap profiles;
    std::list<ProfileChangedInd> pendingTransactions;
    // When each pending echo was expected, in step with pendingTransactions.
    std::list<std::chrono::steady_clock::time_point> pendingSince;
    // With reclaim: the non-persistent profiles this cache created that are still on the modem,
    // and the creates that got no answer in time (the modem may have made them), newest last.
    std::vector<ModemStatus::ProfileRef> ownProfiles;
    std::list<std::shared_ptr<ModemProfile>> lateCreates;
    Outcome outcome;                              // of the operation being served
    std::vector<ModemStatus::ProfileRef> unread;  // listed or announced, but not read
    bool listFailed = false;                      // the latest refresh's list failed
    std::uint64_t pendingLink = 0;                // the link pendingTransactions were made on
    ChangeNotifier* notifier = nullptr;           // borrowed; see setNotifier
    bool pictureHasHoles = false;                 // as last told to the observers
    // Created by others and not yet followed by the modem's modify; kept while watched only.
    std::deque<ModemStatus::ProfileRef> createdElsewhere;
    static constexpr std::size_t kMaxCreatedElsewhere = 64;
};

}  // namespace kel

#endif  // KEL_PROFILE_CACHE_H
