#include "Script.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iostream>
#include <set>
#include <sstream>

#include "InputFile.h"
#include "ValueNames.h"

namespace kelctl {
namespace {

// One line of a script, checked.
struct ScriptLine {
    int number = 0;
    std::string text;
    std::string assignTo;  // the handle name, for "NAME = command ..."
    std::string help;      // set for "help" and "COMMAND --help"
    Invocation invocation;
};

bool isHelpWord(const std::string& word) {
    return word == "--help" || word == "-h";
}

// The modem is found through --modem, else VEX_SERVICE_DIR, else it is the embedded one.
bool settleGlobals(GlobalOptions* globals, std::string* error) {
    const char* serviceDir = std::getenv("VEX_SERVICE_DIR");
    if (globals->modemDir.empty() && !globals->embedded && serviceDir != nullptr &&
        *serviceDir != '\0') {
        globals->modemDir = serviceDir;
    }
    if (!globals->modemDir.empty() && (!globals->seedFile.empty() || !globals->stateFile.empty())) {
        *error = "--seed and --state are for the embedded modem, not a running one";
        return false;
    }
    // Checked before any modem starts; the state file may not exist yet.
    if (!globals->seedFile.empty() && !checkInputFile(globals->seedFile, false, error)) {
        *error = "--seed " + *error;
        return false;
    }
    if (!globals->stateFile.empty() && !checkInputFile(globals->stateFile, true, error)) {
        *error = "--state " + *error;
        return false;
    }
    return true;
}

// Makes the channel kelctl's own and connects; the library is silent unless --verbose.
bool openLink(const GlobalOptions& globals, Channel& channel, ModemLink* link) {
    std::string error;
    if (!globals.verbose) {
        // Read by the log stand-in on its first message, so set before the library is used.
        ::setenv("KELR_LOG_QUIET", "1", 1);
    }
    if (!channel.claimStandardOutput(globals.verbose, &error) || !link->open(globals, &error)) {
        channel.error("kelctl: " + error + "\n");
        return false;
    }
    return true;
}

void note(const Channel& channel, const std::string& where, const std::string& text) {
    channel.error(where + "note: " + text + "\n");
}

// Tells once about each named handle whose profile went away.
void reportGoneHandles(Session& session, const std::string& where) {
    for (auto& [name, handle] : session.handles) {
        if (handle.gone->load() && !handle.goneReported) {
            handle.goneReported = true;
            session.channel.error(
                where + "note: the profile behind " + name + " (" +
                profileName(handle.key->getTechType(), handle.key->getProfileId()) + ") is gone\n");
        }
    }
}

void keepHandle(Session& session, const std::string& name, std::shared_ptr<kel::IProfileKey> key,
                const std::string& where) {
    if (const auto previous = session.handles.find(name); previous != session.handles.end()) {
        note(session.channel, where,
             "the handle " + name + " held before (" +
                 profileName(previous->second.key->getTechType(),
                             previous->second.key->getProfileId()) +
                 ") is released");
    }
    NamedHandle handle;
    handle.gone = std::make_shared<std::atomic<bool>>(false);
    // Runs on the library's worker thread: it only records.
    key->registerExpirationListener([gone = handle.gone] { gone->store(true); });
    handle.key = std::move(key);
    session.handles[name] = std::move(handle);
}

int executeLine(Session& session, const ScriptLine& line, const std::string& where) {
    const Channel& channel = session.channel;
    if (!line.help.empty()) {
        channel.print(line.help);
        return kExitOk;
    }
    const CommandSpec& definition = *line.invocation.definition;
    CommandResult result;
    const bool ok = definition.run(session, line.invocation, &result);
    channel.print(result.output);
    channel.error(result.notes);
    if (!ok) {
        channel.error(where + definition.name + ": " + result.error + "\n");
        reportGoneHandles(session, where);
        return kExitFailed;
    }
    if (!line.assignTo.empty()) {
        if (!result.handle) {
            channel.error(where + definition.name + ": found no profile to name " + line.assignTo +
                          "\n");
            return kExitFailed;
        }
        channel.print(line.assignTo + " = " +
                      profileName(result.handle->getTechType(), result.handle->getProfileId()) +
                      "\n");
        keepHandle(session, line.assignTo, std::move(result.handle), where);
    } else if (!result.transientProfile.empty()) {
        note(channel, where,
             result.transientProfile +
                 " is not persistent and no name holds its handle, so the library deletes it "
                 "again now (NAME = " +
                 definition.name + " ... keeps it)");
    }
    result.handle.reset();
    reportGoneHandles(session, where);
    return kExitOk;
}

// Parses one script line. *blank is set for a line with nothing to run. known holds the handle
// names defined at this point; an assignment adds one, drop removes.
bool parseLine(const std::string& text, std::set<std::string>* known, ScriptLine* line, bool* blank,
               std::string* error) {
    std::vector<std::string> words;
    if (!splitLine(text, &words, error)) {
        return false;
    }
    *blank = words.empty();
    if (*blank) {
        return true;
    }
    line->text = text;
    if (words.size() >= 2 && words[1] == "=") {
        line->assignTo = words[0];
        words.erase(words.begin(), words.begin() + 2);
        if (words.empty()) {
            *error = "nothing after \"" + line->assignTo + " =\"";
            return false;
        }
    }
    if (words[0] == "help") {
        const CommandSpec* definition = words.size() > 1 ? findCommand(words[1]) : nullptr;
        line->help = definition != nullptr ? commandHelp(*definition) : generalHelp();
        if (!line->assignTo.empty()) {
            *error = "help gives no handle to name";
            return false;
        }
        return true;
    }
    if (words[0] == "run" || words[0] == "shell") {
        *error = words[0] + " cannot be used inside a script";
        return false;
    }
    const CommandSpec* definition = findCommand(words[0]);
    if (definition == nullptr) {
        *error = "unknown command \"" + words[0] + "\" (help lists the commands)";
        return false;
    }
    const std::vector<std::string> rest(words.begin() + 1, words.end());
    for (const auto& word : rest) {
        if (isHelpWord(word)) {
            line->help = commandHelp(*definition);
            return true;
        }
    }
    if (!line->assignTo.empty()) {
        if (!definition->has(kMakesHandle)) {
            *error = std::string(definition->name) + " gives no handle to name";
            return false;
        }
        const std::string& name = line->assignTo;
        const bool wellFormed =
            std::isalpha(static_cast<unsigned char>(name[0])) &&
            std::all_of(name.begin(), name.end(), [](char c) {
                return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
            });
        if (!wellFormed || findCommand(name) != nullptr || name == "help") {
            *error = "\"" + line->assignTo + "\" cannot name a handle; use a name such as h1";
            return false;
        }
    }
    if (!prepareInvocation(*definition, rest, nullptr, known, &line->invocation, error)) {
        *error = std::string(definition->name) + ": " + *error;
        return false;
    }
    if (std::string(definition->name) == "drop") {
        for (const auto& name : line->invocation.args.positional) {
            known->erase(name);
        }
    }
    if (!line->assignTo.empty()) {
        known->insert(line->assignTo);
    }
    return true;
}

bool parseScriptOptions(const std::vector<std::string>& words, std::size_t operands,
                        GlobalOptions* globals, Args* args, std::string* error) {
    if (!parseArgs(kEcho, words, args, globals, error)) {
        return false;
    }
    if (args->positional.size() != operands) {
        *error = operands == 0 ? "takes no operand" : "needs FILE";
        return false;
    }
    return settleGlobals(globals, error);
}

std::string scriptHelp(bool file) {
    return std::string(file ? "Usage: kelctl run [options] FILE\n\nRuns the commands of FILE, "
                              "one per line; every line is checked before the first runs.\n"
                            : "Usage: kelctl shell [options]\n\nRuns commands read from standard "
                              "input, one per line, as they come.\n") +
           "\nA line is a kelctl command without \"kelctl\", or NAME = COMMAND ... to keep the\n"
           "profile handle that add, data-call, emergency, attach or filter gives under NAME.\n"
           "A named handle can stand for PROFILE in later lines (get h1, modify h1 ...,\n"
           "delete h1) and lives until drop NAME or the end of the script: a profile the\n"
           "library made without --persistent is deleted when its last handle goes.\n"
           "'#' starts a comment. handles lists the named handles; help lists the commands.\n"
           "\nOptions:\n" +
           optionsHelp(kEcho) + "\nOptions of the whole run:\n" + globalOptionsHelp();
}

}  // namespace

bool splitLine(const std::string& line, std::vector<std::string>* words, std::string* error) {
    words->clear();
    std::string word;
    bool inWord = false;
    char quote = '\0';
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quote != '\0') {
            if (c == quote) {
                quote = '\0';
            } else if (c == '\\' && quote == '"' && i + 1 < line.size()) {
                word += line[++i];
            } else {
                word += c;
            }
        } else if (c == '"' || c == '\'') {
            quote = c;
            inWord = true;
        } else if (c == ' ' || c == '\t' || c == '\r') {
            if (inWord) {
                words->push_back(word);
                word.clear();
                inWord = false;
            }
        } else if (c == '#' && !inWord) {
            break;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (quote != '\0') {
        *error = std::string("unterminated ") + quote + " quote";
        return false;
    }
    if (inWord) {
        words->push_back(word);
    }
    return true;
}

int runCommandLine(const CommandSpec& definition, const std::vector<std::string>& words,
                   GlobalOptions globals, Channel& channel) {
    const std::string name = std::string("kelctl: ") + definition.name + ": ";
    for (const auto& word : words) {
        if (isHelpWord(word)) {
            channel.print(commandHelp(definition));
            return kExitOk;
        }
    }
    if (definition.has(kScriptOnly)) {
        channel.error(name + "only in scripts (kelctl run, kelctl shell)\n");
        return kExitUsage;
    }
    Invocation invocation;
    std::string error;
    if (!prepareInvocation(definition, words, &globals, nullptr, &invocation, &error) ||
        !settleGlobals(&globals, &error)) {
        // Input files are quoted in errors: escaped, never raw bytes.
        channel.error(name + escapeText(error) + "\n");
        return kExitUsage;
    }
    CommandResult result;
    ModemLink link;
    if (!openLink(globals, channel, &link)) {
        return kExitFailed;
    }
    Session session(link, channel);
    const bool ok = definition.run(session, invocation, &result);
    channel.print(result.output);
    channel.error(result.notes);
    if (!result.transientProfile.empty()) {
        note(channel, "kelctl: ",
             result.transientProfile +
                 " is not persistent: the library deletes it when kelctl exits and lets go of its "
                 "handle (--persistent keeps it; kelctl shell or run can hold the handle)");
    } else if (ok && definition.has(kChangesModem) && !invocation.args.dryRun &&
               link.isEmbedded() && globals.stateFile.empty()) {
        note(channel, "kelctl: ",
             "the embedded modem starts from its seed on every run; --state FILE keeps its "
             "profiles from one run to the next");
    }
    if (!ok) {
        channel.error(name + result.error + "\n");
    }
    // Released here, before the session and the modem go.
    result.handle.reset();
    return ok ? kExitOk : kExitFailed;
}

int runScriptFile(const std::vector<std::string>& words, GlobalOptions globals, Channel& channel) {
    Args args;
    std::string error;
    for (const auto& word : words) {
        if (isHelpWord(word)) {
            channel.print(scriptHelp(true));
            return kExitOk;
        }
    }
    if (!parseScriptOptions(words, 1, &globals, &args, &error)) {
        channel.error("kelctl: run: " + escapeText(error) + "\n");
        return kExitUsage;
    }
    const std::string& file = args.positional.front();
    std::string content;
    if (!readInputFile(file, &content, &error)) {
        channel.error("kelctl: run: " + escapeText(error) + "\n");
        return kExitUsage;
    }
    std::istringstream in(content);
    std::vector<ScriptLine> lines;
    std::set<std::string> known;
    std::string text;
    bool modemNeeded = false;
    for (int number = 1; std::getline(in, text); ++number) {
        ScriptLine line;
        bool blank = false;
        if (!parseLine(text, &known, &line, &blank, &error)) {
            // The line's words come from the file: escaped, never printed raw.
            channel.error(escapeText(file) + ":" + std::to_string(number) + ": " +
                          escapeText(error) + "\n");
            return kExitUsage;
        }
        if (!blank) {
            line.number = number;
            modemNeeded = modemNeeded || line.help.empty();
            lines.push_back(std::move(line));
        }
    }
    if (!modemNeeded) {
        // Only help: no modem is started.
        for (const auto& line : lines) {
            if (args.echo) {
                channel.print("> " + line.text + "\n");
            }
            channel.print(line.help);
        }
        return kExitOk;
    }
    ModemLink link;
    if (!openLink(globals, channel, &link)) {
        return kExitFailed;
    }
    Session session(link, channel);
    for (const auto& line : lines) {
        if (args.echo) {
            channel.print("> " + line.text + "\n");
        }
        if (executeLine(session, line, file + ":" + std::to_string(line.number) + ": ") !=
            kExitOk) {
            return kExitFailed;
        }
    }
    return kExitOk;
}

int runShell(const std::vector<std::string>& words, GlobalOptions globals, Channel& channel) {
    Args args;
    std::string error;
    for (const auto& word : words) {
        if (isHelpWord(word)) {
            channel.print(scriptHelp(false));
            return kExitOk;
        }
    }
    if (!parseScriptOptions(words, 0, &globals, &args, &error)) {
        channel.error("kelctl: shell: " + escapeText(error) + "\n");
        return kExitUsage;
    }
    ModemLink link;
    if (!openLink(globals, channel, &link)) {
        return kExitFailed;
    }
    Session session(link, channel);
    const bool interactive = ::isatty(STDIN_FILENO) != 0;
    int status = kExitOk;
    std::string text;
    for (int number = 1;; ++number) {
        if (interactive) {
            channel.print("kelctl> ");
        }
        if (!std::getline(std::cin, text)) {
            break;
        }
        std::set<std::string> known;
        for (const auto& [name, handle] : session.handles) {
            known.insert(name);
        }
        const std::string where = "line " + std::to_string(number) + ": ";
        ScriptLine line;
        bool blank = false;
        if (!parseLine(text, &known, &line, &blank, &error)) {
            channel.error(where + escapeText(error) + "\n");
            status = std::max<int>(status, kExitUsage);
            continue;
        }
        if (blank) {
            continue;
        }
        if (args.echo) {
            channel.print("> " + text + "\n");
        }
        if (executeLine(session, line, where) != kExitOk) {
            status = std::max<int>(status, kExitFailed);
        }
    }
    if (interactive) {
        channel.print("\n");
    }
    return status;
}

}  // namespace kelctl
