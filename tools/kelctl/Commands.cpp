#include "Commands.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <optional>
#include <sstream>

#include "CarrierApply.h"
#include "InputFile.h"
#include "Monitor.h"
#include "NumberText.h"  // the platform's number parsing (platform/vex)
#include "PolicyApply.h"
#include "Truth.h"
#include "ValueNames.h"
#include "kel/Manager.h"

namespace kelctl {
namespace {

// ---------------------------------------------------------------------------------------------
// Profile references: "3gpp:5", "3gpp2:1", "5" (with --tech), or a script's handle name.

struct ProfileRef {
    std::string handleName;  // set for a named handle
    kel::TechType tech = kel::TechType::TYPE_3GPP;
    int id = -1;
};

bool isHandleName(const std::string& text) {
    if (text.empty() || !(std::isalpha(static_cast<unsigned char>(text[0])) || text[0] == '_')) {
        return false;
    }
    return std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
    });
}

std::optional<int> profileIndex(const std::string& text) {
    if (text.empty() || text.size() > 3 || !std::all_of(text.begin(), text.end(), [](char c) {
            return std::isdigit(static_cast<unsigned char>(c));
        })) {
        return std::nullopt;
    }
    int id = 0;
    return vexwire::parseWhole(text, 10, &id) && id <= 255 ? std::optional<int>(id) : std::nullopt;
}

std::optional<ProfileRef> parseProfileRef(const std::string& text,
                                          std::optional<kel::TechType> techOption,
                                          const std::set<std::string>* knownHandles,
                                          std::string* error) {
    ProfileRef ref;
    const std::size_t colon = text.find(':');
    if (colon != std::string::npos) {
        const auto tech = techFromName(text.substr(0, colon));
        const auto id = profileIndex(text.substr(colon + 1));
        if (tech && id) {
            ref.tech = *tech;
            ref.id = *id;
            return ref;
        }
    } else if (const auto id = profileIndex(text)) {
        ref.tech = techOption.value_or(kel::TechType::TYPE_3GPP);
        ref.id = *id;
        return ref;
    } else if (isHandleName(text)) {
        if (knownHandles != nullptr && knownHandles->count(text) != 0) {
            ref.handleName = text;
            return ref;
        }
        *error = knownHandles == nullptr
                     ? "\"" + text + "\" names no profile; handle names exist only in scripts " +
                           "(kelctl run, kelctl shell)"
                     : "no handle is named \"" + text + "\" at this point of the script";
        return std::nullopt;
    }
    *error = "\"" + text + "\" is not a profile: give 3gpp:N, 3gpp2:N, N or a handle name";
    return std::nullopt;
}

// ---------------------------------------------------------------------------------------------
// Reading the modem's profiles through the library.

kel::Manager& manager() {
    return kel::Manager::getInstance();
}

std::string tokenOf(const std::shared_ptr<kel::IProfileKey>& key) {
    // The handle's dump ends in "token=N"; the token is what the library's own dump lists.
    const std::string dump = key->dump();
    const std::size_t at = dump.find("token=");
    return at == std::string::npos ? "" : dump.substr(at + 6);
}

// The library names its own profiles; others carry the modem's name where kelctl knows it.
std::string nameOf(const Session& session, const ProfileRow& row) {
    if (row.params.getIsIAProfile()) {
        return "kel_profile_ia";
    }
    if (row.params.getIsKelProfile()) {
        return "kel_profile";
    }
    return session.link.modemProfileName(row.tech, row.id, row.params.getApnName()).value_or("");
}

std::vector<ProfileRow> rowsFor(Session& session,
                                const std::list<std::shared_ptr<kel::IProfileKey>>& keys) {
    std::vector<ProfileRow> rows;
    for (const auto& key : keys) {
        const auto params = manager().getProfile(key);
        if (!params) {
            continue;
        }
        ProfileRow row;
        row.tech = key->getTechType();
        row.id = key->getProfileId();
        row.token = tokenOf(key);
        row.params = *params;
        row.name = nameOf(session, row);
        rows.push_back(std::move(row));
    }
    std::sort(rows.begin(), rows.end(), [](const ProfileRow& a, const ProfileRow& b) {
        return std::make_pair(a.tech, a.id) < std::make_pair(b.tech, b.id);
    });
    return rows;
}

}  // namespace

std::vector<ProfileRow> snapshot(Session& session) {
    return rowsFor(session, manager().filter(kel::FilterProfileParams()));
}

const ProfileRow* findRow(const std::vector<ProfileRow>& rows, kel::TechType tech, int id) {
    for (const auto& row : rows) {
        if (row.tech == tech && row.id == id) {
            return &row;
        }
    }
    return nullptr;
}

namespace {

std::string quoteIfNeeded(const std::string& text) {
    const std::string shown = escapeText(text);
    return shown.find_first_of(" \t") == std::string::npos && !shown.empty() ? shown
                                                                             : "\"" + shown + "\"";
}

}  // namespace

std::map<std::string, std::string> fieldMap(const ProfileRow& row) {
    std::map<std::string, std::string> fields;
    for (const auto& [key, value] : settingsFields(row.params)) {
        fields[key] = value;
    }
    fields["flags"] = flagsText(row.params);
    return fields;
}

