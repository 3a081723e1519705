#include "CarrierApply.h"

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <utility>

#include "CarrierPlan.h"
#include "InputFile.h"
#include "Output.h"
#include "ValueNames.h"
#include "kel/Manager.h"

namespace kelctl {
namespace {

constexpr unsigned int kHomeIpEitherWay =
    static_cast<unsigned int>(kel::FilterMatchType::HomeIPSubset) |
    static_cast<unsigned int>(kel::FilterMatchType::HomeIPSuperset);
constexpr unsigned int kRoamIpEitherWay =
    static_cast<unsigned int>(kel::FilterMatchType::RoamIPSubset) |
    static_cast<unsigned int>(kel::FilterMatchType::RoamIPSuperset);

// What an earlier import may leave on the library's attach profile.
const char* const kLeftoverSettings[] = {"user",      "password",       "auth",
                                         "max-conns", "max-conns-time", "wait-time"};

kel::Manager& manager() {
    return kel::Manager::getInstance();
}

std::vector<ProfileId> idsOf(const kel::FilterProfileParams& filter) {
    std::vector<ProfileId> ids;
    for (const auto& key : manager().filter(filter)) {
        ids.emplace_back(key->getTechType(), key->getProfileId());
    }
    return ids;
}

kel::FilterProfileParams filterFor(kel::TechType tech) {
    kel::FilterProfileParams filter;
    filter.setFilterByTechType(tech);
    return filter;
}

void copyApn(const kel::ProfileParams& from, kel::ProfileParams& to) {
    if (from.hasApnName()) {
        to.setApnName(from.getApnName());
    }
}

void copyIpTypes(const kel::ProfileParams& from, kel::ProfileParams& to) {
    if (from.hasHomeIPType()) {
        to.setHomeIPType(from.getHomeIPType());
    }
    if (from.hasRoamIPType()) {
        to.setRoamIPType(from.getRoamIPType());
    }
}

// The settings the attach search carries from the request to whatever profile it chooses.
void copyAttachSettings(const kel::ProfileParams& from, kel::ProfileParams& to) {
    if (from.hasUserName()) {
        to.setUserName(from.getUserName());
    }
    if (from.hasPassword()) {
        to.setPassword(from.getPassword());
    }
    if (from.hasAuthType()) {
        to.setAuthType(from.getAuthType());
    }
    if (from.hasApnTypesMask()) {
        to.setApnTypesMask(from.getApnTypesMask());
    }
    if (from.hasMaxPdnsConnPerBlock()) {
        to.setMaxPdnsConnPerBlock(from.getMaxPdnsConnPerBlock());
    }
    if (from.hasMaxPdnConnTimer()) {
        to.setMaxPdnConnTimer(from.getMaxPdnConnTimer());
    }
    if (from.hasPdnReqWaitInterval()) {
        to.setPdnReqWaitInterval(from.getPdnReqWaitInterval());
    }
}

// The fix-up's settings laid over a profile's, as the library stores them (APN names in lower
// case).
void overlay(const kel::ProfileParams& fixUp, kel::ProfileParams& profile) {
    if (fixUp.hasApnName()) {
        profile.setApnName(lower(fixUp.getApnName()));
    }
    copyIpTypes(fixUp, profile);
    copyAttachSettings(fixUp, profile);
}

// The profile attach would create, until the modem gives it an index.
const ProfileId kNewProfile{kel::TechType::TYPE_3GPP, -1};

// Works out what the library's Util does with the entries: the attach search with read-only
// library calls against the modem as it is, then the spreading of APN types over the state that
// attach leaves, worked out locally with the filters' own rules. Attach goes first so that one
// plan holds both steps: the attach profile is sent with the types the spreading gives it, and
// no setting is changed twice in one run nor back and forth between runs.
class Planner {
  public:
    Planner(const std::vector<ProfileRow>& rowsBefore, bool updateAllowed)
        : before(rowsBefore), allowUpdate(updateAllowed), types(rowsBefore, updateAllowed) {}

    // Util::findOrCreateProfileForLteAttach with request.
    AttachReport planAttach(const kel::ProfileParams& request) {
        AttachReport attach;
        kel::ProfileParams fixUp;
        copyAttachSettings(request, fixUp);
        std::optional<ProfileId> chosen = exactAttachMatch(request);
        attach.step = AttachStep::Exact;
        if (!chosen) {
            attach.step = AttachStep::Loose;
            kel::FilterProfileParams filter = filterFor(kel::TechType::TYPE_3GPP);
            copyApn(request, filter);
            if (allowUpdate) {
                copyIpTypes(request, fixUp);
            } else {
                filter.setFilterByIsKelProfile(false);
                looseIpTypes(request, filter);
            }
            chosen = first(filter);
        }
        if (!chosen) {
            attach.step = AttachStep::IaByName;
            copyIpTypes(request, fixUp);
            kel::FilterProfileParams filter = attachProfileFilter();
            copyApn(request, filter);
            chosen = first(filter);
        }
        if (!chosen) {
            attach.step = AttachStep::AnyIa;
            chosen = first(attachProfileFilter());
            copyApn(request, fixUp);
        }
        if (!chosen) {
            planCreate(request, &attach);
            return attach;
        }
        planUse(*chosen, fixUp, &attach);
        return attach;
    }

