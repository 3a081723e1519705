// kelctl's commands: what each takes, how it is checked before any modem is touched, and what it
// does through the library's public Manager and Util.
#ifndef KELCTL_COMMANDS_H
#define KELCTL_COMMANDS_H

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Carrier.h"
#include "ModemLink.h"
#include "Options.h"
#include "Output.h"
#include "kel/IProfileKey.h"
#include "kel/Util.h"

namespace kelctl {

// A handle a script keeps under a name. The library deletes a non-persistent profile it made
// when the last handle goes, so a named handle keeps such a profile alive until it is dropped.
struct NamedHandle {
    std::shared_ptr<kel::IProfileKey> key;
    // Set by the expiration listener, on the library's worker thread, when the profile is gone.
    std::shared_ptr<std::atomic<bool>> gone;
    bool goneReported = false;
};

// One kelctl run against one modem. Main thread only; the expiration listeners only set the
// `gone` flags of named handles.
class Session {
  public:
    Session(ModemLink& modemLink, const Channel& out) : link(modemLink), channel(out) {}
    ~Session();  // drops the named handles while the modem is still there

    ModemLink& link;
    const Channel& channel;
    kel::Util util;
    std::map<std::string, NamedHandle> handles;
    // A script run with --json: each line's result goes into lines, printed as one document.
    bool json = false;
    Json lines = Json::array();
    // How long a command may wait for a late answer: until runEnd (--timeout) less a margin,
    // otherwise timeoutMs from when the wait starts.
    int timeoutMs = 5000;
    std::optional<std::chrono::steady_clock::time_point> runEnd;
};

// One checked command line: the command, its options, and what was read ahead of time.
struct CommandSpec;
struct Invocation {
    const CommandSpec* definition = nullptr;
    Args args;
    std::shared_ptr<const CarrierSelection> carrier;  // carrier: the file, read and checked
    std::vector<std::string> notes;                   // what checking changed (values cut to fit)
    bool ranOut = false;  // --timeout passed while the input was read: not a usage error
};

// What a command produced.
struct CommandResult {
    std::string output;  // for standard output
    Json json;           // the same as one JSON document, printed instead with --json
    std::string error;   // set on failure
    std::string notes;   // for standard error: warnings and notes, one line each
    // The json document stands also when the command fails (it says what failed); otherwise a
    // failure prints {"error": ...} instead.
    bool jsonOnFailure = false;
    // A profile the library made without persistence: it goes with the last handle to it.
    std::string transientProfile;
    // The profile handle a script line may name (add, data-call, emergency, attach, filter).
    std::shared_ptr<kel::IProfileKey> handle;
};

enum CommandTrait : unsigned int {
    kMakesHandle = 1u << 0,   // gives a profile handle a script line may name
    kScriptOnly = 1u << 1,    // works on named handles
    kChangesModem = 1u << 2,  // may change the modem's profiles
};

struct CommandSpec {
    const char* name;
    const char* operands;  // "PROFILE", "FILE", ""
    const char* summary;
    unsigned int groups;
    std::size_t minOperands;
    std::size_t maxOperands;
    unsigned int traits;
    bool (*run)(Session& session, const Invocation& invocation, CommandResult* result);

    bool has(CommandTrait trait) const { return (traits & trait) != 0; }
};

const CommandSpec* findCommand(const std::string& name);
const std::vector<CommandSpec>& commands();

// Parses and checks a command's words (after its name) completely: operands, option values,
// profile references (handle names must be among knownHandles; null: none may be used) and, for
// carrier, the file. False with a one-line reason.
bool prepareInvocation(const CommandSpec& definition, const std::vector<std::string>& words,
                       GlobalOptions* globals, const std::set<std::string>* knownHandles,
                       Invocation* invocation, std::string* error);

// Values longer than their modem field: refused with the field's limit, or with truncate cut to
// it (each cut noted in *notes). False with a one-line reason.
bool fitToModemFields(Args* args, bool truncate, std::vector<std::string>* notes,
                      std::string* error);

// "unknown command "lst" (did you mean "list"? HINT)": the suggestion is the command name
// closest to the typed one, when one is close enough to have been meant.
std::string unknownCommand(const std::string& typed, const std::string& hint);

// One setting that differs between two states of a profile; "-" stands for absent.
struct SettingChange {
    std::string setting;  // as settingsFields names it, or "flags"
    std::string from;     // secrets in clear, for comparing; print through shownChange
    std::string to;
};

// The modem's profiles as the library holds them now, ordered by technology and index.
std::vector<ProfileRow> snapshot(Session& session);
const ProfileRow* findRow(const std::vector<ProfileRow>& rows, kel::TechType tech, int id);
// "3gpp:1 name=internet apn=internet ... flags=kel".
std::string rowSummary(const ProfileRow& row);
// The present settings by name, with "flags".
std::map<std::string, std::string> fieldMap(const ProfileRow& row);
std::vector<SettingChange> settingChanges(const ProfileRow& before, const ProfileRow& after);
// A changed value as kelctl prints it: "-" stays, secrets are masked.
std::string shownChange(const std::string& setting, const std::string& value);
// {"types": {"from": "default", "to": "default,mms"}}: an absent value is null, secrets masked.
Json settingChangesJson(const std::vector<SettingChange>& changes);
// "types: default -> default,mms; ip: v4 -> v4v6", secrets masked.
std::string changesText(const std::vector<SettingChange>& changes);
// {"types": {"from": "default", "to": "default,mms"}}: null for absent, secrets masked.
Json settingChangesJson(const std::vector<SettingChange>& changes);

// "Usage: kelctl add [options]" with the summary and the command's options.
std::string commandHelp(const CommandSpec& definition);
std::string generalHelp();
// kelctl --version: the version of kelctl and of the library it was built with.
std::string versionText(bool json);

}  // namespace kelctl

#endif  // KELCTL_COMMANDS_H