std::string rowSummary(const ProfileRow& row) {
    std::string text = profileName(row.tech, row.id);
    if (!row.name.empty()) {
        text += " name=" + quoteIfNeeded(row.name);
    }
    const std::string settings = settingsLine(row.params);
    if (!settings.empty()) {
        text += " " + settings;
    }
    const std::string flags = flagsText(row.params);
    if (flags != "-") {
        text += " flags=" + flags;
    }
    return text;
}

std::vector<SettingChange> settingChanges(const ProfileRow& before, const ProfileRow& after) {
    const auto old = fieldMap(before);
    const auto now = fieldMap(after);
    std::set<std::string> keys;
    for (const auto& [key, value] : old) {
        keys.insert(key);
    }
    for (const auto& [key, value] : now) {
        keys.insert(key);
    }
    std::vector<SettingChange> changes;
    for (const auto& key : keys) {
        const auto o = old.find(key);
        const auto n = now.find(key);
        SettingChange change{key, o == old.end() ? "-" : o->second,
                             n == now.end() ? "-" : n->second};
        if (change.from != change.to) {
            changes.push_back(std::move(change));
        }
    }
    return changes;
}

std::string shownChange(const std::string& setting, const std::string& value) {
    return value == "-" ? value : shownValue(setting, value);
}

std::string changesText(const std::vector<SettingChange>& changes) {
    std::string text;
    for (const auto& change : changes) {
        text += (text.empty() ? "" : "; ") + change.setting + ": " +
                shownChange(change.setting, change.from) + " -> " +
                shownChange(change.setting, change.to);
    }
    return text;
}

namespace {

// {"types": {"from": "default", "to": "default,mms"}}; an absent value is null.
Json changesJson(const std::vector<SettingChange>& changes) {
    Json json = Json::object();
    auto value = [](const std::string& key, const std::string& text) {
        return text == "-" ? Json(nullptr) : Json(shownChange(key, text));
    };
    for (const auto& change : changes) {
        json[change.setting] = {{"from", value(change.setting, change.from)},
                                {"to", value(change.setting, change.to)}};
    }
    return json;
}

}  // namespace

Json settingChangesJson(const std::vector<SettingChange>& changes) {
    return changesJson(changes);
}

