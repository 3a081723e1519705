// The spreading of a carrier's APN types over the modem's profiles, worked out on a copy of the
// profiles with the library filters' own rules, so that a plan needs no modem round trip per APN
// and takes time linear in the entries.
//
// Main thread only, during one command.
#ifndef KELCTL_CARRIER_PLAN_H
#define KELCTL_CARRIER_PLAN_H

#include <array>
#include <list>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Output.h"
#include "kel/ProfileParams.h"

namespace kelctl {

using ProfileId = std::pair<kel::TechType, int>;

// The library keeps APN names in lower case and cut to their field; filters compare them so.
std::string apnKey(const std::string& apn);

// Where an entry's APN types go: by its home IP type, none counting as dual-stack.
enum Slot { kV4Slot = 0, kV6Slot = 1, kV4V6Slot = 2 };
int slotOf(const kel::ProfileParams& settings);

// Util::updateAPNTypeBitmaskOnModemProfile on a copy of the profiles.
class TypeSpread {
  public:
    TypeSpread(const std::vector<ProfileRow>& rows, bool updateAllowed);

    // A profile as another step leaves it (attach), or one it adds.
    ProfileRow& row(const ProfileId& id) { return profiles.at(id); }
    void add(const ProfileId& id, const ProfileRow& row) { profiles.emplace(id, row); }
    bool has(const ProfileId& id) const { return profiles.count(id) != 0; }
    // Whether any profile, of either technology, carries the APN key.
    bool hasApn(const std::string& name) const;

    void spread(const std::list<kel::ProfileParams>& entries);

    // The profiles an entry of this APN key and slot lands on, in the order they were reached.
    const std::vector<ProfileId>& landing(const std::string& name, int slot) const;
    // Whether the spreading set the profile's types.
    bool spreadTo(const ProfileId& id) const { return touched.count(id) != 0; }
    const std::set<ProfileId>& spreadProfiles() const { return touched; }
    const std::map<ProfileId, ProfileRow>& state() const { return profiles; }

  private:
    void setTypes(const std::vector<ProfileId>& ids, unsigned int mask, unsigned int slots,
                  const std::string& name);
    bool updateByIpType(kel::TechType tech, kel::IPType ip, unsigned int mask,
                        const std::string& name, unsigned int slots);
    void spreadByTech(kel::TechType tech, const std::array<unsigned int, 3>& masks,
                      const std::string& name);

    const bool allowUpdate;
    std::map<ProfileId, ProfileRow> profiles;
    // Profiles by APN key: the spreading looks at the profiles of one APN only.
    std::unordered_map<std::string, std::vector<ProfileId>> byApn;
    std::set<ProfileId> touched;
    std::unordered_map<std::string, std::array<std::vector<ProfileId>, 3>> landed;
};

}  // namespace kelctl

#endif  // KELCTL_CARRIER_PLAN_H
