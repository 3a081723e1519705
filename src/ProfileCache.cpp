#include "ProfileCache.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <limits>
#include <utility>

#include "LocalLogBuffer.h"

namespace kel {

namespace {

constexpr const char* kTokenMissing = "ProfileCache: token is not present or expired";
// Creates without an answer that reclaim remembers; older ones are forgotten.
constexpr std::size_t kLateCreatesKept = 8;

// Named as the library names the 3GPP profiles it creates (3GPP2 profiles carry no name).
bool isLibraryNamed(const ModemProfile& profile) {
    const auto* profile3gpp = dynamic_cast<const Modem3gppProfile*>(&profile);
    if (profile3gpp == nullptr) {
        return true;
    }
    const std::string name = profile3gpp->getProfileName();
    return name == kKelProfileName || name == kKelIAProfileName;
}

// Atomic although tokens are drawn on a worker thread: while a second Manager::init hands over,
// two workers exist for a moment.
std::atomic<unsigned long long> nextToken{0};

}  // namespace

unsigned long long ProfileCache::generateToken() {
    unsigned long long token = nextToken.load();
    do {
        // A wrapped token would name two entries at once.
        if (token == std::numeric_limits<unsigned long long>::max()) {
            KEL_LOG(Error, "ProfileCache: token counter exhausted");
            std::abort();
        }
    } while (!nextToken.compare_exchange_weak(token, token + 1));
    return token;
}

ProfileCache::ProfileCache(EventManager& eventManager, int subscriptionId, SendRequestFn send,
                           const Options& switches)
    : options(switches),
      sendRequest(std::move(send)),
      vexWdsProxy(eventManager, subscriptionId, switches) {
    vexWdsProxy.registerProfileChangedInd(
        [this](ProfileChangedInd ind) { onIndication(std::move(ind)); });
}

ProfileCache::ProfileMap::iterator ProfileCache::find(unsigned long long token, LogLevel level) {
    auto it = profiles.find(token);
    if (it == profiles.end()) {
        LogWrapper::getInstance()->log(level, kLogTag, "%s", kTokenMissing);
    }
    return it;
}

ProfileCache::ProfileMap::iterator ProfileCache::find(const ProfileKey& key, LogLevel level) {
    return find(key.getToken(), level);
}

void ProfileCache::forgetEchoesOfLostLinks() {
    // An echo is sent on the link that made the change, or not at all: once that link is gone,
    // what it still expected would only swallow a later link's echoes of others' changes.
    const std::uint64_t link = getStatusBoard().get().connections;
    if (link == pendingLink) {
        return;
    }
    pendingLink = link;
    if (!pendingTransactions.empty()) {
        KEL_LOG(History, "ProfileCache: expected echoes of a lost link forgotten: %zu",
                pendingTransactions.size());
        auto lock = changing();
        pendingTransactions.clear();
        pendingSince.clear();
    }
}

void ProfileCache::expect(TechType techType, int profileId, ProfileChangedEvent event) {
    if (options.echoExpiryMs != 0) {
        forgetEchoesOfLostLinks();
    }
    if (pendingTransactions.size() == pendingTransactions.max_size()) {
        KEL_LOG(Error, "ProfileCache: pending transactions exhausted");
        std::abort();
    }
    pendingTransactions.push_back(ProfileChangedInd{techType, profileId, event});
    pendingSince.push_back(std::chrono::steady_clock::now());
}

void ProfileCache::expireEchoes() {
    if (options.echoExpiryMs == 0) {
        return;
    }
    forgetEchoesOfLostLinks();
    const auto oldest =
        std::chrono::steady_clock::now() - std::chrono::milliseconds(options.echoExpiryMs);
    auto since = pendingSince.begin();
    for (auto it = pendingTransactions.begin(); it != pendingTransactions.end();) {
        if (*since > oldest) {
            ++it;
            ++since;
            continue;
        }
        KEL_LOG(History, "ProfileCache: expected echo expired: %s", it->dump().c_str());
        auto lock = changing();
        it = pendingTransactions.erase(it);
        since = pendingSince.erase(since);
    }
}

void ProfileCache::forgetOwn(TechType techType, int profileId) {
    auto it = std::find(ownProfiles.begin(), ownProfiles.end(),
                        ModemStatus::ProfileRef{techType, profileId});
    if (it != ownProfiles.end()) {
        ownProfiles.erase(it);
    }
}

bool ProfileCache::isOwn(TechType techType, int profileId) const {
    return std::find(ownProfiles.begin(), ownProfiles.end(),
                     ModemStatus::ProfileRef{techType, profileId}) != ownProfiles.end();
}

bool ProfileCache::reclaimProfile(TechType techType, int profileId) {
    forgetOwn(techType, profileId);
    if (!vexWdsProxy.remove(techType, profileId)) {
        KEL_LOG(Error, "ProfileCache: failed to reclaim profile %d", profileId);
        return false;
    }
    KEL_LOG(History, "ProfileCache: reclaimed profile %d", profileId);
    auto lock = changing();
    expect(techType, profileId, ProfileChangedEvent::Delete);
    return true;
}

void ProfileCache::reclaimExpired() {
    std::vector<std::shared_ptr<ModemProfile>> gone;
    for (auto it = profiles.begin(); it != profiles.end();) {
        const std::shared_ptr<ModemProfile>& profile = it->second;
        // Persistent or renamed: somebody else's now, whatever index it has.
        const bool ours = profile && !profile->getIsPersistent() &&
                          isOwn(profile->getTechType(), profile->getProfileId()) &&
                          isLibraryNamed(*profile);
        if (ours && reclaimProfile(profile->getTechType(), profile->getProfileId())) {
            auto lock = changing();
            gone.push_back(std::move(it->second));
            it = profiles.erase(it);
        } else {
            ++it;
        }
    }
    // Whatever was not reclaimed is no longer known to be this cache's.
    ownProfiles.clear();
    // Reclaiming is the cache's own business: its failures are not the refresh's outcome.
    vexWdsProxy.takeFailure();
}

bool ProfileCache::takeLateCreate(const ModemProfile& profile) {
    if (profile.getIsPersistent() || !isLibraryNamed(profile)) {
        return false;
    }
    for (auto it = lateCreates.begin(); it != lateCreates.end(); ++it) {
        const ModemProfile& late = **it;
        if (late.getTechType() == profile.getTechType() &&
            late.hasApnName() == profile.hasApnName() &&
            (!late.hasApnName() || late.getApnName() == profile.getApnName())) {
            lateCreates.erase(it);
            return true;
        }
    }
    return false;
}

std::shared_ptr<ProfileKey> ProfileCache::makeKey(const ModemProfile& profile,
                                                  unsigned long long token) {
    return std::make_shared<ProfileKey>(profile.getTechType(), profile.getProfileId(), token,
                                        sendRequest);
}

std::shared_ptr<ProfileKey> ProfileCache::add(AddProfileParams& params) {
    // Drawn before anything can fail, so a failed add still consumes a token.
    const unsigned long long token = generateToken();
    std::shared_ptr<ModemProfile> profile;
    switch (params.getTechType()) {
        case TechType::TYPE_3GPP2:
            profile = std::make_shared<Modem3gpp2Profile>(params);
            break;
        case TechType::TYPE_3GPP: {
            auto profile3gpp = std::make_shared<Modem3gppProfile>(params);
            // The library names its own profiles; a client-given name is discarded on purpose.
            profile3gpp->setProfileName(params.getIsIAProfile() ? kKelIAProfileName
                                                                : kKelProfileName);
            profile = std::move(profile3gpp);
            break;
        }
    }
    if (!profile) {
        KEL_LOG(Error, "ProfileCache: failed to create profile");
        setOutcome(Outcome::Kind::InvalidArguments);
        return nullptr;
    }
    profile->setIsPersistent(params.getIsPersistent());
    profile->setIsKelCreated(true);
    if (!vexWdsProxy.add(*profile)) {
        failedAtModem();
        if (options.reclaim && outcome.unknown() && !profile->getIsPersistent()) {
            // The modem may have made it all the same: its create indication will tell.
            lateCreates.push_back(profile);
            if (lateCreates.size() > kLateCreatesKept) {
                lateCreates.pop_front();
            }
        }
        return nullptr;
    }
    if (options.reclaim && !profile->getIsPersistent()) {
        ownProfiles.push_back({profile->getTechType(), profile->getProfileId()});
    }
    {
        auto lock = changing();
        profile->incRefCount();
        profiles.emplace(token, profile);
        // The modem reports a creation as a create indication followed by a modify indication.
        expect(params.getTechType(), profile->getProfileId(), ProfileChangedEvent::Create);
        expect(params.getTechType(), profile->getProfileId(), ProfileChangedEvent::Modify);
    }
    KEL_LOG(History, "Added: %s", profile->dump().c_str());
    if (watched()) {
        tellProfile(ModemEvent::Kind::ProfileAdded, ModemEvent::Origin::ThisProcess,
                    profile->getTechType(), profile->getProfileId(), std::nullopt,
                    stateOf(profile));
    }
    return makeKey(*profile, token);
}

bool ProfileCache::modify(ModifyProfileParams& params, std::shared_ptr<ProfileKey> key) {
    if (!key) {
        setOutcome(Outcome::Kind::InvalidArguments);
        return false;
    }
    auto it = find(*key, LogLevel::History);
    if (it == profiles.end()) {
        setOutcome(Outcome::Kind::InvalidArguments);
        return false;
    }
    std::shared_ptr<ModemProfile> profile = it->second;
    if (!profile) {
        return true;
    }
    std::shared_ptr<ModemProfile> diff = profile->diff(params);
    if (!diff) {
        KEL_LOG(History, "ProfileCache: profile is unchanged");
        return true;
    }
    if (!vexWdsProxy.modify(*diff, profile->getTechType(), profile->getProfileId())) {
        // Deliberately reported as success: the cache stays as the modem has it. The outcome
        // tells the caller what really happened.
        KEL_LOG(Error, "ProfileCache: failed to modify modem profile");
        failedAtModem();
        return true;
    }
    std::optional<ProfileState> before = watched() ? stateOf(profile) : std::nullopt;
    auto lock = changing();
    profile->apply(diff);
    KEL_LOG(History, "Diff: %s", diff->dump().c_str());
    if (before) {
        tellProfile(ModemEvent::Kind::ProfileChanged, ModemEvent::Origin::ThisProcess,
                    profile->getTechType(), profile->getProfileId(), std::move(before),
                    stateOf(profile));
    }
    expect(profile->getTechType(), profile->getProfileId(), ProfileChangedEvent::Modify);
    return true;
}

bool ProfileCache::remove(std::shared_ptr<ProfileKey> key) {
    if (!key) {
        setOutcome(Outcome::Kind::InvalidArguments);
        return false;
    }
    auto it = find(*key, LogLevel::Error);
    if (it == profiles.end()) {
        setOutcome(Outcome::Kind::InvalidArguments);
        return false;
    }
    // The handle's identity is used, not the profile's; they agree unless the modem renumbered.
    if (!vexWdsProxy.remove(key->getTechType(), key->getProfileId())) {
        KEL_LOG(Error, "ProfileCache: Failed to remove profile");
        failedAtModem();
        return false;
    }
    TechType techType = key->getTechType();
    int profileId = key->getProfileId();
    if (it->second) {
        techType = it->second->getTechType();
        profileId = it->second->getProfileId();
    }
    std::optional<ProfileState> before = watched() ? stateOf(it->second) : std::nullopt;
    // An explicit remove ignores counts and persistence: every handle to the profile expires.
    forgetOwn(techType, profileId);
    std::shared_ptr<ModemProfile> gone;
    auto lock = changing();
    gone = detach(it);
    expect(techType, profileId, ProfileChangedEvent::Delete);
    if (watched()) {
        tellProfile(ModemEvent::Kind::ProfileDeleted, ModemEvent::Origin::ThisProcess, techType,
                    profileId, std::move(before), std::nullopt);
    }
    return true;
}

bool ProfileCache::match(FilterProfileParams& params, std::shared_ptr<ProfileKey> key) {
    if (!key) {
        setOutcome(Outcome::Kind::InvalidArguments);
        return false;
    }
    auto it = find(*key, LogLevel::Error);
    if (it == profiles.end() || !it->second) {
        setOutcome(Outcome::Kind::InvalidArguments);
        return false;
    }
    return it->second->match(params);
}

std::optional<ProfileParams> ProfileCache::get(std::shared_ptr<ProfileKey> key) {
    if (!key) {
        setOutcome(Outcome::Kind::InvalidArguments);
        return std::nullopt;
    }
    auto it = find(*key, LogLevel::Error);
    if (it == profiles.end() || !it->second) {
        setOutcome(Outcome::Kind::InvalidArguments);
        return std::nullopt;
    }
    return it->second->get();
}

std::list<std::shared_ptr<ProfileKey>> ProfileCache::filter(FilterProfileParams& params) {
    std::list<std::shared_ptr<ProfileKey>> keys;
    for (auto& [token, profile] : profiles) {
        if (!profile) {
            KEL_LOG(Error, "ProfileCache: null profile");
            continue;
        }
        if (profile->match(params)) {
            profile->incRefCount();
            keys.push_back(makeKey(*profile, token));
        }
    }
    return keys;
}

bool ProfileCache::registerExpirationListener(std::function<void()> callback,
                                              std::weak_ptr<IProfileKey> key,
                                              unsigned long long token) {
    KEL_LOG(Verbose, "ProfileCache: registerExpirationListener %llu", token);
    auto it = find(token, LogLevel::Error);
    if (it == profiles.end() || !it->second) {
        return false;
    }
    it->second->registerExpirationListener(std::move(callback), std::move(key));
    // False on purpose in every case; the sending handle ignores the answer.
    return false;
}

bool ProfileCache::releaseProfile(unsigned long long token) {
    KEL_LOG(History, "ProfileCache: releaseProfile token=%llu", token);
    auto it = find(token, LogLevel::Error);
    if (it == profiles.end() || !it->second) {
        return false;
    }
    std::shared_ptr<ModemProfile> profile = it->second;
    profile->clearExpiredListeners();
    if (profile->getRefCount() >= 2) {
        profile->decRefCount();
        return true;
    }
    if (!profile->getIsPersistent() && profile->getIsKelCreated()) {
        if (!vexWdsProxy.remove(profile->getTechType(), profile->getProfileId())) {
            KEL_LOG(Error, "ProfileCache: failed to release profile");
            return false;
        }
        profile->decRefCount();
        KEL_LOG(History, "Released profile %d", profile->getProfileId());
        forgetOwn(profile->getTechType(), profile->getProfileId());
        // profile still holds it: its listeners run on return, with the map whole.
        auto lock = changing();
        expect(profile->getTechType(), profile->getProfileId(), ProfileChangedEvent::Delete);
        profiles.erase(it);
        if (watched()) {
            tellProfile(ModemEvent::Kind::ProfileDeleted, ModemEvent::Origin::ThisProcess,
                        profile->getTechType(), profile->getProfileId(), stateOf(profile),
                        std::nullopt);
        }
        return true;
    }
    // The text says "non-persistent" for what is the persistent case; log readers match on it,
    // so it stays. The count is deliberately kept, so the profile stays cached with it.
    KEL_LOG(History, "ProfileCache: ignoring non-persistent or non-kel created");
    return true;
}

void ProfileCache::expireAll() {
    ProfileMap gone;
    {
        auto lock = changing();
        gone.swap(profiles);
    }
    // The listeners run here, while the cache's own map is already empty.
    gone.clear();
}

std::shared_ptr<ModemProfile> ProfileCache::detach(ProfileMap::iterator it) {
    std::shared_ptr<ModemProfile> profile = std::move(it->second);
    profiles.erase(it);
    return profile;
}

bool ProfileCache::refresh() {
    if (watched()) {
        tell(ModemEvent::Kind::RefreshStarted);
    }
    // Not loaded while the read runs, nor after a read that failed.
    getStatusBoard().setCacheLoaded(false);
    // Every handle issued so far expires here; pending echoes are kept.
    expireAll();
    createdElsewhere.clear();
    bool listsRead = false;
    unread.clear();
    // A failure of one of the reads is what the refresh's caller is told, whatever came after.
    vexWdsProxy.takeFailure();
    std::list<std::shared_ptr<ModemProfile>> read = vexWdsProxy.getAllProfiles(&listsRead, &unread);
    {
        auto lock = changing();
        for (std::shared_ptr<ModemProfile>& profile : read) {
            profiles.emplace(generateToken(), std::move(profile));
        }
    }
    listFailed = !listsRead;
    if (listFailed || !unread.empty()) {
        failedAtModem();
    }
    publishPicture();
    KEL_LOG(History, "Refreshed Profiles:");
    for (const auto& [token, profile] : profiles) {
        KEL_LOG(History, "%s", profile ? profile->dump().c_str() : "null");
    }
    if (watched()) {
        tellRefreshed();
    }
    if (options.reclaim) {
        reclaimExpired();
    }
    getStatusBoard().setCacheLoaded(listsRead);
    return true;
}

void ProfileCache::onIndication(ProfileChangedInd ind) {
    KEL_LOG(History, "ProfileCache: onIndication < %s", ind.dump().c_str());
    expireEchoes();
    auto since = pendingSince.begin();
    for (auto it = pendingTransactions.begin(); it != pendingTransactions.end(); ++it, ++since) {
        if (*it == ind) {
            // The modem echoes a change the cache already reflects.
            KEL_LOG(History, "ProfileCache: pending transaction confirmed");
            auto lock = changing();
            pendingTransactions.erase(it);
            pendingSince.erase(since);
            return;
        }
    }
    KEL_LOG(History, "ProfileCache: updating cache due to indication!");
    auto matches = [&ind](const std::shared_ptr<ModemProfile>& profile) {
        return profile && profile->getTechType() == ind.techType &&
               profile->getProfileId() == ind.profileId;
    };
    switch (ind.event) {
        case ProfileChangedEvent::Create: {
            // Drawn first: as arguments of one call the two would run in no set order.
            const unsigned long long token = generateToken();
            std::shared_ptr<ModemProfile> created = vexWdsProxy.get(ind.techType, ind.profileId);
            if (options.reclaim && created && takeLateCreate(*created) &&
                reclaimProfile(ind.techType, ind.profileId)) {
                noteRead(ind.techType, ind.profileId, true);
                return;
            }
            bool read = false;
            std::shared_ptr<ModemProfile> entered;
            {
                auto lock = changing();
                auto [entry, inserted] = profiles.emplace(token, std::move(created));
                read = inserted && entry->second != nullptr;
                entered = entry->second;
            }
            if (watched()) {
                tellProfile(ModemEvent::Kind::ProfileAdded, ModemEvent::Origin::Elsewhere,
                            ind.techType, ind.profileId, std::nullopt, stateOf(entered));
                // The modem follows a create with a modify of the same profile.
                if (createdElsewhere.size() == kMaxCreatedElsewhere) {
                    createdElsewhere.pop_front();
                }
                createdElsewhere.push_back({ind.techType, ind.profileId});
            }
            noteRead(ind.techType, ind.profileId, read);
            return;
        }
        case ProfileChangedEvent::Delete: {
            std::vector<std::shared_ptr<ModemProfile>> gone;
            std::optional<ProfileState> before;
            {
                auto lock = changing();
                for (auto it = profiles.begin(); it != profiles.end();) {
                    if (matches(it->second)) {
                        if (watched() && !before) {
                            before = stateOf(it->second);
                        }
                        gone.push_back(std::move(it->second));
                        it = profiles.erase(it);
                    } else {
                        ++it;
                    }
                }
            }
            forgetOwn(ind.techType, ind.profileId);
            if (watched()) {
                tellProfile(ModemEvent::Kind::ProfileDeleted, ModemEvent::Origin::Elsewhere,
                            ind.techType, ind.profileId, std::move(before), std::nullopt);
            }
            noteRead(ind.techType, ind.profileId, true);
            return;
        }
        case ProfileChangedEvent::Modify: {
            // The token stays, so handles stay valid; the old object (and its listeners) goes.
            bool read = true;
            std::optional<ProfileState> before;
            std::shared_ptr<ModemProfile> after;
            bool matched = false;
            for (auto& [token, profile] : profiles) {
                if (matches(profile)) {
                    if (!matched && watched()) {
                        before = stateOf(profile);
                    }
                    std::shared_ptr<ModemProfile> fresh =
                        vexWdsProxy.get(ind.techType, ind.profileId);
                    read = read && fresh != nullptr;
                    if (options.reclaim && fresh && profile && profile->getIsKelCreated()) {
                        // Still the library's profile, held by the same handles: the last
                        // release deletes it as it would have before the change.
                        fresh->setIsKelCreated(true);
                        for (int i = 0; i < profile->getRefCount(); ++i) {
                            fresh->incRefCount();
                        }
                    }
                    after = matched ? after : fresh;
                    matched = true;
                    auto lock = changing();
                    // The old object goes with fresh, after the swap, so its listeners see the
                    // new one in place.
                    profile.swap(fresh);
                }
            }
            // Every announcement is told, so that none is missed when a quick series of changes
            // is read only at its end; but the modify that follows a create is part of it.
            if (matched && watched()) {
                std::optional<ProfileState> now = stateOf(after);
                const bool creation = followsCreate(ind.techType, ind.profileId);
                if (!creation || before.has_value() != now.has_value() ||
                    (before && !ModemEvent::diff(*before, *now).empty())) {
                    tellProfile(ModemEvent::Kind::ProfileChanged, ModemEvent::Origin::Elsewhere,
                                ind.techType, ind.profileId, std::move(before), std::move(now));
                }
            }
            // A profile the cache holds no object for is not read here: if it was a hole, it
            // stays one.
            if (matched) {
                noteRead(ind.techType, ind.profileId, read);
            }
            return;
        }
        case ProfileChangedEvent::SubscriptionChange:
        case ProfileChangedEvent::ProfileReady:
            refresh();
            return;
    }
    KEL_LOG(Error, "Invalid ProfileChangedEvent");
}

void ProfileCache::failedAtModem() {
    outcome = vexWdsProxy.takeFailure();
    if (outcome.ok()) {
        // Failed without a message failing: there was nothing to send it on.
        outcome.kind = Outcome::Kind::NoLink;
    }
}

void ProfileCache::noteRead(TechType techType, int profileId, bool read) {
    const ModemStatus::ProfileRef ref{techType, profileId};
    auto it = std::find(unread.begin(), unread.end(), ref);
    if (read == (it == unread.end())) {
        return;
    }
    if (read) {
        unread.erase(it);
    } else {
        unread.push_back(ref);
    }
    publishPicture();
}

void ProfileCache::publishPicture() {
    getStatusBoard().setPicture(listFailed, unread);
    const bool holes = listFailed || !unread.empty();
    if (holes == pictureHasHoles) {
        return;
    }
    pictureHasHoles = holes;
    if (watched()) {
        ModemEvent event =
            makeEvent(holes ? ModemEvent::Kind::PictureIncomplete : ModemEvent::Kind::PictureWhole);
        event.listFailed = listFailed;
        event.unread = unread;
        notifier->post(std::move(event));
    }
}

bool ProfileCache::followsCreate(TechType techType, int profileId) {
    const ModemStatus::ProfileRef ref{techType, profileId};
    auto it = std::find(createdElsewhere.begin(), createdElsewhere.end(), ref);
    if (it == createdElsewhere.end()) {
        return false;
    }
    createdElsewhere.erase(it);
    return true;
}

void ProfileCache::setNotifier(ChangeNotifier* changeNotifier) {
    notifier = changeNotifier;
    getStatusBoard().setNotifier(changeNotifier);
}

std::optional<ProfileState> ProfileCache::stateOf(
    const std::shared_ptr<ModemProfile>& profile) const {
    if (!profile) {
        return std::nullopt;
    }
    return ChangeNotifier::stateOf(*profile);
}

void ProfileCache::tellProfile(ModemEvent::Kind kind, ModemEvent::Origin origin, TechType techType,
                               int profileId, std::optional<ProfileState> before,
                               std::optional<ProfileState> after) {
    ModemEvent event = makeEvent(kind);
    event.origin = origin;
    event.techType = techType;
    event.profileId = profileId;
    event.before = std::move(before);
    event.after = std::move(after);
    notifier->post(std::move(event));
}

void ProfileCache::tell(ModemEvent::Kind kind) {
    notifier->post(makeEvent(kind));
}

void ProfileCache::tellRefreshed() {
    ModemEvent event = makeEvent(ModemEvent::Kind::RefreshCompleted);
    for (const auto& [token, profile] : profiles) {
        if (profile) {
            event.profiles.push_back(ChangeNotifier::stateOf(*profile));
        }
    }
    std::sort(event.profiles.begin(), event.profiles.end(),
              [](const ProfileState& a, const ProfileState& b) {
                  return std::make_pair(a.techType, a.profileId) <
                         std::make_pair(b.techType, b.profileId);
              });
    event.count = event.profiles.size();
    notifier->post(std::move(event));
}

std::vector<std::string> ProfileCache::dump(bool onWorker) {
    std::unique_lock<std::mutex> lock(viewMutex, std::defer_lock);
    if (!onWorker) {
        lock.lock();
    }
    std::vector<std::string> lines;
    lines.reserve(profiles.size() + pendingTransactions.size() + 2);
    lines.emplace_back("Cache:");
    for (const auto& [token, profile] : profiles) {
        lines.push_back("  " + std::to_string(token) + ": " + (profile ? profile->dump() : "null"));
    }
    lines.emplace_back("Pending:");
    for (const ProfileChangedInd& ind : pendingTransactions) {
        lines.push_back("  " + ind.dump());
    }
    return lines;
}

}  // namespace kel