namespace {

// Which profile a find-or-create chose and what happened to it: "found", "updated" or
// "created", then the profile as it is now.
struct Outcome {
    std::string text;
    Json json;
    bool created = false;
};

Outcome outcome(const std::vector<ProfileRow>& before, const std::vector<ProfileRow>& after,
                const std::shared_ptr<kel::IProfileKey>& key) {
    const kel::TechType tech = key->getTechType();
    const int id = key->getProfileId();
    const ProfileRow* old = findRow(before, tech, id);
    const ProfileRow* now = findRow(after, tech, id);
    Outcome result;
    result.created = old == nullptr;
    const std::string verb =
        old == nullptr
            ? "created"
            : (now != nullptr && !settingChanges(*old, *now).empty() ? "updated" : "found");
    result.text = verb + " " + (now != nullptr ? rowSummary(*now) : profileName(tech, id)) + "\n";
    result.json = {{"outcome", verb}, {"profile", profileName(tech, id)}};
    if (now != nullptr) {
        result.json["settings"] = profileJson(*now);
    }
    return result;
}

std::shared_ptr<kel::IProfileKey> resolve(Session& session, const ProfileRef& ref,
                                          std::string* error) {
    if (!ref.handleName.empty()) {
        const auto found = session.handles.find(ref.handleName);
        if (found == session.handles.end() || !found->second.key) {
            *error = "no handle is named " + ref.handleName;
            return nullptr;
        }
        if (found->second.gone->load()) {
            *error = "the profile behind " + ref.handleName + " is gone";
            return nullptr;
        }
        return found->second.key;
    }
    kel::FilterProfileParams filter;
    filter.setFilterByTechType(ref.tech);
    filter.setFilterByProfileId(ref.id);
    const auto keys = manager().filter(filter);
    if (keys.empty()) {
        // The modem listed it, but the library could not read it: it is not known to be absent.
        *error = isUnread(ref.tech, ref.id)
                     ? "the library could not read " + profileName(ref.tech, ref.id)
                     : "the modem has no profile " + profileName(ref.tech, ref.id);
        return nullptr;
    }
    return keys.front();
}

std::optional<ProfileRef> refOperand(const Invocation& inv, std::size_t index,
                                     const Session& session) {
    std::set<std::string> names;
    for (const auto& [name, handle] : session.handles) {
        names.insert(name);
    }
    std::string ignored;
    return parseProfileRef(inv.args.positional.at(index), inv.args.tech(), &names, &ignored);
}

std::shared_ptr<kel::IProfileKey> operandKey(Session& session, const Invocation& inv,
                                             std::string* error) {
    const auto ref = refOperand(inv, 0, session);
    if (!ref) {
        *error = "no profile " + inv.args.positional.at(0);
        return nullptr;
    }
    return resolve(session, *ref, error);
}

kel::FilterProfileParams filterFrom(const Args& args) {
    kel::FilterProfileParams filter(args.settings());
    if (args.tech()) {
        filter.setFilterByTechType(*args.tech());
    }
    if (args.id) {
        filter.setFilterByProfileId(*args.id);
    }
    if (args.kel) {
        filter.setFilterByIsKelProfile(*args.kel);
    }
    if (args.ia) {
        filter.setFilterByIsIAProfile(*args.ia);
    }
    filter.addFilterMatchCriteria(args.criteria);
    return filter;
}

// ---------------------------------------------------------------------------------------------
// The commands.

bool cmdList(Session& session, const Invocation&, CommandResult* result) {
    const auto rows = snapshot(session);
    result->output = profileTable(rows);
    result->json = profilesJson(rows);
    return true;
}

bool cmdDump(Session&, const Invocation&, CommandResult* result) {
    // A call through the worker first, so the dump shows everything the worker has done.
    manager().filter(kel::FilterProfileParams());
    result->json = Json::array();
    for (const std::string& line : manager().dump()) {
        const std::string shown = maskedLibraryText(line);
        result->output += shown + "\n";
        result->json.push_back(shown);
    }
    return true;
}

bool cmdGet(Session& session, const Invocation& inv, CommandResult* result) {
    const auto key = operandKey(session, inv, &result->error);
    if (!key) {
        return false;
    }
    const auto rows = rowsFor(session, {key});
    if (rows.empty()) {
        result->error = "the library cannot read " + inv.args.positional.at(0);
        return false;
    }
    const ProfileRow& row = rows.front();
    result->json = profileJson(row);
    std::ostringstream out;
    out << "profile " << profileName(row.tech, row.id) << "\n";
    if (!row.token.empty()) {
        out << "token " << row.token << "\n";
    }
    if (!row.name.empty()) {
        out << "name " << row.name << "\n";
    }
    for (const auto& [field, value] : settingsFields(row.params)) {
        out << field << " " << shownValue(field, value) << "\n";
    }
    out << "flags " << flagsText(row.params) << "\n";
    result->output = out.str();
    return true;
}

// A note on standard error and a "late" member in the JSON: the answer came after the timeout.
void noteLate(CommandResult* result, const std::string& text) {
    result->notes += "kelctl: note: " + text + "\n";
    result->json["late"] = text;
}

// After an add the modem did not answer in time: the profile it made meanwhile, if its echo
// lands within the wait. Profiles listed in before are not it.
std::shared_ptr<kel::IProfileKey> awaitLateAdd(Session& session, const Args& args,
                                               const std::vector<ProfileRow>& before,
                                               std::chrono::steady_clock::time_point asked,
                                               const kel::Outcome& outcome, LateAnswer* late) {
    kel::FilterProfileParams wanted(args.settings());
    wanted.setFilterByTechType(args.tech().value_or(kel::TechType::TYPE_3GPP));
    std::shared_ptr<kel::IProfileKey> found;
    *late = waitForEcho(session, asked, outcome, [&] {
        for (auto& key : manager().filter(wanted)) {
            if (findRow(before, key->getTechType(), key->getProfileId()) == nullptr) {
                found = std::move(key);
                return true;
            }
        }
        return false;
    });
    return found;
}

bool cmdAdd(Session& session, const Invocation& inv, CommandResult* result) {
    const Args& args = inv.args;
    const kel::AddProfileParams params(args.settings(), args.persistent,
                                       args.tech().value_or(kel::TechType::TYPE_3GPP),
                                       args.ia.value_or(false));
    const auto before = snapshot(session);
    const auto asked = std::chrono::steady_clock::now();
    auto key = manager().addProfile(params);
    const kel::Outcome outcome = kel::Manager::lastOutcome();
    LateAnswer late;
    if (!key && mayHaveBeenDone(outcome)) {
        key = awaitLateAdd(session, args, before, asked, outcome, &late);
        if (!key) {
            result->error = lateText(late, "", "add the profile");
            return false;
        }
    }
    if (!key) {
        result->error = "the modem did not add the profile: " + outcomeText(outcome);
        return false;
    }
    const auto rows = rowsFor(session, {key});
    const std::string profile = profileName(key->getTechType(), key->getProfileId());
    result->output = "added " + (rows.empty() ? profile : rowSummary(rows.front())) + "\n";
    result->json = {{"added", profile}};
    if (!rows.empty()) {
        result->json["settings"] = profileJson(rows.front());
    }
    if (late.landed) {
        noteLate(result, lateText(late, "the modem holds " + profile, ""));
        // The library learnt of it from the modem, not from its own answer: it is not the
        // library's to delete.
        if (!args.persistent) {
            result->notes += "kelctl: note: " + profile +
                             " came by a late answer, so the library does not delete it when "
                             "kelctl exits (kelctl delete " +
                             profile + " does)\n";
        }
    } else if (!args.persistent) {
        result->transientProfile = profile;
    }
    result->handle = std::move(key);
    return true;
}

bool cmdModify(Session& session, const Invocation& inv, CommandResult* result) {
    const auto key = operandKey(session, inv, &result->error);
    if (!key) {
        return false;
    }
    const std::string profile = profileName(key->getTechType(), key->getProfileId());
    const kel::FilterProfileParams wanted(inv.args.settings());
    const auto before = rowsFor(session, {key});
    // "unchanged" is said only of a profile that held the values before the command.
    const bool heldBefore = !before.empty() && manager().match(wanted, key);
    const auto asked = std::chrono::steady_clock::now();
    if (!manager().modifyProfile(kel::ModifyProfileParams(inv.args.settings()), key)) {
        result->error = "the library refused to modify " + profile + ": " +
                        outcomeText(kel::Manager::lastOutcome());
        return false;
    }
    const kel::Outcome outcome = kel::Manager::lastOutcome();
    if (heldBefore && outcome.ok()) {
        result->json = {{"modified", profile}, {"fields", Json::object()}};
        result->output = "unchanged " + profile + ": it already has these settings\n";
        return true;
    }
    LateAnswer late;
    // Found again by its place: a link that dropped and came back expired the handle.
    kel::FilterProfileParams same;
    same.setFilterByTechType(key->getTechType());
    same.setFilterByProfileId(key->getProfileId());
    auto current = [&same] {
        auto keys = manager().filter(same);
        return keys.empty() ? nullptr : keys.front();
    };
    if (mayHaveBeenDone(outcome)) {
        late = waitForEcho(session, asked, outcome, [&] {
            const auto now = current();
            return now && manager().match(wanted, now);
        });
        if (!late.landed) {
            result->error = lateText(late, "", "apply the change to " + profile) +
                            (isUnread(key->getTechType(), key->getProfileId())
                                 ? " (" + profile + " could not be read back)"
                                 : "");
            return false;
        }
    } else if (!outcome.ok()) {
        result->error =
            "the modem did not take the change to " + profile + ": " + outcomeText(outcome);
        return false;
    }
    const auto now = late.linkDropped ? current() : key;
    const auto after = now ? rowsFor(session, {now}) : std::vector<ProfileRow>();
    const auto changes = before.empty() || after.empty()
                             ? std::vector<SettingChange>()
                             : settingChanges(before.front(), after.front());
    result->json = {{"modified", profile}, {"fields", changesJson(changes)}};
    if (late.landed) {
        noteLate(result, lateText(late, "the modem holds the change", ""));
    }
    if (!now || !manager().match(wanted, now)) {
        result->error = "the modem did not take the change to " + profile;
        return false;
    }
    result->output =
        "modified " + profile + (changes.empty() ? "" : ": " + changesText(changes)) + "\n";
    return true;
}

bool cmdDelete(Session& session, const Invocation& inv, CommandResult* result) {
    const auto key = operandKey(session, inv, &result->error);
    if (!key) {
        return false;
    }
    const std::string profile = profileName(key->getTechType(), key->getProfileId());
    const auto asked = std::chrono::steady_clock::now();
    const bool deleted = manager().deleteProfile(key);
    const kel::Outcome outcome = kel::Manager::lastOutcome();
    LateAnswer late;
    if (!deleted && mayHaveBeenDone(outcome)) {
        kel::FilterProfileParams same;
        same.setFilterByTechType(key->getTechType());
        same.setFilterByProfileId(key->getProfileId());
        late = waitForEcho(session, asked, outcome, [&] {
            const auto status = picture();
            return status && status->isComplete() && manager().filter(same).empty();
        });
        if (!late.landed) {
            result->error = lateText(late, "", "delete " + profile);
            return false;
        }
    } else if (!deleted) {
        result->error = "the modem did not delete " + profile + ": " + outcomeText(outcome);
        return false;
    }
    result->output = "deleted " + profile + "\n";
    result->json = {{"deleted", profile}};
    if (late.landed) {
        noteLate(result, lateText(late, profile + " is gone from the modem", ""));
    }
    return true;
}

bool cmdFilter(Session& session, const Invocation& inv, CommandResult* result) {
    const auto keys = manager().filter(filterFrom(inv.args));
    const auto rows = rowsFor(session, keys);
    result->output = profileTable(rows);
    result->json = profilesJson(rows);
    if (!keys.empty()) {
        result->handle = keys.front();
    }
    return true;
}

bool cmdMatch(Session& session, const Invocation& inv, CommandResult* result) {
    const auto key = operandKey(session, inv, &result->error);
    if (!key) {
        return false;
    }
    const bool matched = manager().match(filterFrom(inv.args), key);
    result->output = matched ? "match\n" : "no match\n";
    result->json = {{"match", matched}};
    return true;
}

bool cmdRefresh(Session&, const Invocation& inv, CommandResult* result) {
    const auto step = inv.args.refreshStep.value_or(kel::PDCRefreshStatus::Completed);
    manager().refresh(step);
    switch (step) {
        case kel::PDCRefreshStatus::Started:
            result->output =
                "refresh started: the library refuses profile operations until "
                "refresh --completed\n";
            result->json = {{"refresh", "started"}};
            break;
        case kel::PDCRefreshStatus::Completed: {
            const std::size_t count = manager().filter(kel::FilterProfileParams()).size();
            result->output = "refreshed: " + std::to_string(count) + " profiles\n";
            result->json = {{"refresh", "completed"}, {"profiles", count}};
            // The count is only what could be read.
            if (const auto status = picture(); status && !status->isComplete()) {
                result->error = "the library could not read " + holesText(*status);
                result->json["incomplete"] = holesJson(*status);
                result->jsonOnFailure = true;
                return false;
            }
            break;
        }
    }
    return true;
}

using FindOrCreate = std::shared_ptr<kel::IProfileKey> (*)(Session&, const Args&);

// Runs one of Util's find-or-create searches and says which profile it chose.
bool chooseProfile(Session& session, const Invocation& inv, CommandResult* result,
                   FindOrCreate search, bool createsTransient) {
    session.util.setProfileUpdateAllowed(inv.args.allowUpdate);
    const auto before = snapshot(session);
    const auto asked = std::chrono::steady_clock::now();
    auto key = search(session, inv.args);
    // The library's latest call for the search: the add, when one was made.
    const kel::Outcome added = kel::Manager::lastOutcome();
    LateAnswer late;
    if (!key && mayHaveBeenDone(added)) {
        key = awaitLateAdd(session, inv.args, before, asked, added, &late);
        if (!key) {
            result->error = "no profile fits, and " + lateText(late, "", "add one");
            return false;
        }
    }
    if (!key) {
        result->error = "no profile fits, and the modem did not add one" +
                        (added.ok() ? "" : ": " + outcomeText(added));
        return false;
    }
    const Outcome chosen = outcome(before, snapshot(session), key);
    result->output = chosen.text;
    result->json = chosen.json;
    if (late.landed) {
        noteLate(result,
                 lateText(late,
                          "the modem holds " + profileName(key->getTechType(), key->getProfileId()),
                          ""));
    } else if (chosen.created && createsTransient) {
        result->transientProfile = profileName(key->getTechType(), key->getProfileId());
    }
    result->handle = std::move(key);
    return true;
}

bool cmdDataCall(Session& session, const Invocation& inv, CommandResult* result) {
    return chooseProfile(
        session, inv, result,
        [](Session& s, const Args& args) {
            return s.util.findOrCreateProfileForSetupDataCall(
                args.tech().value_or(kel::TechType::TYPE_3GPP), args.settings());
        },
        true);
}

bool cmdEmergency(Session& session, const Invocation& inv, CommandResult* result) {
    return chooseProfile(
        session, inv, result,
        [](Session& s, const Args& args) {
            return s.util.findOrCreateProfileForEmergencyDataCall(args.settings());
        },
        false);
}

bool cmdAttach(Session& session, const Invocation& inv, CommandResult* result) {
    return chooseProfile(
        session, inv, result,
        [](Session& s, const Args& args) {
            return s.util.findOrCreateProfileForLteAttach(args.settings());
        },
        false);
}

bool cmdMatchAttachId(Session& session, const Invocation& inv, CommandResult* result) {
    const auto ref = refOperand(inv, 0, session);
    int id = ref ? ref->id : -1;
    if (ref && !ref->handleName.empty()) {
        const auto key = resolve(session, *ref, &result->error);
        if (!key) {
            return false;
        }
        id = key->getProfileId();
    }
    session.util.setProfileUpdateAllowed(inv.args.allowUpdate);
    const bool matched = session.util.matchLteAttachProfileId(id, inv.args.settings());
    result->output = matched ? "match\n" : "no match\n";
    result->json = {{"match", matched}};
    return true;
}

bool cmdApplyClasses(Session& session, const Invocation& inv, CommandResult* result) {
    return runApplyClasses(session, inv, result);
}

bool cmdApplyTypes(Session& session, const Invocation& inv, CommandResult* result) {
    return runApplyTypes(session, inv, result);
}

bool cmdCarrier(Session& session, const Invocation& inv, CommandResult* result) {
    CarrierReport report;
    const bool applied = runCarrier(session, inv, &report);
    result->output = carrierText(report);
    result->json = carrierJson(report);
    // Its not_applied list says what failed: the document stands with the error beside it.
    result->jsonOnFailure = true;
    for (const auto& warning : report.warnings) {
        result->notes += "kelctl: carrier: " + escapeText(warning) + "\n";
    }
    if (!applied) {
        result->error = std::to_string(report.notApplied.size()) +
                        (report.notApplied.size() == 1 ? " setting was" : " settings were") +
                        " not applied (the \"not applied\" lines name them)";
    }
    return applied;
}

bool cmdDrop(Session& session, const Invocation& inv, CommandResult* result) {
    result->json = Json::array();
    for (const std::string& name : inv.args.positional) {
        const auto found = session.handles.find(name);
        if (found == session.handles.end()) {
            result->error = "no handle is named " + name;
            return false;
        }
        const kel::TechType tech = found->second.key->getTechType();
        const int id = found->second.key->getProfileId();
        const bool wasGone = found->second.gone->load();
        session.handles.erase(found);
        kel::FilterProfileParams filter;
        filter.setFilterByTechType(tech);
        filter.setFilterByProfileId(id);
        const bool stays = wasGone || !manager().filter(filter).empty();
        result->output += "dropped " + name +
                          (stays ? "" : ": the library deleted " + profileName(tech, id)) + "\n";
        result->json.push_back(
            {{"dropped", name}, {"profile", profileName(tech, id)}, {"deleted", !stays}});
    }
    return true;
}

bool cmdHandles(Session& session, const Invocation&, CommandResult* result) {
    result->json = Json::array();
    for (const auto& [name, handle] : session.handles) {
        const std::string profile =
            profileName(handle.key->getTechType(), handle.key->getProfileId());
        const bool gone = handle.gone->load();
        result->output += name + " " + profile + (gone ? " (gone)" : "") + "\n";
        result->json.push_back({{"name", name}, {"profile", profile}, {"gone", gone}});
    }
    return true;
}

const unsigned int kProfileFilter = kSettings | kTech | kFilter | kKelFlag | kIaFlag;

}  // namespace