    // --create: a persistent 3GPP profile for each APN and home IP type of the entries that no
    // profile carries (after attach), with the settings of its first entry. The spreading that
    // follows gives it the types of every entry of its APN, as it will on the next import.
    void planCreates(const CarrierSelection& selection) {
        // Looked up at an APN's first entry, before this step adds a profile of it.
        std::map<std::string, bool> carried;
        std::set<std::pair<std::string, int>> planned;
        for (const auto& entry : selection.entries) {
            const kel::ProfileParams& settings = entry.settings;
            if (isDisabled(entry) || !settings.hasApnName() || settings.getApnName().empty() ||
                settings.getApnTypesMask() == 0) {
                continue;
            }
            const std::string name = apnKey(settings.getApnName());
            if (const auto [known, first] = carried.try_emplace(name, false); first) {
                known->second = types.hasApn(name);
            }
            if (carried.at(name) || !planned.insert({name, slotOf(settings)}).second) {
                continue;
            }
            kel::ProfileParams created = settings;
            created.setApnName(lower(settings.getApnName()));
            // The spreading counts an entry without home IP type as dual-stack; so is its profile.
            if (!created.hasHomeIPType()) {
                created.setHomeIPType(kel::IPType::V4V6);
            }
            const ProfileId id{kel::TechType::TYPE_3GPP,
                               kNewProfile.second - 1 - static_cast<int>(creates.size())};
            types.add(id, ProfileRow{id.first, id.second, "", "", created});
            creates.push_back({id, &entry, created});
        }
    }

    // Util::updateAPNTypeBitmaskOnModemProfile.
    void spreadTypes(const std::list<kel::ProfileParams>& entries) {
        types.spread(entries);
        for (auto& create : creates) {
            const ProfileRow& row = types.state().at(create.id);
            create.settings.setApnTypesMask(row.params.getApnTypesMask());
        }
    }

    struct Create {
        ProfileId id;
        const CarrierEntry* entry;
        kel::ProfileParams settings;
    };
    const std::vector<Create>& plannedCreates() const { return creates; }

    // Once both steps are planned: what attach changes beyond the types the spreading accounts
    // for, and the types the attach profile must be sent with.
    void finishAttach(AttachReport* attach) {
        if (!attachId) {
            return;
        }
        const ProfileRow& row = types.row(*attachId);
        if (*attachId == kNewProfile) {
            if (row.params.hasApnTypesMask()) {
                createdSettings.setApnTypesMask(row.params.getApnTypesMask());
            }
            attach->changes.clear();
            for (const auto& [key, value] : settingsFields(createdSettings)) {
                attach->changes.push_back({key, "-", value});
            }
            attach->summary = settingsLine(createdSettings);
            return;
        }
        attach->changes = settingChanges(*rowBefore(*attachId), row);
        if (types.spreadTo(*attachId)) {
            attach->changes.erase(std::remove_if(attach->changes.begin(), attach->changes.end(),
                                                 [](const SettingChange& change) {
                                                     return change.setting == "types";
                                                 }),
                                  attach->changes.end());
        }
        attach->action = attach->changes.empty() ? "use" : "update";
    }

    // The types the attach profile ends with; nothing when there is no attach profile.
    std::optional<unsigned int> attachTypes() const {
        if (!attachId || !types.state().at(*attachId).params.hasApnTypesMask()) {
            return std::nullopt;
        }
        return types.state().at(*attachId).params.getApnTypesMask();
    }

    std::optional<ProfileId> attachProfile() const { return attachId; }
    // The profiles an entry of this APN and slot lands on, in the order they were reached.
    const std::vector<ProfileId>& landing(const std::string& name, int slot) const {
        return types.landing(name, slot);
    }
    // Every profile the plan touches, as it would be afterwards (the new one included).
    std::map<ProfileId, ProfileRow> expected() const {
        std::map<ProfileId, ProfileRow> changed;
        for (const auto& id : types.spreadProfiles()) {
            changed.emplace(id, types.state().at(id));
        }
        if (attachId) {
            changed.emplace(*attachId, types.state().at(*attachId));
        }
        return changed;
    }
    const ProfileRow* rowBefore(const ProfileId& id) const {
        return findRow(before, id.first, id.second);
    }

  private:
    std::optional<ProfileId> first(const kel::FilterProfileParams& filter) const {
        const auto ids = idsOf(filter);
        return ids.empty() ? std::nullopt : std::optional<ProfileId>(ids.front());
    }

