// Profile policy. Util is touched only by client threads (it calls the blocking Manager
// operations); it holds no lock, and profileUpdateAllowed is set before the Util is shared.
#include "kel/Util.h"

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>

#include "LocalLogBuffer.h"
#include "ModemConversions.h"

namespace kel {

namespace {

constexpr unsigned int bits(FilterMatchType a, FilterMatchType b) {
    return static_cast<unsigned int>(a) | static_cast<unsigned int>(b);
}

// The requested home (roaming) IP type may be a subset or a superset of the profile's.
constexpr unsigned int kHomeIPEitherWay =
    bits(FilterMatchType::HomeIPSubset, FilterMatchType::HomeIPSuperset);
constexpr unsigned int kRoamIPEitherWay =
    bits(FilterMatchType::RoamIPSubset, FilterMatchType::RoamIPSuperset);

constexpr unsigned int kEmergencyOnly = static_cast<unsigned int>(ApnTypes::EMERGENCY);

// One optional setting of ProfileParams, reached through its accessors.
template <typename T>
struct Field {
    bool (ProfileParams::*has)() const;
    T (ProfileParams::*get)() const;
    void (ProfileParams::*set)(T);
};

constexpr Field<std::string> kApnName{&ProfileParams::hasApnName, &ProfileParams::getApnName,
                                      &ProfileParams::setApnName};
constexpr Field<std::string> kUserName{&ProfileParams::hasUserName, &ProfileParams::getUserName,
                                       &ProfileParams::setUserName};
constexpr Field<std::string> kPassword{&ProfileParams::hasPassword, &ProfileParams::getPassword,
                                       &ProfileParams::setPassword};
constexpr Field<AuthType> kAuthType{&ProfileParams::hasAuthType, &ProfileParams::getAuthType,
                                    &ProfileParams::setAuthType};
constexpr Field<IPType> kHomeIPType{&ProfileParams::hasHomeIPType, &ProfileParams::getHomeIPType,
                                    &ProfileParams::setHomeIPType};
constexpr Field<IPType> kRoamIPType{&ProfileParams::hasRoamIPType, &ProfileParams::getRoamIPType,
                                    &ProfileParams::setRoamIPType};
constexpr Field<unsigned int> kApnTypesMask{&ProfileParams::hasApnTypesMask,
                                            &ProfileParams::getApnTypesMask,
                                            &ProfileParams::setApnTypesMask};
constexpr Field<int> kMaxPdnsConnPerBlock{&ProfileParams::hasMaxPdnsConnPerBlock,
                                          &ProfileParams::getMaxPdnsConnPerBlock,
                                          &ProfileParams::setMaxPdnsConnPerBlock};
constexpr Field<int> kMaxPdnConnTimer{&ProfileParams::hasMaxPdnConnTimer,
                                      &ProfileParams::getMaxPdnConnTimer,
                                      &ProfileParams::setMaxPdnConnTimer};
constexpr Field<int> kPdnReqWaitInterval{&ProfileParams::hasPdnReqWaitInterval,
                                         &ProfileParams::getPdnReqWaitInterval,
                                         &ProfileParams::setPdnReqWaitInterval};

// Sets the field on `to` only when `from` has it; an absent field stays absent.
template <typename T>
void copyField(const Field<T>& field, const ProfileParams& from, ProfileParams& to) {
    if ((from.*field.has)()) {
        (to.*field.set)((from.*field.get)());
    }
}

FilterProfileParams filterFor(TechType techType) {
    FilterProfileParams filter;
    filter.setFilterByTechType(techType);
    return filter;
}

FilterProfileParams libraryIAFilter() {
    FilterProfileParams filter = filterFor(TechType::TYPE_3GPP);
    filter.setFilterByIsKelProfile(true);
    filter.setFilterByIsIAProfile(true);
    return filter;
}

ModifyProfileParams apnTypesMaskOnly(unsigned int mask) {
    ModifyProfileParams modify;
    modify.setApnTypesMask(mask);
    return modify;
}

using KeyList = std::list<std::shared_ptr<IProfileKey>>;

// The first handle the filter finds, or none. Every handle found goes into held, the calling
// operation's own list, so the ones not taken are released only when that operation ends.
std::shared_ptr<IProfileKey> firstOf(Manager& manager, const FilterProfileParams& filter,
                                     KeyList& held) {
    KeyList found = manager.filter(filter);
    std::shared_ptr<IProfileKey> first = found.empty() ? nullptr : found.front();
    held.splice(held.end(), found);
    return first;
}

std::string dumpOf(const std::shared_ptr<IProfileKey>& key) {
    return key ? key->dump() : std::string();
}

const char* toText(bool value) {
    return value ? "true" : "false";
}

int toInt(TechType techType) {
    return static_cast<int>(techType);
}

}  // namespace

Util::Util() : manager(&Manager::getInstance()), profileUpdateAllowed(false) {
    KEL_LOG(Debug, "kel::Util: constructor");
}

Util::~Util() {
    KEL_LOG(Debug, "kel::Util: destructor");
}

void Util::setProfileUpdateAllowed(bool allowed) {
    KEL_LOG(History, "kel::Util: profileUpdateAllowed %s", toText(allowed));
    profileUpdateAllowed = allowed;
}

std::shared_ptr<IProfileKey> Util::findOrCreateProfileForSetupDataCall(
    TechType techType, const ProfileParams& params) {
    KEL_LOG(History, "kel findOrCreateProfileForSetupDataCall > %s", params.dump().c_str());

    FilterProfileParams filter = filterFor(techType);
    copyField(kApnName, params, filter);
    // 3GPP2 profiles of one APN are told apart by their user id.
    if (techType == TechType::TYPE_3GPP2) {
        copyField(kUserName, params, filter);
    }
    if (!profileUpdateAllowed) {
        copyField(kHomeIPType, params, filter);
    }
    KeyList found;
    std::shared_ptr<IProfileKey> key = firstOf(*manager, filter, found);
    if (!key && !profileUpdateAllowed) {
        // A dual-stack profile serves a single-stack call and vice versa.
        filter.addFilterMatchCriteria(kHomeIPEitherWay);
        key = firstOf(*manager, filter, found);
    }

    if (key) {
        KEL_LOG(History, "found existing setupDataCall profile");
        if (profileUpdateAllowed) {
            KEL_LOG(History, "Modifying profile with input parameters");
            // A failed modify still leaves a usable profile for the call.
            manager->modifyProfile(ModifyProfileParams(params), key);
        }
    } else {
        key = manager->addProfile(AddProfileParams(params, false, techType, false));
        KEL_LOG(History, "setupDataCall profile added");
    }

    KEL_LOG(History, "kel findOrCreateProfileForSetupDataCall < %s", dumpOf(key).c_str());
    return key;
}

std::shared_ptr<IProfileKey> Util::findOrCreateProfileForEmergencyDataCall(
    const ProfileParams& params) {
    KEL_LOG(History, "kel findOrCreateProfileForEmergencyDataCall > %s", params.dump().c_str());

    KeyList found;
    std::shared_ptr<IProfileKey> key;
    if (params.hasApnName()) {
        FilterProfileParams byName = filterFor(TechType::TYPE_3GPP);
        copyField(kApnName, params, byName);
        byName.setIsEmergencySupported(true);
        key = firstOf(*manager, byName, found);
        if (key) {
            KEL_LOG(History, "found an emergency profile by name");
        }
    }
    if (!key) {
        FilterProfileParams anyName = filterFor(TechType::TYPE_3GPP);
        anyName.setIsEmergencySupported(true);
        key = firstOf(*manager, anyName, found);
        if (key) {
            KEL_LOG(History, "found a profile that supports emergency calls");
        }
    }
    if (!key) {
        // Persistent: an emergency profile must outlive the call that created it.
        AddProfileParams add(params, true, TechType::TYPE_3GPP, false);
        add.setIsEmergencySupported(true);
        add.setApnTypesMask(kEmergencyOnly);
        key = manager->addProfile(add);
        KEL_LOG(History, "emergency profile created");
    }

    KEL_LOG(History, "kel findOrCreateProfileForEmergencyDataCall < %s", dumpOf(key).c_str());
    return key;
}

std::shared_ptr<IProfileKey> Util::findOrCreateProfileForLteAttach(const ProfileParams& params) {
    KEL_LOG(History, "kel findOrCreateProfileForLteAttach > %s", params.dump().c_str());

    // Applied to whichever profile is chosen; the search steps add what they loosened.
    ModifyProfileParams fixUp;
    copyField(kUserName, params, fixUp);
    copyField(kPassword, params, fixUp);
    copyField(kAuthType, params, fixUp);
    copyField(kApnTypesMask, params, fixUp);
    copyField(kMaxPdnsConnPerBlock, params, fixUp);
    copyField(kMaxPdnConnTimer, params, fixUp);
    copyField(kPdnReqWaitInterval, params, fixUp);

    KeyList found;
    std::shared_ptr<IProfileKey> key;

    {
        FilterProfileParams exact = filterFor(TechType::TYPE_3GPP);
        if (params.hasApnName()) {
            copyField(kApnName, params, exact);
        } else {
            KEL_LOG(History, "kel NULL apn scenario");
        }
        copyField(kHomeIPType, params, exact);
        copyField(kRoamIPType, params, exact);
        std::shared_ptr<IProfileKey> hit = firstOf(*manager, exact, found);
        if (hit) {
            std::optional<ProfileParams> current = manager->getProfile(hit);
            // A library profile made for a data call is never taken over for attach.
            if (current && (!current->getIsKelProfile() || current->getIsIAProfile())) {
                key = hit;
                KEL_LOG(History, "kel Found an exact match modem or KEL IA profile for attach");
            } else {
                // The hit passed over is let go here, before the search goes on; the rest of its
                // result stays held until the operation ends. It is the front of found, which
                // was empty before this search.
                hit.reset();
                found.pop_front();
            }
        }
    }

    if (!key) {
        FilterProfileParams loose = filterFor(TechType::TYPE_3GPP);
        copyField(kApnName, params, loose);
        if (profileUpdateAllowed) {
            copyField(kHomeIPType, params, fixUp);
            copyField(kRoamIPType, params, fixUp);
        } else {
            loose.setFilterByIsKelProfile(false);
            if (params.hasHomeIPType()) {
                copyField(kHomeIPType, params, loose);
                loose.addFilterMatchCriteria(kHomeIPEitherWay);
            }
            if (params.hasRoamIPType()) {
                copyField(kRoamIPType, params, loose);
                loose.addFilterMatchCriteria(kRoamIPEitherWay);
            }
        }
        key = firstOf(*manager, loose, found);
        if (key) {
            KEL_LOG(History, "kel Found a loose match profile for attach");
        }
    }

    if (!key) {
        copyField(kHomeIPType, params, fixUp);
        copyField(kRoamIPType, params, fixUp);
        FilterProfileParams iaByName = libraryIAFilter();
        copyField(kApnName, params, iaByName);
        key = firstOf(*manager, iaByName, found);
        if (key) {
            KEL_LOG(History, "kel Found a KEL IA profile that matches APN name for attach");
        }
    }

    if (!key) {
        key = firstOf(*manager, libraryIAFilter(), found);
        if (key) {
            // The library's own IA profile takes the requested APN.
            copyField(kApnName, params, fixUp);
            KEL_LOG(History, "kel Found any KEL IA profile for attach");
        }
    }

    if (key) {
        // Made even when the fix-up is empty; the library then reports the profile unchanged.
        manager->modifyProfile(fixUp, key);
        KEL_LOG(History, "kel Modifying profile identified for IA");
    } else {
        key = manager->addProfile(AddProfileParams(params, true, TechType::TYPE_3GPP, true));
        KEL_LOG(History, "kel KEL IA profile created for attach");
    }

    KEL_LOG(History, "kel findOrCreateProfileForLteAttach < %s", dumpOf(key).c_str());
    return key;
}

bool Util::matchLteAttachProfileId(int profileId, const ProfileParams& params) {
    std::string request =
        "Profile id = " + std::to_string(profileId) + " Input Params = " + params.dump();
    KEL_LOG(History, "kel matchLteAttachProfileId > %s", request.c_str());

    FilterProfileParams byId = filterFor(TechType::TYPE_3GPP);
    byId.setFilterByProfileId(profileId);
    KeyList found;
    std::shared_ptr<IProfileKey> key = firstOf(*manager, byId, found);
    if (key) {
        std::optional<ProfileParams> current = manager->getProfile(key);
        if (current) {
            if (current->getIsKelProfile() && !current->getIsIAProfile()) {
                KEL_LOG(Error,
                        "Profile id %d is a KEL profile which is not an IA profile, cannot be "
                        "used for attach",
                        profileId);
                return false;
            }
            FilterProfileParams wanted;
            copyField(kApnName, params, wanted);
            copyField(kHomeIPType, params, wanted);
            copyField(kRoamIPType, params, wanted);
            copyField(kUserName, params, wanted);
            copyField(kPassword, params, wanted);
            copyField(kAuthType, params, wanted);
            // A modem profile may not be changed to fit, so its IP types may differ either way.
            if (!profileUpdateAllowed && !current->getIsKelProfile()) {
                wanted.addFilterMatchCriteria(kHomeIPEitherWay | kRoamIPEitherWay);
            }
            if (manager->match(wanted, key)) {
                // The text names matchLteAttachList on purpose: log readers search for it.
                KEL_LOG(History, "kel matchLteAttachList < %d", profileId);
                return true;
            }
        }
    }
    KEL_LOG(History, "kel matchLteAttachProfileId < did not match input params");
    return false;
}

void Util::updateModemProfileByApnClassAndTechType(const ProfileParams& params, TechType techType) {
    if (!params.hasApnClass()) {
        // Names the tech type as well although only the class can be missing; kept as written.
        KEL_LOG(Debug, "kel either tech type or apn class is missing");
        return;
    }
    FilterProfileParams byClass = filterFor(techType);
    byClass.setApnClass(params.getApnClass());
    KeyList found = manager->filter(byClass);
    if (!found.empty()) {
        KEL_LOG(Debug, "Found a match for APN class and tech type, modify the profile");
        ModifyProfileParams modify(params);
        for (const std::shared_ptr<IProfileKey>& key : found) {
            if (!manager->modifyProfile(modify, key)) {
                KEL_LOG(Error, "Error while modifying profile by APN class");
            }
        }
        return;
    }
    KEL_LOG(Debug, "Did not find a match for APN class and tech type, create a persistent profile");
    // Persistent, so dropping the handle at once leaves the profile on the modem.
    if (!manager->addProfile(AddProfileParams(params, true, techType, false))) {
        KEL_LOG(Error, "Could not add profile by APN class");
    }
}

void Util::updateModemProfileByApnClass(const std::list<ProfileParams>& profiles3gpp,
                                        const std::list<ProfileParams>& profiles3gpp2) {
    KEL_LOG(History, "kel updateModemProfileByApnClass > ");
    KEL_LOG(History, "  3gpp:");
    for (const ProfileParams& entry : profiles3gpp) {
        KEL_LOG(History, "    %s", entry.dump().c_str());
    }
    KEL_LOG(History, "  3gpp2:");
    for (const ProfileParams& entry : profiles3gpp2) {
        KEL_LOG(History, "    %s", entry.dump().c_str());
    }

    for (const ProfileParams& entry : profiles3gpp) {
        KEL_LOG(Debug, "kel update 3gpp modem profile by APN class for %s", entry.dump().c_str());
        updateModemProfileByApnClassAndTechType(entry, TechType::TYPE_3GPP);
    }
    for (const ProfileParams& entry : profiles3gpp2) {
        KEL_LOG(Debug, "kel update 3gpp2 modem profile by APN class for %s", entry.dump().c_str());
        updateModemProfileByApnClassAndTechType(entry, TechType::TYPE_3GPP2);
    }
    KEL_LOG(History, "kel updateModemProfileByApnClass < OK");
}

void Util::updateAPNTypeBitmaskOnModemProfile(const std::list<ProfileParams>& profiles) {
    KEL_LOG(History, "kel updateAPNTypeBitmaskOnModemProfile > ");
    for (const ProfileParams& entry : profiles) {
        KEL_LOG(History, "    %s", entry.dump().c_str());
    }

    std::list<ProfileParams> entries = profiles;
    std::unordered_set<std::string> apnNames;
    for (ProfileParams& entry : entries) {
        KEL_LOG(History, "kel update APN type bitmask on modem profile for %s",
                entry.dump().c_str());
        if (entry.hasApnName()) {
            std::string name = convertToLower(entry.getApnName());
            apnNames.insert(name);
            entry.setApnName(name);
        }
        if (!entry.hasApnTypesMask()) {
            entry.setApnTypesMask(0);
            KEL_LOG(Error, "kel APN type mask not present, setting to 0");
        }
        if (!entry.hasHomeIPType()) {
            entry.setHomeIPType(IPType::V4V6);
            KEL_LOG(Error, "kel Home IP type not present, setting to v4v6");
        }
    }

    for (const std::string& name : apnNames) {
        unsigned int v4Mask = 0;
        unsigned int v6Mask = 0;
        unsigned int v4v6Mask = 0;
        for (const ProfileParams& entry : entries) {
            if (!entry.hasApnName() || entry.getApnName() != name) {
                continue;
            }
            // Anything but a single-stack type (V4V6, or UNKNOWN if given) is dual-stack.
            if (entry.getHomeIPType() == IPType::V6) {
                v6Mask |= entry.getApnTypesMask();
            } else if (entry.getHomeIPType() == IPType::V4) {
                v4Mask |= entry.getApnTypesMask();
            } else {
                v4v6Mask |= entry.getApnTypesMask();
            }
        }
        // The colon after "mask0x%x" is misplaced on purpose: the text is kept as it stands.
        KEL_LOG(Debug, "kel processing APN name %s, V4 mask:0x%x, v6 mask0x%x:, v4v6 mask:0x%x",
                name.c_str(), v4Mask, v6Mask, v4v6Mask);
        if (profileUpdateAllowed) {
            handleCombinedProfileUpdate(v4Mask | v6Mask | v4v6Mask, name);
        } else {
            handleProfileUpdateByTechType(TechType::TYPE_3GPP, v4Mask, v6Mask, v4v6Mask, name);
            handleProfileUpdateByTechType(TechType::TYPE_3GPP2, v4Mask, v6Mask, v4v6Mask, name);
        }
    }
    KEL_LOG(History, "kel updateAPNTypeBitmaskOnModemProfile < OK");
}

void Util::handleCombinedProfileUpdate(unsigned int mask, std::string apnName) {
    FilterProfileParams byName;
    byName.setApnName(std::move(apnName));
    ModifyProfileParams modify = apnTypesMaskOnly(mask);
    for (const std::shared_ptr<IProfileKey>& key : manager->filter(byName)) {
        // The misplaced colon after the mask is part of the text.
        KEL_LOG(Debug, "kel updating profile id:%d, tech type:%d, with combined mask0x%x:",
                key->getProfileId(), toInt(key->getTechType()), mask);
        manager->modifyProfile(modify, key);
    }
}

void Util::handleProfileUpdateByTechType(TechType techType, unsigned int v4Mask,
                                         unsigned int v6Mask, unsigned int v4v6Mask,
                                         std::string apnName) {
    // Types of a missing single-stack profile fold into the dual-stack one; without a
    // dual-stack profile its types spread over the single-stack ones.
    unsigned int combined = v4v6Mask;
    if (v4Mask != 0 && !updateByIpType(techType, IPType::V4, v4Mask, apnName)) {
        combined |= v4Mask;
    }

    unsigned int v6Fallback = combined;
    unsigned int target = combined;
    if (v6Mask != 0) {
        bool v6Found = updateByIpType(techType, IPType::V6, v6Mask, apnName);
        v6Fallback = combined | v6Mask;
        if (!v6Found) {
            target = combined | v6Mask;
        } else if (combined == 0) {
            return;
        }
    } else if (combined == 0) {
        return;
    }

    if (updateByIpType(techType, IPType::V4V6, target, apnName)) {
        return;
    }
    updateByIpType(techType, IPType::V4, target | v4Mask, apnName);
    updateByIpType(techType, IPType::V6, v6Fallback, apnName);
}

bool Util::updateByIpType(TechType techType, IPType ipType, unsigned int mask,
                          std::string apnName) {
    FilterProfileParams filter = filterFor(techType);
    filter.setApnName(apnName);
    filter.setHomeIPType(ipType);
    KeyList found = manager->filter(filter);
    if (found.empty()) {
        KEL_LOG(Debug, "kel no match found for apn name:%s, ip type:%d, tech type:%d",
                apnName.c_str(), static_cast<int>(ipType), toInt(techType));
        return false;
    }
    ModifyProfileParams modify = apnTypesMaskOnly(mask);
    for (const std::shared_ptr<IProfileKey>& key : found) {
        // The misplaced colon after the mask is part of the text.
        KEL_LOG(Debug,
                "kel updating profile id:%d, tech type:%d, with mask0x%x:", key->getProfileId(),
                toInt(key->getTechType()), mask);
        manager->modifyProfile(modify, key);
    }
    return true;
}

}  // namespace kel