Session::~Session() {
    // Released in name order, while the library and the modem are both still up.
    handles.clear();
}

const std::vector<OptionSpec>& refreshOptions() {
    static const std::vector<OptionSpec> table = {
        {"--started", nullptr, kRefresh, "only report that a refresh started (closes the library)",
         [](const std::string&, Args& a, GlobalOptions*, std::string*) {
             a.refreshStep = kel::PDCRefreshStatus::Started;
             return true;
         }},
        {"--completed", nullptr, kRefresh, "only report that it completed (re-reads the modem)",
         [](const std::string&, Args& a, GlobalOptions*, std::string*) {
             a.refreshStep = kel::PDCRefreshStatus::Completed;
             return true;
         }},
    };
    return table;
}

const std::vector<CommandSpec>& commands() {
    static const std::vector<CommandSpec> table = {
        {"list", "", "the modem's profiles as a table (or JSON)", 0, 0, 0, 0, cmdList},
        {"dump", "", "the library's own dump: its cache and its log history", 0, 0, 0, 0, cmdDump},
        {"get", "PROFILE", "one profile's settings", kTech, 1, 1, 0, cmdGet},
        {"add", "", "add a profile", kSettings | kTech | kPersistent | kIaFlag, 0, 0,
         kMakesHandle | kChangesModem, cmdAdd},
        {"modify", "PROFILE", "change a profile's settings", kSettings | kTech, 1, 1, kChangesModem,
         cmdModify},
        {"delete", "PROFILE", "delete a profile from the modem", kTech, 1, 1, kChangesModem,
         cmdDelete},
        {"filter", "", "the profiles that fit the given settings", kProfileFilter, 0, 0,
         kMakesHandle, cmdFilter},
        {"match", "PROFILE", "whether a profile fits the given settings", kProfileFilter, 1, 1, 0,
         cmdMatch},
        {"refresh", "", "re-read the modem's profiles (every handle expires)", kRefresh, 0, 0, 0,
         cmdRefresh},
        {"data-call", "", "find or create the profile for a data call",
         kSettings | kTech | kAllowUpdate, 0, 0, kMakesHandle | kChangesModem, cmdDataCall},
        {"emergency", "", "find or create the profile for an emergency call", kSettings, 0, 0,
         kMakesHandle | kChangesModem, cmdEmergency},
        {"attach", "", "find or create the initial-attach profile", kSettings | kAllowUpdate, 0, 0,
         kMakesHandle | kChangesModem, cmdAttach},
        {"match-attach-id", "ID", "whether 3GPP profile ID may serve initial attach",
         kSettings | kAllowUpdate, 1, 1, 0, cmdMatchAttachId},
        {"apply-classes", "", "make sure a profile exists for each APN class (--class)",
         kSettings | kTech | kEntries | kDryRun, 0, 0, kChangesModem, cmdApplyClasses},
        {"apply-types", "", "spread each APN's types over its profiles (--apn, --types)",
         kSettings | kAllowUpdate | kEntries | kDryRun, 0, 0, kChangesModem, cmdApplyTypes},
        {"carrier", "FILE", "apply one carrier's entries of a carrier APN database",
         kCarrier | kAllowUpdate | kDryRun, 1, 1, kChangesModem, cmdCarrier},
        {"drop", "NAME...", "release named handles", 0, 1, 64, kScriptOnly, cmdDrop},
        {"handles", "", "the named handles", 0, 0, 0, kScriptOnly, cmdHandles},
        {"status", "", "the modem link: connected, bound, registered, cache loaded", 0, 0, 0, 0,
         cmdOwnRun},
        {"monitor", "", "follow the modem's profile and link changes as they happen", 0, 0, 0, 0,
         cmdOwnRun},
    };
    return table;
}