    std::optional<ProfileId> exactAttachMatch(const kel::ProfileParams& request) const {
        kel::FilterProfileParams filter = filterFor(kel::TechType::TYPE_3GPP);
        copyApn(request, filter);
        copyIpTypes(request, filter);
        const auto id = first(filter);
        const ProfileRow* row = id ? rowBefore(*id) : nullptr;
        // A profile the library made for something else is never taken over for attach.
        if (row == nullptr || (row->params.getIsKelProfile() && !row->params.getIsIAProfile())) {
            return std::nullopt;
        }
        return id;
    }

    void looseIpTypes(const kel::ProfileParams& request, kel::FilterProfileParams& filter) const {
        if (request.hasHomeIPType()) {
            filter.setHomeIPType(request.getHomeIPType());
            filter.addFilterMatchCriteria(kHomeIpEitherWay);
        }
        if (request.hasRoamIPType()) {
            filter.setRoamIPType(request.getRoamIPType());
            filter.addFilterMatchCriteria(kRoamIpEitherWay);
        }
    }

    static kel::FilterProfileParams attachProfileFilter() {
        kel::FilterProfileParams filter = filterFor(kel::TechType::TYPE_3GPP);
        filter.setFilterByIsKelProfile(true);
        filter.setFilterByIsIAProfile(true);
        return filter;
    }

    void planCreate(const kel::ProfileParams& request, AttachReport* attach) {
        attach->step = AttachStep::Create;
        attach->action = "create";
        createdSettings = request;
        if (request.hasApnName()) {
            createdSettings.setApnName(lower(request.getApnName()));
        }
        types.add(kNewProfile,
                  ProfileRow{kNewProfile.first, kNewProfile.second, "", "", createdSettings});
        attachId = kNewProfile;
    }

    void planUse(const ProfileId& id, const kel::ProfileParams& fixUp, AttachReport* attach) {
        attach->profile = profileName(id.first, id.second);
        if (!types.has(id)) {
            attach->action = "use";
            return;
        }
        attachId = id;
        ProfileRow& row = types.row(id);
        const ProfileRow old = row;
        overlay(fixUp, row.params);
        if (old.params.getIsKelProfile() && old.params.getIsIAProfile()) {
            const auto now = fieldMap(old);
            const auto taken = fieldMap(ProfileRow{old.tech, old.id, "", "", fixUp});
            for (const char* key : kLeftoverSettings) {
                const auto value = now.find(key);
                if (value != now.end() && taken.count(key) == 0) {
                    attach->kept.push_back(std::string(key) + "=" + shownValue(key, value->second));
                }
            }
        }
    }

