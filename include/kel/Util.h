// Profile policy on top of Manager: the profile to use for a data call, an emergency call and LTE
// initial attach, and keeping the modem's profiles in step with a carrier's APN classes and
// APN types.
//
// Every operation makes several blocking Manager calls: call on a client thread, never on the
// library's worker thread. A Util holds no lock; set the update flag before sharing it.
//
// The operations neither wait for the modem link nor look at its status: before the link is ready
// (Manager::waitForModem) a search finds nothing and the operation goes on to create a profile.
// A search and the modify or add that follows are not atomic, and a failed modify is ignored.
#ifndef KEL_UTIL_H
#define KEL_UTIL_H

#include <list>
#include <memory>
#include <string>

#include "kel/IProfileKey.h"
#include "kel/Manager.h"
#include "kel/ProfileParams.h"

namespace kel {

class KEL_EXPORT Util {
  public:
    Util();
    ~Util();

    // When true, a found profile may be modified to fit a request (data call) and IP types are
    // ignored while searching (attach).
    void setProfileUpdateAllowed(bool allowed);

    // Each returns an empty handle only when nothing was found and the add failed.
    std::shared_ptr<IProfileKey> findOrCreateProfileForSetupDataCall(TechType techType,
                                                                     const ProfileParams& params);
    std::shared_ptr<IProfileKey> findOrCreateProfileForEmergencyDataCall(
        const ProfileParams& params);
    std::shared_ptr<IProfileKey> findOrCreateProfileForLteAttach(const ProfileParams& params);
    // Whether the 3GPP profile with this id may serve attach with these parameters.
    bool matchLteAttachProfileId(int profileId, const ProfileParams& params);

    // Makes sure a profile exists for each entry's APN class: modifies every profile of the
    // class, or adds a persistent one.
    void updateModemProfileByApnClassAndTechType(const ProfileParams& params, TechType techType);
    void updateModemProfileByApnClass(const std::list<ProfileParams>& profiles3gpp,
                                      const std::list<ProfileParams>& profiles3gpp2);
    // Distributes each APN name's configured APN types over its modem profiles by IP type.
    void updateAPNTypeBitmaskOnModemProfile(const std::list<ProfileParams>& profiles);
    void handleCombinedProfileUpdate(unsigned int mask, std::string apnName);
    void handleProfileUpdateByTechType(TechType techType, unsigned int v4Mask, unsigned int v6Mask,
                                       unsigned int v4v6Mask, std::string apnName);
    // True when at least one profile of that tech type, APN name and home IP type was updated.
    bool updateByIpType(TechType techType, IPType ipType, unsigned int mask, std::string apnName);

  private:
    Manager* manager;
    bool profileUpdateAllowed;
};

}  // namespace kel

#endif  // KEL_UTIL_H