const CommandSpec* findCommand(const std::string& name) {
    for (const auto& definition : commands()) {
        if (name == definition.name) {
            return &definition;
        }
    }
    return nullptr;
}

namespace {

std::string closestCommand(const std::string& typed) {
    // Edit distance (insertions, deletions, substitutions, and swaps of neighbours), row by row.
    auto distance = [](const std::string& a, const std::string& b) {
        std::vector<std::vector<std::size_t>> d(a.size() + 1,
                                                std::vector<std::size_t>(b.size() + 1, 0));
        for (std::size_t i = 0; i <= a.size(); ++i) {
            d[i][0] = i;
        }
        for (std::size_t j = 0; j <= b.size(); ++j) {
            d[0][j] = j;
        }
        for (std::size_t i = 1; i <= a.size(); ++i) {
            for (std::size_t j = 1; j <= b.size(); ++j) {
                const std::size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
                d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
                if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                    d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
                }
            }
        }
        return d[a.size()][b.size()];
    };
    if (typed.size() > 64) {
        return "";
    }
    std::string best;
    std::size_t bestDistance = 0;
    std::vector<std::string> names = {"run", "shell", "help"};
    for (const auto& definition : commands()) {
        names.emplace_back(definition.name);
    }
    for (const auto& name : names) {
        const std::size_t d = distance(lower(typed), name);
        if (best.empty() || d < bestDistance) {
            best = name;
            bestDistance = d;
        }
    }
    // Close enough to be a slip: at most a third of the name, and never the whole word.
    return bestDistance <= std::max<std::size_t>(1, best.size() / 3) && bestDistance < typed.size()
               ? best
               : "";
}

}  // namespace