    const std::vector<ProfileRow>& before;
    const bool allowUpdate;
    TypeSpread types;  // the modem as the plan leaves it
    std::optional<ProfileId> attachId;
    std::vector<Create> creates;
    kel::ProfileParams createdSettings;
};

// Every setting of expected that the modem's row does not hold, one NotApplied each; the flags
// are the modem's own and only looked at where expected names them.
void compare(const std::string& profile, const std::map<std::string, std::string>& expected,
             const ProfileRow* row, std::vector<NotApplied>* missing) {
    const auto fields = row == nullptr ? std::map<std::string, std::string>() : fieldMap(*row);
    for (const auto& [setting, wanted] : expected) {
        const auto found = fields.find(setting);
        const std::string got = found == fields.end() ? "-" : found->second;
        if (got != wanted) {
            missing->push_back({profile, setting, wanted, got});
        }
    }
}

std::map<std::string, std::string> settingsMap(const kel::ProfileParams& params) {
    std::map<std::string, std::string> fields;
    for (const auto& [key, value] : settingsFields(params)) {
        fields[key] = value;
    }
    return fields;
}

std::vector<ProfileUpdate> updatesBetween(const std::vector<ProfileRow>& from,
                                          const std::vector<ProfileRow>& to) {
    std::vector<ProfileUpdate> updates;
    for (const auto& old : from) {
        const ProfileRow* now = findRow(to, old.tech, old.id);
        if (now == nullptr) {
            continue;
        }
        auto changes = settingChanges(old, *now);
        if (!changes.empty()) {
            updates.push_back({profileName(old.tech, old.id), old.name, std::move(changes)});
        }
    }
    return updates;
}

std::vector<ProfileUpdate> plannedUpdates(const std::vector<ProfileRow>& before,
                                          const std::map<ProfileId, ProfileRow>& expected) {
    std::vector<ProfileRow> rows;
    for (const auto& [id, row] : expected) {
        rows.push_back(row);
    }
    return updatesBetween(before, rows);
}

// What the apply did about attach: the profile Util chose, and whether it was the planned one.
// before is the modem ahead of the attach step, attached right after it.
std::optional<ProfileId> checkAttach(const std::shared_ptr<kel::IProfileKey>& key,
                                     const std::vector<ProfileRow>& before,
                                     const std::vector<ProfileRow>& attached,
                                     CarrierReport* report) {
    AttachReport& attach = *report->attach;
    const std::string planned = attach.profile.empty() ? "a new profile" : attach.profile;
    if (!key) {
        report->notApplied.push_back({"attach", "profile", planned, "-"});
        attach.action = "none";
        return std::nullopt;
    }
    const ProfileId id{key->getTechType(), key->getProfileId()};
    const std::string chosen = profileName(id.first, id.second);
    const ProfileRow* old = findRow(before, id.first, id.second);
    const ProfileRow* now = findRow(attached, id.first, id.second);
    const bool wasPlanned = attach.profile.empty() ? old == nullptr : chosen == attach.profile;
    if (!wasPlanned) {
        report->notApplied.push_back({"attach", "profile", planned, chosen});
    }
    attach.profile = chosen;
    attach.changes = old != nullptr && now != nullptr ? settingChanges(*old, *now)
                                                      : std::vector<SettingChange>();
    attach.action = old == nullptr ? "created" : attach.changes.empty() ? "found" : "updated";
    return id;
}

// The settings the attach search relied on (APN and IP types) that the attach profile holds
// otherwise: the library took the profile as it is.
std::vector<AttachDifference> attachDifferences(const kel::ProfileParams& request,
                                                const ProfileRow* row) {
    std::vector<AttachDifference> differences;
    if (row == nullptr) {
        return differences;
    }
    const auto has = fieldMap(*row);
    kel::ProfileParams relied;
    if (request.hasApnName() && !request.getApnName().empty()) {
        relied.setApnName(apnKey(request.getApnName()));
    }
    copyIpTypes(request, relied);
    for (const auto& [setting, wanted] : settingsFields(relied)) {
        const auto found = has.find(setting);
        const std::string got = found == has.end() ? "-" : found->second;
        if ((setting == "apn" ? apnKey(got) : got) != wanted) {
            differences.push_back({setting, wanted, got});
        }
    }
    return differences;
}

std::string entryLabel(int line, const std::string& carrier) {
    std::string label = "line " + std::to_string(line);
    if (!carrier.empty()) {
        label += " (" + carrier + ")";
    }
    return label;
}

std::vector<std::string> entryDetails(const CarrierSelection& selection) {
    std::vector<std::string> details;
    for (const auto& entry : selection.entries) {
        const std::string where = "  " + entryLabel(entry.line, escapeText(entry.carrier)) + ": ";
        std::string merged;
        for (const int line : entry.mergedLines) {
            merged += (merged.empty() ? " (merged: line " : ", ") + std::to_string(line);
        }
        details.push_back(where + settingsLine(entry.settings) +
                          (merged.empty() ? "" : merged + ")"));
        if (!entry.ignoredAttributes.empty()) {
            std::string names;
            for (const auto& name : entry.ignoredAttributes) {
                names += (names.empty() ? "" : ", ") + escapeText(name);
            }
            details.push_back(where + "ignored attributes: " + names);
        }
        for (const auto& type : entry.ignoredTypes) {
            details.push_back(where + "ignored APN type: " + escapeText(type));
        }
    }
    return details;
}

std::string networkOf(const Args& args) {
    std::string who = "mcc " + args.mcc + " mnc " + args.mnc;
    if (!args.mvnoType.empty()) {
        who += " " + args.mvnoType + " \"" + args.mvnoMatch + "\"";
    }
    return who;
}

const char* stepName(AttachStep step) {
    switch (step) {
        case AttachStep::Exact:
            return "exact";
        case AttachStep::Loose:
            return "loose";
        case AttachStep::IaByName:
            return "attach-profile-by-apn";
        case AttachStep::AnyIa:
            return "attach-profile";
        case AttachStep::Create:
            return "create";
    }
    return "create";
}

std::string joined(const std::vector<std::string>& items) {
    std::string text;
    for (const auto& item : items) {
        text += (text.empty() ? "" : ", ") + item;
    }
    return text;
}

std::string attachText(const CarrierReport& report) {
    const AttachReport& attach = *report.attach;
    const std::string entry = entryLabel(attach.line, escapeText(attach.carrier));
    std::string text;
    if (report.dryRun) {
        text = "attach: " + entry + ": ";
        if (attach.action == "create") {
            text += "would create the attach profile: " + attach.summary + "\n";
        } else if (attach.action == "update") {
            text += "would update " + attach.profile + ": " + changesText(attach.changes) + "\n";
        } else {
            text += "would use " + attach.profile + " as it is\n";
        }
    } else if (attach.action == "none") {
        text = "attach: " + entry + ": no attach profile fits, and the modem did not add one\n";
    } else {
        text = "attach: " + attach.action + " " + attach.summary + "\n";
    }
    if (!attach.kept.empty()) {
        text += "attach: " + attach.profile + (report.dryRun ? " would keep " : " keeps ") +
                joined(attach.kept) + " from before; " + entry + " does not set " +
                (attach.kept.size() == 1 ? "it" : "them") + "\n";
    }
    if (attach.noApn) {
        text += "attach: " + entry +
                " has no APN name (the network assigns it): profiles that carry an APN are "
                "left alone\n";
    }
    return text;
}

Json changesJson(const std::vector<SettingChange>& changes) {
    Json list = Json::array();
    for (const auto& change : changes) {
        list.push_back({{"setting", change.setting},
                        {"from", shownChange(change.setting, change.from)},
                        {"to", shownChange(change.setting, change.to)}});
    }
    return list;
}

// The modem's profiles are chosen by APN name and IP type; an entry's profile_id that names
// another profile is worth a word.
void noteProfileIds(const CarrierSelection& selection, const std::vector<ProfileRow>& rows,
                    std::vector<std::string>* warnings) {
    for (const auto& entry : selection.entries) {
        if (!entry.profileId) {
            continue;
        }
        const ProfileRow* row = findRow(rows, kel::TechType::TYPE_3GPP, *entry.profileId);
        const std::string apn = lower(entry.settings.getApnName());
        if (row != nullptr && lower(row->params.getApnName()) == apn) {
            continue;
        }
        const std::string named = profileName(kel::TechType::TYPE_3GPP, *entry.profileId);
        warnings->push_back(selection.file + ":" + std::to_string(entry.line) +
                            ": note: profile_id=" + std::to_string(*entry.profileId) + ": " +
                            (row == nullptr
                                 ? "the modem has no " + named
                                 : named + " holds APN \"" + row->params.getApnName() + "\"") +
                            "; kelctl chooses profiles by APN name and IP type");
    }
}

std::string homeIpText(const kel::ProfileParams& settings) {
    return ipName(settings.hasHomeIPType() ? settings.getHomeIPType() : kel::IPType::V4V6);
}

// Why an enabled entry reached no profile.
std::string missedReason(const CarrierEntry& entry, bool allowUpdate) {
    const kel::ProfileParams& settings = entry.settings;
    if (!settings.hasApnName()) {
        return "it has no APN name, and only the entry that sets up attach may go without one";
    }
    if (settings.getApnTypesMask() == 0) {
        return "none of its APN types is one the modem knows";
    }
    return "no profile has APN \"" + apnKey(settings.getApnName()) + "\"" +
           (allowUpdate ? "" : " with IP type " + homeIpText(settings));
}

// Profiles still to be created have negative indexes in a plan; realIds has the modem's.
using RealIds = std::map<ProfileId, ProfileId>;

std::string shownId(const ProfileId& id, const RealIds& realIds) {
    if (id.second < 0) {
        const auto real = realIds.find(id);
        return real == realIds.end() ? "new" : profileName(real->second.first, real->second.second);
    }
    return profileName(id.first, id.second);
}

// What became of every entry: the profiles it reaches in the plan, or why none. realIds names
// the profiles the apply created.
std::vector<EntryAccount> accountFor(const CarrierSelection& selection, const Planner& planner,
                                     const CarrierEntry* attachEntry, bool allowUpdate,
                                     const RealIds& realIds) {
    std::vector<EntryAccount> accounts;
    for (const auto& entry : selection.entries) {
        EntryAccount account;
        account.line = entry.line;
        account.carrier = entry.carrier;
        if (isDisabled(entry)) {
            account.reason = "the carrier disabled it (carrier_enabled=\"false\")";
        } else {
            if (&entry == attachEntry && planner.attachProfile()) {
                account.attach = true;
                account.profiles.push_back(shownId(*planner.attachProfile(), realIds));
            }
            if (entry.settings.hasApnName()) {
                for (const auto& id :
                     planner.landing(apnKey(entry.settings.getApnName()), slotOf(entry.settings))) {
                    const std::string name = shownId(id, realIds);
                    if (std::find(account.profiles.begin(), account.profiles.end(), name) ==
                        account.profiles.end()) {
                        account.profiles.push_back(name);
                    }
                }
            }
            account.fate = account.profiles.empty() ? EntryFate::NotApplied : EntryFate::Applied;
            if (account.profiles.empty()) {
                account.reason = missedReason(entry, allowUpdate);
            }
        }
        accounts.push_back(account);
        for (std::size_t i = 0; i < entry.mergedLines.size(); ++i) {
            EntryAccount merged;
            merged.line = entry.mergedLines[i];
            merged.carrier = entry.mergedCarriers[i];
            merged.fate = EntryFate::Merged;
            merged.mergedInto = entry.line;
            accounts.push_back(merged);
        }
    }
    std::stable_sort(accounts.begin(), accounts.end(),
                     [](const EntryAccount& a, const EntryAccount& b) { return a.line < b.line; });
    return accounts;
}

// An applied entry whose profile the modem did not take is not applied after all.
void markRefused(CarrierReport* report) {
    for (auto& account : report->entries) {
        if (account.fate != EntryFate::Applied) {
            continue;
        }
        std::vector<std::string> refused;
        for (const auto& profile : account.profiles) {
            for (const auto& missing : report->notApplied) {
                if ((missing.profile == profile ||
                     (account.attach && missing.profile == "attach")) &&
                    std::find(refused.begin(), refused.end(), profile) == refused.end()) {
                    refused.push_back(profile);
                }
            }
        }
        if (!refused.empty()) {
            account.fate = EntryFate::NotApplied;
            account.reason = "the modem did not take it on " + joined(refused) +
                             " (the \"not applied\" lines say what)";
        }
    }
}

std::string entryText(const EntryAccount& account, bool dryRun) {
    std::string text = entryLabel(account.line, escapeText(account.carrier)) + ": ";
    switch (account.fate) {
        case EntryFate::Applied: {
            std::vector<std::string> profiles = account.profiles;
            for (std::size_t i = 0; i < profiles.size(); ++i) {
                const bool attachOne = account.attach && i == 0;
                if (profiles[i] == "new") {
                    profiles[i] = attachOne ? "the new attach profile" : "a new profile";
                } else if (attachOne) {
                    profiles[i] += " (attach)";
                }
            }
            return text + (dryRun ? "would be applied to " : "applied to ") + joined(profiles);
        }
        case EntryFate::Merged:
            return text + "merged into line " + std::to_string(account.mergedInto);
        case EntryFate::NotApplied:
            return text + (dryRun ? "would not be applied: " : "not applied: ") +
                   escapeText(account.reason);
    }
    return text;
}

struct Tally {
    int applied = 0;
    int merged = 0;
    int missed = 0;
};

Tally tallyOf(const CarrierReport& report) {
    Tally tally;
    for (const auto& account : report.entries) {
        switch (account.fate) {
            case EntryFate::Applied:
                ++tally.applied;
                break;
            case EntryFate::Merged:
                ++tally.merged;
                break;
            case EntryFate::NotApplied:
                ++tally.missed;
                break;
        }
    }
    return tally;
}

std::string summaryText(const CarrierReport& report) {
    const Tally tally = tallyOf(report);
    const std::string would = report.dryRun ? "would be " : "";
    const auto count = [](int n, const char* one, const char* many) {
        return std::to_string(n) + " " + (n == 1 ? one : many);
    };
    return "summary: " + count(static_cast<int>(report.entries.size()), "entry", "entries") + ": " +
           std::to_string(tally.applied) + " " + would + "applied, " +
           std::to_string(tally.merged) + " merged, " + std::to_string(tally.missed) + " " +
           (report.dryRun ? "would not be applied" : "not applied") + "; " +
           count(static_cast<int>(report.updates.size()), "profile", "profiles") + " " + would +
           "updated, " + std::to_string(report.created) + " " + would + "created\n";
}

const char* fateName(EntryFate fate) {
    switch (fate) {
        case EntryFate::Applied:
            return "applied";
        case EntryFate::Merged:
            return "merged";
        case EntryFate::NotApplied:
            return "not_applied";
    }
    return "not_applied";
}

Json entryJson(const EntryAccount& account) {
    Json json = {
        {"line", account.line}, {"carrier", account.carrier}, {"fate", fateName(account.fate)}};
    switch (account.fate) {
        case EntryFate::Applied:
            json["profiles"] = account.profiles;
            json["attach"] = account.attach;
            break;
        case EntryFate::Merged:
            json["merged_into"] = account.mergedInto;
            break;
        case EntryFate::NotApplied:
            json["reason"] = account.reason;
            break;
    }
    return json;
}

// One to three decimal digits, as a network code is written.
bool isNetworkCode(const std::string& text) {
    return !text.empty() && text.size() <= 3 &&
           text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

// --dry-run is apply-classes' and apply-types' too; here it keeps its place in carrier's help.
const std::vector<OptionSpec>& carrierOptions() {
    static const std::vector<OptionSpec> table = {
        {"--mcc", "MCC", kCarrier, "mobile country code (up to 3 digits)",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             if (!isNetworkCode(v)) {
                 *why = quoted(v) + " is not a mobile country code of up to 3 digits";
                 return false;
             }
             a.mcc = v;
             return true;
         }},
        {"--mnc", "MNC", kCarrier, "mobile network code (up to 3 digits)",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             if (!isNetworkCode(v)) {
                 *why = quoted(v) + " is not a mobile network code of up to 3 digits";
                 return false;
             }
             a.mnc = v;
             return true;
         }},
        {"--mvno-type", "spn|imsi|gid|iccid", kCarrier, "select a virtual operator's entries",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             const std::string type = lower(v);
             if (type != "spn" && type != "imsi" && type != "gid" && type != "iccid") {
                 return notOneOf(v, "spn, imsi, gid, iccid", why);
             }
             a.mvnoType = type;
             return true;
         }},
        {"--mvno-match", "DATA", kCarrier, "the virtual operator's match data",
         [](const std::string& v, Args& a, GlobalOptions*, std::string*) {
             a.mvnoMatch = v;
             return true;
         }},
        {"--dry-run", nullptr, kDryRun, "print what would change on the modem; change nothing",
         setFlag<&Args::dryRun>},
        {"--create", nullptr, kCarrier,
         "create a persistent profile for each APN of the carrier that no profile carries",
         setFlag<&Args::create>},
    };
    return table;
}

