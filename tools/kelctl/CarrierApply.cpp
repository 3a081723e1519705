#include "CarrierApply.h"

#include <array>
#include <map>
#include <utility>

#include "InputFile.h"
#include "Output.h"
#include "ValueNames.h"
#include "kel/Manager.h"

namespace kelctl {
namespace {

using ProfileId = std::pair<kel::TechType, int>;

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

// Works out, with read-only library calls, what the library's Util does with the entries: the
// profiles it changes, as they would be afterwards, and the profile attach ends on. Follows
// Util's rules step by step, so that a plan shows what an apply sends.
class Planner {
  public:
    Planner(const std::vector<ProfileRow>& rowsBefore, bool updateAllowed)
        : before(rowsBefore), allowUpdate(updateAllowed) {}

    // Util::updateAPNTypeBitmaskOnModemProfile.
    void spreadTypes(const std::list<kel::ProfileParams>& entries) {
        std::vector<std::string> names;
        std::map<std::string, std::array<unsigned int, 3>>
            masks;  // V4, V6, V4V6 per lower-case APN
        for (const auto& entry : entries) {
            if (!entry.hasApnName()) {
                continue;
            }
            const std::string name = lower(entry.getApnName());
            if (masks.count(name) == 0) {
                names.push_back(name);
                masks[name] = {0, 0, 0};
            }
            const kel::IPType ip =
                entry.hasHomeIPType() ? entry.getHomeIPType() : kel::IPType::V4V6;
            const int slot = ip == kel::IPType::V4 ? 0 : ip == kel::IPType::V6 ? 1 : 2;
            masks[name][slot] |= entry.getApnTypesMask();
        }
        for (const auto& name : names) {
            const auto& m = masks[name];
            if (allowUpdate) {
                kel::FilterProfileParams filter;
                filter.setApnName(name);
                setTypes(idsOf(filter), m[0] | m[1] | m[2]);
                continue;
            }
            for (const auto tech : {kel::TechType::TYPE_3GPP, kel::TechType::TYPE_3GPP2}) {
                spreadByTech(tech, m[0], m[1], m[2], name);
            }
        }
    }

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

    // Every profile the plan changes, as it would be afterwards.
    const std::map<ProfileId, ProfileRow>& expected() const { return after; }
    // The profile attach would create; empty settings when it creates none.
    const kel::ProfileParams& created() const { return createdSettings; }

  private:
    const ProfileRow* rowBefore(const ProfileId& id) const {
        return findRow(before, id.first, id.second);
    }

    ProfileRow* touch(const ProfileId& id) {
        if (const auto found = after.find(id); found != after.end()) {
            return &found->second;
        }
        const ProfileRow* row = rowBefore(id);
        return row == nullptr ? nullptr : &after.emplace(id, *row).first->second;
    }

    void setTypes(const std::vector<ProfileId>& ids, unsigned int mask) {
        for (const auto& id : ids) {
            if (ProfileRow* row = touch(id)) {
                row->params.setApnTypesMask(mask);
            }
        }
    }

    bool updateByIpType(kel::TechType tech, kel::IPType ip, unsigned int mask,
                        const std::string& name) {
        kel::FilterProfileParams filter = filterFor(tech);
        filter.setApnName(name);
        filter.setHomeIPType(ip);
        const auto ids = idsOf(filter);
        setTypes(ids, mask);
        return !ids.empty();
    }

    // Util::handleProfileUpdateByTechType: a mask without a profile of its own IP type folds into
    // the dual-stack one; without a dual-stack profile, that one spreads over the others.
    void spreadByTech(kel::TechType tech, unsigned int v4, unsigned int v6, unsigned int v4v6,
                      const std::string& name) {
        unsigned int combined = v4v6;
        if (v4 != 0 && !updateByIpType(tech, kel::IPType::V4, v4, name)) {
            combined |= v4;
        }
        unsigned int target = combined;
        unsigned int v6Fallback = combined;
        if (v6 != 0) {
            v6Fallback = combined | v6;
            if (!updateByIpType(tech, kel::IPType::V6, v6, name)) {
                target = combined | v6;
            } else if (combined == 0) {
                return;
            }
        } else if (combined == 0) {
            return;
        }
        if (updateByIpType(tech, kel::IPType::V4V6, target, name)) {
            return;
        }
        updateByIpType(tech, kel::IPType::V4, target | v4, name);
        updateByIpType(tech, kel::IPType::V6, v6Fallback, name);
    }

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
        for (const auto& [key, value] : settingsFields(createdSettings)) {
            attach->changes.push_back({key, "-", value});
        }
        attach->summary = settingsLine(createdSettings);
    }