std::string unknownCommand(const std::string& typed, const std::string& hint) {
    const std::string close = closestCommand(typed);
    return "unknown command \"" + typed + "\" (" +
           (close.empty() ? "" : "did you mean \"" + close + "\"? ") + hint + ")";
}

bool fitToModemFields(Args* args, bool truncate, std::vector<std::string>* notes,
                      std::string* error) {
    struct Field {
        const char* option;
        std::size_t limit;
        bool (kel::ProfileParams::*has)() const;
        std::string (kel::ProfileParams::*get)() const;
        void (kel::ProfileParams::*set)(std::string);
    };
    static const Field kFields[] = {
        {"--apn", kApnLimit, &kel::ProfileParams::hasApnName, &kel::ProfileParams::getApnName,
         &kel::ProfileParams::setApnName},
        {"--user", kUserNameLimit, &kel::ProfileParams::hasUserName,
         &kel::ProfileParams::getUserName, &kel::ProfileParams::setUserName},
        {"--password", kPasswordLimit, &kel::ProfileParams::hasPassword,
         &kel::ProfileParams::getPassword, &kel::ProfileParams::setPassword},
    };
    for (Entry& entry : args->entries) {
        kel::ProfileParams& params = entry.settings;
        for (const Field& field : kFields) {
            if (!(params.*field.has)()) {
                continue;
            }
            const std::string value = (params.*field.get)();
            if (value.size() <= field.limit) {
                continue;
            }
            const std::string limit = std::to_string(field.limit);
            if (!truncate) {
                *error = std::string(field.option) + ": " + std::to_string(value.size()) +
                         " bytes, but the modem holds at most " + limit +
                         " (--truncate cuts it to fit)";
                return false;
            }
            // The cut never falls inside a UTF-8 character: it backs off to the character's
            // first byte.
            std::size_t cut = field.limit;
            while (cut > 0 && (static_cast<unsigned char>(value[cut]) & 0xC0u) == 0x80u) {
                --cut;
            }
            (params.*field.set)(value.substr(0, cut));
            notes->push_back(
                std::string(field.option) + " cut to its first " + std::to_string(cut) + " bytes" +
                (cut < field.limit ? " (a character would have been split at " + limit + ")" : ""));
        }
    }
    return true;
}