bool runCarrier(Session& session, const Invocation& inv, CarrierReport* report) {
    const CarrierSelection& selection = *inv.carrier;
    report->network = networkOf(inv.args);
    report->file = selection.file;
    report->selected = selection.selectedInFile;
    report->inFile = selection.entriesInFile;
    report->dryRun = inv.args.dryRun;
    report->allowUpdate = inv.args.allowUpdate;
    report->warnings = selection.warnings;
    if (inv.args.verbose) {
        report->details = entryDetails(selection);
    }

    // Planning reads the modem but changes nothing: a deadline that passes now says so. The
    // run's own line is back once the import is done (a script goes on).
    RunDeadline& deadline = session.channel.deadline;
    struct LineBack {
        RunDeadline& deadline;
        const std::string line;
        ~LineBack() { deadline.setLine(line); }
    } lineBack{deadline, deadline.line()};
    deadline.setLine(
        "kelctl: stopped: --timeout ran out while kelctl planned the "
        "carrier import; nothing was changed on the modem\n");
    const auto before = snapshot(session);
    noteProfileIds(selection, before, &report->warnings);
    Planner planner(before, inv.args.allowUpdate);
    const CarrierEntry* attachEntry = selection.attachEntry();
    kel::ProfileParams request;
    if (attachEntry != nullptr) {
        request = attachEntry->settings;
        // Without a name the library's search would take any profile of the entry's IP types;
        // an empty name limits it to profiles without APN and the library's attach profile.
        const bool noApn = !request.hasApnName();
        if (noApn) {
            request.setApnName("");
        }
        report->attach = planner.planAttach(request);
        report->attach->line = attachEntry->line;
        report->attach->carrier = attachEntry->carrier;
        report->attach->noApn = noApn;
    }
    report->create = inv.args.create;
    if (inv.args.create) {
        planner.planCreates(selection);
    }
    planner.spreadTypes(selection.typeUpdates());
    if (report->attach) {
        planner.finishAttach(&*report->attach);
        if (const auto types = planner.attachTypes()) {
            request.setApnTypesMask(*types);
        }
    }
    const auto expected = planner.expected();
    report->created = (report->attach && report->attach->step == AttachStep::Create ? 1 : 0) +
                      static_cast<int>(planner.plannedCreates().size());
    if (inv.args.dryRun) {
        report->updates = plannedUpdates(before, expected);
        for (const auto& create : planner.plannedCreates()) {
            report->createdProfiles.push_back(
                {create.entry->line, create.entry->carrier, "", settingsLine(create.settings)});
        }
        report->entries = accountFor(selection, planner, attachEntry, inv.args.allowUpdate, {});
        if (const auto id = planner.attachProfile(); id && report->attach) {
            report->attachDiffers = attachDifferences(request, &expected.at(*id));
        }
        return true;
    }

    deadline.setLine(
        "kelctl: stopped: --timeout ran out while the carrier import was applied (the modem "
        "answers too slowly); read the modem's profiles to see what it took\n");
    session.util.setProfileUpdateAllowed(inv.args.allowUpdate);
    std::optional<ProfileId> attached;
    RealIds realIds;
    if (attachEntry != nullptr) {
        const auto key = session.util.findOrCreateProfileForLteAttach(request);
        attached = checkAttach(key, before, snapshot(session), report);
    }
    const bool createdOne = attached && planner.rowBefore(*attached) == nullptr;
    if (createdOne) {
        realIds.emplace(kNewProfile, *attached);
    }
    for (const auto& create : planner.plannedCreates()) {
        const auto key = manager().addProfile(
            kel::AddProfileParams(create.settings, true, kel::TechType::TYPE_3GPP, false));
        if (key) {
            realIds.emplace(create.id, ProfileId{key->getTechType(), key->getProfileId()});
        } else {
            report->notApplied.push_back(
                {"new profile for line " + std::to_string(create.entry->line), "profile", "created",
                 "-"});
        }
    }
    session.util.updateAPNTypeBitmaskOnModemProfile(selection.typeUpdates());
    const std::vector<ProfileRow> after = snapshot(session);
    report->updates = updatesBetween(before, after);
    report->created = static_cast<int>(realIds.size());
    for (const auto& create : planner.plannedCreates()) {
        const auto real = realIds.find(create.id);
        const ProfileRow* now = real == realIds.end()
                                    ? nullptr
                                    : findRow(after, real->second.first, real->second.second);
        report->createdProfiles.push_back(
            {create.entry->line, create.entry->carrier,
             real == realIds.end() ? "" : profileName(real->second.first, real->second.second),
             now != nullptr ? rowSummary(*now) : settingsLine(create.settings)});
    }
    if (attached) {
        const ProfileRow* now = findRow(after, attached->first, attached->second);
        report->attach->summary = now != nullptr ? rowSummary(*now) : report->attach->profile;
        report->attachDiffers = attachDifferences(request, now);
    }
    // Every setting the plan sets or keeps on the profiles it touches is read back.
    for (const auto& [id, row] : expected) {
        if (id.second < 0) {
            const auto real = realIds.find(id);
            if (real != realIds.end()) {
                compare(
                    profileName(real->second.first, real->second.second), settingsMap(row.params),
                    findRow(after, real->second.first, real->second.second), &report->notApplied);
            }
            continue;
        }
        auto wanted = fieldMap(row);
        wanted.erase("flags");
        compare(profileName(id.first, id.second), wanted, findRow(after, id.first, id.second),
                &report->notApplied);
    }
    report->entries = accountFor(selection, planner, attachEntry, inv.args.allowUpdate, realIds);
    markRefused(report);
    return report->notApplied.empty();
}

