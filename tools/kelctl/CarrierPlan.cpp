#include "CarrierPlan.h"

#include <algorithm>
#include <optional>

#include "Options.h"
#include "ValueNames.h"

namespace kelctl {
namespace {

unsigned int slotBit(unsigned int mask, int slot) {
    return mask == 0 ? 0 : 1u << slot;
}

}  // namespace

std::string apnKey(const std::string& apn) {
    return lower(apn).substr(0, kApnLimit);
}

int slotOf(const kel::ProfileParams& settings) {
    const kel::IPType ip = settings.hasHomeIPType() ? settings.getHomeIPType() : kel::IPType::V4V6;
    return ip == kel::IPType::V4 ? kV4Slot : ip == kel::IPType::V6 ? kV6Slot : kV4V6Slot;
}

TypeSpread::TypeSpread(const std::vector<ProfileRow>& rows, bool updateAllowed)
    : allowUpdate(updateAllowed) {
    for (const auto& one : rows) {
        profiles.emplace(ProfileId{one.tech, one.id}, one);
    }
}

void TypeSpread::spread(const std::list<kel::ProfileParams>& entries) {
    // Indexed here, after attach has had its say on the profiles' APNs.
    byApn.clear();
    for (const auto& [id, one] : profiles) {
        if (one.params.hasApnName()) {
            byApn[apnKey(one.params.getApnName())].push_back(id);
        }
    }
    std::vector<std::string> names;
    std::unordered_map<std::string, std::array<unsigned int, 3>> masks;  // by slot, per APN
    for (const auto& entry : entries) {
        if (!entry.hasApnName()) {
            continue;
        }
        std::string name = apnKey(entry.getApnName());
        auto [at, added] = masks.try_emplace(name, std::array<unsigned int, 3>{0, 0, 0});
        at->second[slotOf(entry)] |= entry.getApnTypesMask();
        if (added) {
            names.push_back(std::move(name));
        }
    }
    for (const auto& name : names) {
        const auto& m = masks.at(name);
        if (allowUpdate) {
            const auto found = byApn.find(name);
            if (found != byApn.end()) {
                setTypes(found->second, m[0] | m[1] | m[2],
                         slotBit(m[kV4Slot], kV4Slot) | slotBit(m[kV6Slot], kV6Slot) |
                             slotBit(m[kV4V6Slot], kV4V6Slot),
                         name);
            }
            continue;
        }
        for (const auto tech : {kel::TechType::TYPE_3GPP, kel::TechType::TYPE_3GPP2}) {
            spreadByTech(tech, m, name);
        }
    }
}

bool TypeSpread::hasApn(const std::string& name) const {
    for (const auto& [id, one] : profiles) {
        if (one.params.hasApnName() && apnKey(one.params.getApnName()) == name) {
            return true;
        }
    }
    return false;
}

const std::vector<ProfileId>& TypeSpread::landing(const std::string& name, int slot) const {
    static const std::vector<ProfileId> kNone;
    const auto found = landed.find(name);
    return found == landed.end() ? kNone : found->second[slot];
}

void TypeSpread::setTypes(const std::vector<ProfileId>& ids, unsigned int mask, unsigned int slots,
                          const std::string& name) {
    for (const auto& id : ids) {
        profiles.at(id).params.setApnTypesMask(mask);
        touched.insert(id);
        for (int slot = 0; slot < 3; ++slot) {
            auto& list = landed[name][slot];
            if ((slots & (1u << slot)) != 0 &&
                std::find(list.begin(), list.end(), id) == list.end()) {
                list.push_back(id);
            }
        }
    }
}

// An exact filter on technology, APN and home IP type.
bool TypeSpread::updateByIpType(kel::TechType tech, kel::IPType ip, unsigned int mask,
                                const std::string& name, unsigned int slots) {
    std::vector<ProfileId> ids;
    if (const auto found = byApn.find(name); found != byApn.end()) {
        for (const auto& id : found->second) {
            const kel::ProfileParams& p = profiles.at(id).params;
            if (id.first == tech && p.hasHomeIPType() && p.getHomeIPType() == ip) {
                ids.push_back(id);
            }
        }
    }
    setTypes(ids, mask, slots, name);
    return !ids.empty();
}

// Util::handleProfileUpdateByTechType: a mask without a profile of its own IP type folds into the
// dual-stack one; without a dual-stack profile, that one spreads over the others. The slots say
// whose types each mask carries.
void TypeSpread::spreadByTech(kel::TechType tech, const std::array<unsigned int, 3>& m,
                              const std::string& name) {
    unsigned int combined = m[kV4V6Slot];
    unsigned int combinedSlots = slotBit(m[kV4V6Slot], kV4V6Slot);
    const unsigned int v4Slot = slotBit(m[kV4Slot], kV4Slot);
    if (m[kV4Slot] != 0 && !updateByIpType(tech, kel::IPType::V4, m[kV4Slot], name, v4Slot)) {
        combined |= m[kV4Slot];
        combinedSlots |= v4Slot;
    }
    unsigned int target = combined;
    unsigned int targetSlots = combinedSlots;
    unsigned int fallback = combined;
    unsigned int fallbackSlots = combinedSlots;
    if (m[kV6Slot] != 0) {
        fallback = combined | m[kV6Slot];
        fallbackSlots = combinedSlots | (1u << kV6Slot);
        if (!updateByIpType(tech, kel::IPType::V6, m[kV6Slot], name, 1u << kV6Slot)) {
            target = fallback;
            targetSlots = fallbackSlots;
        } else if (combined == 0) {
            return;
        }
    } else if (combined == 0) {
        return;
    }
    if (updateByIpType(tech, kel::IPType::V4V6, target, name, targetSlots)) {
        return;
    }
    updateByIpType(tech, kel::IPType::V4, target | m[kV4Slot], name, targetSlots | v4Slot);
    updateByIpType(tech, kel::IPType::V6, fallback, name, fallbackSlots);
}

}  // namespace kelctl