namespace {

bool hasSettings(const kel::ProfileParams& params) {
    return !settingsFields(params).empty();
}

bool checkEntries(const CommandSpec& definition, const Args& args, std::string* error) {
    const std::string name = definition.name;
    for (std::size_t i = 0; i < args.entries.size(); ++i) {
        const kel::ProfileParams& p = args.entries[i].settings;
        const std::string which =
            args.entries.size() > 1 ? "entry " + std::to_string(i + 1) + " needs " : "needs ";
        if (name == "apply-classes" && !p.hasApnClass()) {
            *error = which + "--class";
            return false;
        }
        if (name == "apply-types" && (!p.hasApnName() || !p.hasApnTypesMask())) {
            *error = which + "--apn and --types";
            return false;
        }
    }
    if (name == "modify" && !hasSettings(args.settings())) {
        *error = "nothing to change: give at least one setting (--apn, --types, ...)";
        return false;
    }
    return true;
}

bool checkOperands(const CommandSpec& definition, const Args& args,
                   const std::set<std::string>* knownHandles, std::string* error) {
    const auto& operands = args.positional;
    if (operands.size() < definition.minOperands) {
        *error = std::string("needs ") + definition.operands;
        return false;
    }
    if (operands.size() > definition.maxOperands) {
        *error = definition.maxOperands == 0 ? "takes no operand (got \"" + operands.front() + "\")"
                                             : "takes one " + std::string(definition.operands) +
                                                   " (got \"" + operands.back() + "\" too)";
        return false;
    }
    const std::string kind = definition.operands;
    if (kind == "PROFILE" || kind == "ID") {
        std::string why;
        const auto ref = parseProfileRef(operands.front(), args.tech(), knownHandles, &why);
        if (!ref) {
            *error = why;
            return false;
        }
        if (kind == "ID" && ref->handleName.empty() && ref->tech != kel::TechType::TYPE_3GPP) {
            *error = "the attach profile is a 3GPP profile; " + operands.front() + " is not";
            return false;
        }
    }
    if (kind == "NAME...") {
        for (const auto& name : operands) {
            if (knownHandles == nullptr || knownHandles->count(name) == 0) {
                *error = "no handle is named \"" + name + "\" at this point of the script";
                return false;
            }
        }
    }
    return true;
}

bool loadCarrierPlan(Invocation* inv, const GlobalOptions* globals, std::string* error) {
    const Args& args = inv->args;
    if (args.mcc.empty() || args.mnc.empty()) {
        *error = "needs --mcc and --mnc";
        return false;
    }
    if (args.mvnoType.empty() != args.mvnoMatch.empty()) {
        *error = "--mvno-type and --mvno-match go together";
        return false;
    }
    auto selection = std::make_shared<CarrierSelection>();
    CarrierSelector selector{args.mcc, args.mnc, args.mvnoType, args.mvnoMatch};
    if (globals != nullptr && globals->timeoutGiven) {
        selector.deadline = globals->started + std::chrono::milliseconds(globals->timeoutMs);
    }
    if (!loadCarrier(args.positional.front(), selector, selection.get(), error)) {
        inv->ranOut = selection->ranOut;
        return false;
    }
    inv->carrier = std::move(selection);
    return true;
}

}  // namespace