std::string carrierText(const CarrierReport& report) {
    std::string text = "carrier " + escapeText(report.network) + ": " +
                       std::to_string(report.selected) + " of " + std::to_string(report.inFile) +
                       (report.inFile == 1 ? " entry" : " entries") + " in " +
                       escapeText(report.file) + "\n";
    for (const auto& detail : report.details) {
        text += detail + "\n";
    }
    const std::string verb = report.dryRun ? "would update " : "updated ";
    for (const auto& update : report.updates) {
        text += verb + update.profile + ": " + changesText(update.changes) + "\n";
    }
    if (report.updates.empty() && report.created == 0) {
        text += report.dryRun ? "no profile would change\n" : "no profile changed\n";
    }
    if (report.attach) {
        text += attachText(report);
    }
    for (const auto& create : report.createdProfiles) {
        const std::string entry = entryLabel(create.line, escapeText(create.carrier));
        if (report.dryRun) {
            text += "create: " + entry + ": would create " + create.summary + "\n";
        } else if (create.profile.empty()) {
            text += "create: " + entry + ": the modem did not add the profile\n";
        } else {
            text += "create: created " + create.summary + "\n";
        }
    }
    for (const auto& differs : report.attachDiffers) {
        text += "attach: " + report.attach->profile + " keeps " + differs.setting + "=" +
                escapeText(differs.profile) + " where " +
                entryLabel(report.attach->line, escapeText(report.attach->carrier)) + " gives " +
                escapeText(differs.entry) +
                " (the library's search takes the profile as it is; --allow-update sets it)\n";
    }
    for (const auto& account : report.entries) {
        text += entryText(account, report.dryRun) + "\n";
    }
    for (const auto& missing : report.notApplied) {
        text += "not applied: " + missing.profile + " " + missing.setting + ": asked for " +
                shownChange(missing.setting, missing.wanted) + ", the modem has " +
                shownChange(missing.setting, missing.got) + "\n";
    }
    text += summaryText(report);
    if (report.dryRun) {
        text += "dry run: nothing was sent to the modem\n";
    }
    return text;
}

