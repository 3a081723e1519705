#include "PolicyApply.h"

#include <list>
#include <map>
#include <utility>

#include "CarrierPlan.h"
#include "ValueNames.h"

namespace kelctl {
namespace {

constexpr unsigned int kEmergencyBit = static_cast<unsigned int>(kel::ApnTypes::EMERGENCY);

// The profile emergency calls go over: the one that supports them or carries their type.
bool isEmergencyProfile(const ProfileRow& row) {
    const kel::ProfileParams& p = row.params;
    return (p.hasIsEmergencySupported() && p.getIsEmergencySupported()) ||
           (p.hasApnTypesMask() && (p.getApnTypesMask() & kEmergencyBit) != 0);
}

std::string shownProfile(const ProfileRow& row) {
    return profileName(row.tech, row.id) +
           (isEmergencyProfile(row) ? " (the emergency profile)" : "");
}

// What the plan expects: the profiles it changes as they would be, and the profiles it adds.
struct Plan {
    std::map<ProfileId, ProfileRow> changed;
    std::vector<ProfileRow> added;
};

// The report of a plan (dry run) or of an apply, with the read-back of every planned setting.
struct Report {
    std::string text;
    Json json = Json::array();
    std::vector<std::string> notApplied;
};

void describe(const std::vector<ProfileRow>& before, const Plan& plan, bool dryRun,
              Report* report) {
    for (const auto& [id, row] : plan.changed) {
        const ProfileRow* old = findRow(before, id.first, id.second);
        const auto changes =
            old == nullptr ? std::vector<SettingChange>() : settingChanges(*old, row);
        if (changes.empty()) {
            continue;
        }
        report->text += std::string(dryRun ? "would update " : "updated ") + shownProfile(*old) +
                        ": " + changesText(changes) + "\n";
        report->json.push_back({{"change", dryRun ? "update" : "updated"},
                                {"profile", profileName(id.first, id.second)},
                                {"emergency", isEmergencyProfile(*old)},
                                {"fields", settingChangesJson(changes)}});
    }
    for (const auto& row : plan.added) {
        report->text += std::string(dryRun ? "would create a persistent " : "created ") +
                        (dryRun ? techName(row.tech) + " profile: " + settingsLine(row.params)
                                : rowSummary(row)) +
                        "\n";
        report->json.push_back(
            {{"change", dryRun ? "create" : "created"},
             {"profile", dryRun ? Json(nullptr) : Json(profileName(row.tech, row.id))},
             {"settings", settingsJson(row.params)}});
    }
    if (report->text.empty()) {
        report->text = dryRun ? "no profile would change\n" : "no profile changed\n";
    }
}

// Every setting the plan sets, compared with what the modem holds now.
void readBack(const Plan& plan, const std::vector<ProfileRow>& before,
              const std::vector<ProfileRow>& after, Report* report) {
    for (const auto& [id, row] : plan.changed) {
        const ProfileRow* old = findRow(before, id.first, id.second);
        const ProfileRow* now = findRow(after, id.first, id.second);
        const auto has = now == nullptr ? std::map<std::string, std::string>() : fieldMap(*now);
        for (const auto& change :
             old == nullptr ? std::vector<SettingChange>() : settingChanges(*old, row)) {
            const auto found = has.find(change.setting);
            const std::string got = found == has.end() ? "-" : found->second;
            if (got != change.to) {
                report->notApplied.push_back(profileName(id.first, id.second) + " " +
                                             change.setting + ": asked for " +
                                             shownChange(change.setting, change.to) +
                                             ", the modem has " + shownChange(change.setting, got));
            }
        }
    }
}

// The result of a dry run or an apply, and the exit status it calls for.
bool finish(const std::vector<ProfileRow>& before, const std::vector<ProfileRow>* after,
            const Plan& plan, CommandResult* result) {
    Report report;
    if (after == nullptr) {
        describe(before, plan, true, &report);
        report.text += "dry run: nothing was sent to the modem\n";
    } else {
        Plan happened;
        for (const auto& row : *after) {
            if (findRow(before, row.tech, row.id) == nullptr) {
                happened.added.push_back(row);
            } else {
                happened.changed.emplace(ProfileId{row.tech, row.id}, row);
            }
        }
        describe(before, happened, false, &report);
        readBack(plan, before, *after, &report);
        if (plan.added.size() != happened.added.size()) {
            report.notApplied.push_back("a new profile: asked for " +
                                        std::to_string(plan.added.size()) + ", the modem added " +
                                        std::to_string(happened.added.size()));
        }
    }
    for (const auto& line : report.notApplied) {
        report.text += "not applied: " + line + "\n";
    }
    result->output = report.text;
    result->json = {{"dry_run", after == nullptr},
                    {"changes", report.json},
                    {"not_applied", report.notApplied}};
    if (report.notApplied.empty()) {
        return true;
    }
    result->jsonOnFailure = true;
    result->error = std::to_string(report.notApplied.size()) +
                    (report.notApplied.size() == 1 ? " setting was" : " settings were") +
                    " not applied (the \"not applied\" lines name them)";
    return false;
}

// What a modify copies onto a profile: every present field of the request; a 3GPP2 profile has
// no place for the flags and timers of 3GPP.
void overlayAll(const kel::ProfileParams& from, kel::TechType tech, kel::ProfileParams& to) {
    kel::ProfileParams copy = from;
    if (copy.hasApnName()) {
        copy.setApnName(lower(copy.getApnName()));
    }
    for (const auto& field : settingsFields(copy)) {
        const std::string& key = field.first;
        if (tech == kel::TechType::TYPE_3GPP2 &&
            (key == "emergency-calls" || key == "disabled" || key == "max-conns" ||
             key == "max-conns-time" || key == "wait-time")) {
            continue;
        }
        if (key == "apn") {
            to.setApnName(copy.getApnName());
        } else if (key == "ip") {
            to.setHomeIPType(copy.getHomeIPType());
        } else if (key == "roam-ip") {
            to.setRoamIPType(copy.getRoamIPType());
        } else if (key == "types") {
            to.setApnTypesMask(copy.getApnTypesMask());
        } else if (key == "class") {
            to.setApnClass(copy.getApnClass());
        } else if (key == "auth") {
            to.setAuthType(copy.getAuthType());
        } else if (key == "user") {
            to.setUserName(copy.getUserName());
        } else if (key == "password") {
            to.setPassword(copy.getPassword());
        } else if (key == "clat") {
            to.setIsClatEnabled(copy.getIsClatEnabled());
        } else if (key == "emergency-calls") {
            to.setIsEmergencySupported(copy.getIsEmergencySupported());
        } else if (key == "disabled") {
            to.setIsApnDisabled(copy.getIsApnDisabled());
        } else if (key == "max-conns") {
            to.setMaxPdnsConnPerBlock(copy.getMaxPdnsConnPerBlock());
        } else if (key == "max-conns-time") {
            to.setMaxPdnConnTimer(copy.getMaxPdnConnTimer());
        } else if (key == "wait-time") {
            to.setPdnReqWaitInterval(copy.getPdnReqWaitInterval());
        }
    }
}

// Util::updateModemProfileByApnClass on a copy: each entry modifies every profile of its
// technology and class, or adds a persistent one when there is none.
Plan planClasses(const std::vector<ProfileRow>& before,
                 const std::vector<std::pair<kel::TechType, kel::ProfileParams>>& entries) {
    Plan plan;
    std::vector<ProfileRow> rows = before;
    for (const auto& [tech, settings] : entries) {
        bool found = false;
        for (auto& row : rows) {
            if (row.tech == tech && row.params.hasApnClass() &&
                row.params.getApnClass() == settings.getApnClass()) {
                found = true;
                overlayAll(settings, tech, row.params);
                if (row.id >= 0) {
                    plan.changed[ProfileId{row.tech, row.id}] = row;
                }
            }
        }
        if (!found) {
            ProfileRow added{tech, -1 - static_cast<int>(plan.added.size()), "", "", {}};
            overlayAll(settings, tech, added.params);
            rows.push_back(added);
            plan.added.push_back(added);
        }
    }
    return plan;
}

}  // namespace

bool runApplyClasses(Session& session, const Invocation& inv, CommandResult* result) {
    std::list<kel::ProfileParams> profiles3gpp;
    std::list<kel::ProfileParams> profiles3gpp2;
    std::vector<std::pair<kel::TechType, kel::ProfileParams>> inOrder;
    for (const Entry& entry : inv.args.entries) {
        (entry.tech == kel::TechType::TYPE_3GPP2 ? profiles3gpp2 : profiles3gpp)
            .push_back(entry.settings);
    }
    // Util works through the 3GPP entries first.
    for (const auto& settings : profiles3gpp) {
        inOrder.emplace_back(kel::TechType::TYPE_3GPP, settings);
    }
    for (const auto& settings : profiles3gpp2) {
        inOrder.emplace_back(kel::TechType::TYPE_3GPP2, settings);
    }
    const auto before = snapshot(session);
    const Plan plan = planClasses(before, inOrder);
    if (inv.args.dryRun) {
        return finish(before, nullptr, plan, result);
    }
    session.util.updateModemProfileByApnClass(profiles3gpp, profiles3gpp2);
    const auto after = snapshot(session);
    return finish(before, &after, plan, result);
}

bool runApplyTypes(Session& session, const Invocation& inv, CommandResult* result) {
    std::list<kel::ProfileParams> profiles;
    for (const Entry& entry : inv.args.entries) {
        profiles.push_back(entry.settings);
    }
    const auto before = snapshot(session);
    TypeSpread spread(before, inv.args.allowUpdate);
    spread.spread(profiles);
    Plan plan;
    for (const auto& id : spread.spreadProfiles()) {
        plan.changed.emplace(id, spread.state().at(id));
    }
    if (inv.args.dryRun) {
        return finish(before, nullptr, plan, result);
    }
    session.util.setProfileUpdateAllowed(inv.args.allowUpdate);
    session.util.updateAPNTypeBitmaskOnModemProfile(profiles);
    const auto after = snapshot(session);
    return finish(before, &after, plan, result);
}

}  // namespace kelctl