bool prepareInvocation(const CommandSpec& definition, const std::vector<std::string>& words,
                       GlobalOptions* globals, const std::set<std::string>* knownHandles,
                       Invocation* invocation, std::string* error) {
    invocation->definition = &definition;
    if (!parseArgs(definition.groups, words, &invocation->args, globals, error) ||
        !checkOperands(definition, invocation->args, knownHandles, error) ||
        !checkEntries(definition, invocation->args, error) ||
        !fitToModemFields(&invocation->args, invocation->args.truncate, &invocation->notes,
                          error)) {
        return false;
    }
    if (std::string(definition.name) == "carrier") {
        return loadCarrierPlan(invocation, globals, error);
    }
    return true;
}

std::string commandHelp(const CommandSpec& definition) {
    std::string usage = std::string("Usage: kelctl ") + definition.name + " [options]";
    if (*definition.operands != '\0') {
        usage += std::string(" ") + definition.operands;
    }
    std::string summary = definition.summary;
    summary[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(summary[0])));
    std::string text = usage + "\n\n" + summary + ".\n";
    const std::string operands = definition.operands;
    if (operands == "PROFILE") {
        text += "\nPROFILE is 3gpp:N, 3gpp2:N, N (with --tech), or in a script a handle name.\n";
    } else if (operands == "ID") {
        text += "\nID is a 3GPP profile index N (or 3gpp:N), or in a script a handle name.\n";
    }
    if ((definition.groups & kEntries) != 0) {
        text +=
            "\nSeveral entries go on one command line, each after --and; --tech applies to its\n"
            "own entry.\n";
    }
    if (definition.has(kMakesHandle)) {
        text +=
            "\nA profile the library makes without --persistent goes when the last handle to it\n"
            "goes: when kelctl exits, or in a script when its named handle is dropped.\n";
    }
    if (definition.has(kScriptOnly)) {
        text += "\nOnly in scripts (kelctl run, kelctl shell).\n";
    }
    text += "\nOptions:\n" + optionsHelp(definition.groups);
    if (!definition.has(kScriptOnly)) {
        text += "\nOptions of the whole run:\n" + globalOptionsHelp();
    }
    return text;
}

std::string generalHelp() {
    std::string text =
        "Usage: kelctl [options] COMMAND [options] [operands]\n"
        "       kelctl run FILE      run a script of commands with named handles\n"
        "       kelctl shell         read such commands from standard input\n\n"
        "Shows and changes a modem's packet-data profiles through libkelr. Without --modem it\n"
        "works on an embedded simulated modem seeded from the repository's seed file.\n\n"
        "Commands:\n";
    for (const auto& definition : commands()) {
        std::string head = std::string("  ") + definition.name;
        head.resize(20, ' ');
        text += head + definition.summary + (definition.has(kScriptOnly) ? " (scripts only)" : "") +
                "\n";
    }
    text += "\nOptions of the whole run:\n" + globalOptionsHelp() +
            "\nkelctl COMMAND --help shows a command's options; -- ends the options.\n"
            "Exit status: 0 done; 1 an operation failed or was not applied, no modem answered,\n"
            "or --timeout ran out; 2 a wrong command line or input file (nothing was sent).\n";
    return text;
}

std::string versionText(bool json) {
    if (json) {
        return jsonText({{"kelctl", KELCTL_VERSION}, {"libkelr", KELCTL_VERSION}});
    }
    return "kelctl " KELCTL_VERSION " (libkelr " KELCTL_VERSION ")\n";
}

}  // namespace kelctl