    void planUse(const ProfileId& id, const kel::ProfileParams& fixUp, AttachReport* attach) {
        attach->profile = profileName(id.first, id.second);
        ProfileRow* row = touch(id);
        if (row == nullptr) {
            attach->action = "use";
            return;
        }
        const ProfileRow typed = *row;
        overlay(fixUp, row->params);
        attach->changes = settingChanges(typed, *row);
        attach->action = attach->changes.empty() ? "use" : "update";
        if (typed.params.getIsKelProfile() && typed.params.getIsIAProfile()) {
            const auto now = fieldMap(typed);
            const auto taken = fieldMap(ProfileRow{typed.tech, typed.id, "", "", fixUp});
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
    std::map<ProfileId, ProfileRow> after;
    kel::ProfileParams createdSettings;
};

std::string valueIn(const std::map<std::string, std::string>& fields, const std::string& key) {
    const auto found = fields.find(key);
    return found == fields.end() ? "-" : found->second;
}

// The settings of profile that differ from wanted, one NotApplied each.
void compare(const std::string& profile, const std::vector<SettingChange>& wanted,
             const ProfileRow* row, std::vector<NotApplied>* missing) {
    const auto fields = row == nullptr ? std::map<std::string, std::string>() : fieldMap(*row);
    for (const auto& change : wanted) {
        const std::string got = valueIn(fields, change.setting);
        if (got != change.to) {
            missing->push_back({profile, change.setting, change.to, got});
        }
    }
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
void checkAttach(const std::shared_ptr<kel::IProfileKey>& key, const std::vector<ProfileRow>& typed,
                 const std::vector<ProfileRow>& after, const kel::ProfileParams& created,
                 CarrierReport* report) {
    AttachReport& attach = *report->attach;
    const std::string planned = attach.profile.empty() ? "a new profile" : attach.profile;
    if (!key) {
        report->notApplied.push_back({"attach", "profile", planned, "-"});
        attach.action = "none";
        return;
    }
    const std::string chosen = profileName(key->getTechType(), key->getProfileId());
    const ProfileRow* old = findRow(typed, key->getTechType(), key->getProfileId());
    const ProfileRow* now = findRow(after, key->getTechType(), key->getProfileId());
    const bool wasPlanned = attach.profile.empty() ? old == nullptr : chosen == attach.profile;
    if (!wasPlanned) {
        report->notApplied.push_back({"attach", "profile", planned, chosen});
    } else if (old == nullptr) {
        std::vector<SettingChange> wanted;
        for (const auto& [setting, value] : settingsFields(created)) {
            wanted.push_back({setting, "-", value});
        }
        compare(chosen, wanted, now, &report->notApplied);
    }
    attach.profile = chosen;
    attach.changes = old != nullptr && now != nullptr ? settingChanges(*old, *now)
                                                      : std::vector<SettingChange>();
    attach.action = old == nullptr ? "created" : attach.changes.empty() ? "found" : "updated";
    attach.summary = now != nullptr ? rowSummary(*now) : chosen;
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

}  // namespace

bool runCarrier(Session& session, const Invocation& inv, CarrierReport* report) {
    const CarrierSelection& selection = *inv.carrier;
    report->network = networkOf(inv.args);
    report->file = selection.file;
    report->selected = static_cast<int>(selection.entries.size());
    report->inFile = selection.entriesInFile;
    report->dryRun = inv.args.dryRun;
    report->allowUpdate = inv.args.allowUpdate;
    report->warnings = selection.warnings;
    if (inv.args.verbose) {
        report->details = entryDetails(selection);
    }

    const auto before = snapshot(session);
    noteProfileIds(selection, before, &report->warnings);
    Planner planner(before, inv.args.allowUpdate);
    planner.spreadTypes(selection.typeUpdates());
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
    if (inv.args.dryRun) {
        report->updates = plannedUpdates(before, planner.expected());
        return true;
    }

    session.util.setProfileUpdateAllowed(inv.args.allowUpdate);
    session.util.updateAPNTypeBitmaskOnModemProfile(selection.typeUpdates());
    std::vector<ProfileRow> typed = snapshot(session);
    std::vector<ProfileRow> after = typed;
    if (attachEntry != nullptr) {
        const auto key = session.util.findOrCreateProfileForLteAttach(request);
        after = snapshot(session);
        checkAttach(key, typed, after, planner.created(), report);
    }
    report->updates = updatesBetween(before, after);
    for (const auto& [id, row] : planner.expected()) {
        const ProfileRow* old = findRow(before, id.first, id.second);
        if (old != nullptr) {
            compare(profileName(id.first, id.second), settingChanges(*old, row),
                    findRow(after, id.first, id.second), &report->notApplied);
        }
    }
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
    if (report.updates.empty()) {
        text += report.dryRun ? "no profile would change\n" : "no profile changed\n";
    }
    if (report.attach) {
        text += attachText(report);
    }
    for (const auto& missing : report.notApplied) {
        text += "not applied: " + missing.profile + " " + missing.setting + ": asked for " +
                shownChange(missing.setting, missing.wanted) + ", the modem has " +
                shownChange(missing.setting, missing.got) + "\n";
    }
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
    };
    for (const auto& update : report.updates) {
        json["updates"].push_back({{"profile", update.profile},
                                   {"name", update.name},
                                   {"changes", changesJson(update.changes)}});
    }
    if (report.attach) {
        const AttachReport& attach = *report.attach;
        json["attach"] = {
            {"line", attach.line},
            {"carrier", attach.carrier},
            {"step", stepName(attach.step)},
            {"profile", attach.profile.empty() ? Json(nullptr) : Json(attach.profile)},
            {"action", attach.action},
            {"changes", changesJson(attach.changes)},
            {"kept", attach.kept},
            {"no_apn", attach.noApn},
        };
    }
    for (const auto& missing : report.notApplied) {
        json["not_applied"].push_back({{"profile", missing.profile},
                                       {"setting", missing.setting},
                                       {"wanted", shownChange(missing.setting, missing.wanted)},
                                       {"got", shownChange(missing.setting, missing.got)}});
    }
    return json;
}

}  // namespace kelctl