Json carrierJson(const CarrierReport& report) {
    Json json = {
        {"network", report.network},   {"file", report.file},
        {"selected", report.selected}, {"entries_in_file", report.inFile},
        {"dry_run", report.dryRun},    {"allow_update", report.allowUpdate},
        {"warnings", report.warnings}, {"updates", Json::array()},
        {"attach", nullptr},           {"not_applied", Json::array()},
        {"entries", Json::array()},    {"create", report.create},
        {"created", Json::array()},
    };
    for (const auto& create : report.createdProfiles) {
        json["created"].push_back(
            {{"line", create.line},
             {"carrier", create.carrier},
             {"profile", create.profile.empty() ? Json(nullptr) : Json(create.profile)},
             {"summary", create.summary}});
    }
    for (const auto& update : report.updates) {
        json["updates"].push_back({{"profile", update.profile},
                                   {"name", update.name},
                                   {"changes", changesJson(update.changes)}});
    }
    if (report.attach) {
        const AttachReport& attach = *report.attach;
        Json differs = Json::array();
        for (const auto& one : report.attachDiffers) {
            differs.push_back(
                {{"setting", one.setting}, {"entry", one.entry}, {"profile", one.profile}});
        }
        json["attach"] = {
            {"line", attach.line},
            {"carrier", attach.carrier},
            {"step", stepName(attach.step)},
            {"profile", attach.profile.empty() ? Json(nullptr) : Json(attach.profile)},
            {"action", attach.action},
            {"changes", changesJson(attach.changes)},
            {"kept", attach.kept},
            {"no_apn", attach.noApn},
            {"differs", differs},
        };
    }
    for (const auto& missing : report.notApplied) {
        json["not_applied"].push_back({{"profile", missing.profile},
                                       {"setting", missing.setting},
                                       {"wanted", shownChange(missing.setting, missing.wanted)},
                                       {"got", shownChange(missing.setting, missing.got)}});
    }
    for (const auto& account : report.entries) {
        json["entries"].push_back(entryJson(account));
    }
    const Tally tally = tallyOf(report);
    json["summary"] = {{"entries", report.entries.size()}, {"applied", tally.applied},
                       {"merged", tally.merged},           {"not_applied", tally.missed},
                       {"updated", report.updates.size()}, {"created", report.created}};
    return json;
}

}  // namespace kelctl
