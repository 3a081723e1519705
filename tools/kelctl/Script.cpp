#include "Script.h"

#include <unistd.h>

#include <sys/stat.h>
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>

#include "InputFile.h"
#include "StateLock.h"
#include "Truth.h"
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

#ifndef KELCTL_NO_EMBEDDED_MODEM
// A state file kelctl can keep: a new name, or a regular file (not a link) within the input-file
// bound, in a directory kelctl may write to, where the modem writes its file beside it first.
bool checkStateFile(const std::string& path, std::string* error) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0) {
        if (S_ISLNK(info.st_mode)) {
            *error = "--state " + path + ": a symbolic link, not a regular file";
            return false;
        }
        if (!checkInputFile(path, error)) {
            *error = "--state " + *error;
            return false;
        }
    }
    const std::size_t slash = path.rfind('/');
    const std::string dir =
        slash == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
    struct stat dirInfo {};
    if (::stat(dir.c_str(), &dirInfo) != 0 || !S_ISDIR(dirInfo.st_mode) ||
        ::access(dir.c_str(), W_OK | X_OK) != 0) {
        *error =
            "--state " + path + ": cannot be written (" + dir + " is not a writable directory)";
        return false;
    }
    return true;
}
#endif

// The modem is found through --modem, else VEX_SERVICE_DIR, else it is the embedded one. The
// embedded modem's files are checked here, so that a wrong one is an input error.
bool settleGlobals(GlobalOptions* globals, std::string* error) {
    const char* serviceDir = std::getenv("VEX_SERVICE_DIR");
    if (globals->modemDir.empty() && !globals->embedded && serviceDir != nullptr &&
        *serviceDir != '\0') {
        globals->modemDir = serviceDir;
    }
    if (!globals->modemDir.empty()) {
        if (!globals->seedFile.empty() || !globals->stateFile.empty()) {
            *error = "--seed and --state are for the embedded modem, not a running one";
            return false;
        }
        return true;
    }
#ifdef KELCTL_NO_EMBEDDED_MODEM
    // A device's kelctl has no embedded modem: the library finds the device's own.
    return true;
#else
    if (globals->seedFile.empty() && defaultSeedFile().empty()) {
        *error = "no modem seed file is installed; give one with --seed FILE";
        return false;
    }
    // Checked before any modem starts, so that a wrong file is an input error.
    if (!globals->seedFile.empty() && !checkInputFile(globals->seedFile, error)) {
        *error = "--seed " + *error;
        return false;
    }
    return globals->stateFile.empty() || checkStateFile(globals->stateFile, error);
#endif
}

// The embedded modem saves its persistent profiles on every change; a state file missing at the
// end means they were not kept.
bool stateKept(const GlobalOptions& globals, const ModemLink& link, const Channel& channel) {
    struct stat info {};
    if (!link.isEmbedded() || globals.stateFile.empty() ||
        ::stat(globals.stateFile.c_str(), &info) == 0) {
        return true;
    }
    channel.error("kelctl: the embedded modem could not keep its profiles in " + globals.stateFile +
                  "\n");
    return false;
}

// Makes the channel kelctl's own and connects; the library is silent unless --verbose. With
// --timeout, the run's deadline starts here.
bool openLink(const GlobalOptions& globals, Channel& channel, ModemLink* link,
              std::string* failure) {
    std::string& error = *failure;
    if (!globals.verbose) {
        // Read by the log stand-in on its first message, so set before the library is used.
        ::setenv("KELR_LOG_QUIET", "1", 1);
    }
    if (!channel.claimStandardOutput(globals.verbose, !globals.showSecrets, &error)) {
        channel.error("kelctl: " + error + "\n");
        return false;
    }
    // Before the embedded modem reads its state: the wait counts against --timeout.
    if (!globals.stateFile.empty() &&
        !lockStateFile(globals.stateFile,
                       globals.started + std::chrono::milliseconds(globals.timeoutMs), &error)) {
        channel.error("kelctl: " + escapeText(error) + "\n");
        return false;
    }
    const std::string limit = secondsText(globals.timeoutMs);
    if (globals.timeoutGiven) {
        // What reading the input took already counts.
        const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - globals.started);
        channel.deadline.arm(std::max(std::chrono::milliseconds(1),
                                      std::chrono::milliseconds(globals.timeoutMs) - spent),
                             channel.errorFd(),
                             globals.modemDir.empty()
                                 ? "kelctl: the library did not connect to the embedded modem "
                                   "within " +
                                       limit + "\n"
                                 : "kelctl: no modem answered in " + globals.modemDir + " within " +
                                       limit + " (is vex-modemd running there?)\n");
    }
    link->reportTo(&channel.deadline);
    if (!link->open(globals, &error)) {
        channel.deadline.disarm();
        channel.error("kelctl: " + error + "\n");
        return false;
    }
    channel.deadline.setLine("kelctl: stopped: the run took longer than --timeout " + limit +
                             " (the modem answers too slowly)\n");
    return true;
}

void printNotes(const Channel& channel, const std::string& where,
                const std::vector<std::string>& notes) {
    for (const auto& text : notes) {
        channel.error(where + "note: " + text + "\n");
    }
}

// What --json prints for a command's result: its document, or on failure {"error": ...} (with
// jsonOnFailure, the document with the error beside it).
Json resultDocument(const CommandResult& result, bool ok) {
    if (ok) {
        return result.json;
    }
    if (result.jsonOnFailure && result.json.is_object()) {
        Json document = result.json;
        document["error"] = result.error;
        return document;
    }
    return Json({{"error", result.error}});
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

// A script line as kelctl shows it (--echo, --json): as written, unless it gives a password,
// which is then masked like every other.
std::string shownLine(const std::string& text) {
    std::vector<std::string> words;
    std::string ignored;
    if (!splitLine(text, &words, &ignored)) {
        return text;
    }
    static const std::string kOption = "--password";
    bool masked = false;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string name = words[i].substr(0, words[i].find('='));
        // Any start getopt_long could take for it: "--pa" already is --password, and "--p",
        // which it refuses as ambiguous, is masked all the same.
        if (name.size() < 3 || kOption.compare(0, name.size(), name) != 0) {
            continue;
        }
        if (name.size() < words[i].size()) {
            words[i] = name + "=" + shownValue("password", words[i].substr(name.size() + 1));
        } else if (i + 1 < words.size()) {
            words[i + 1] = shownValue("password", words[i + 1]);
        }
        masked = true;
    }
    if (!masked) {
        return text;
    }
    std::string line;
    for (const auto& word : words) {
        line += (line.empty() ? "" : " ") + word;
    }
    return line;
}

// Runs one checked line. With the run's --json, what it printed goes into the run's document
// instead, one entry per line.
int executeLine(Session& session, const ScriptLine& line, int number, const std::string& where) {
    const Channel& channel = session.channel;
    Json entry = {{"line", number}, {"text", shownLine(line.text)}};
    const auto report = [&session, &entry](int status) {
        if (session.json) {
            session.lines.push_back(std::move(entry));
        }
        return status;
    };
    if (!line.help.empty()) {
        entry["help"] = line.help;
        if (!session.json) {
            channel.print(line.help);
        }
        return report(kExitOk);
    }
    const CommandSpec& definition = *line.invocation.definition;
    CommandResult result;
    const bool ok = runWithWholePicture(definition, session, line.invocation, &result);
    if (session.json) {
        entry["result"] = ok || result.jsonOnFailure ? result.json : Json(nullptr);
    } else {
        channel.print(line.invocation.args.json ? jsonText(resultDocument(result, ok))
                                                : result.output);
    }
    channel.error(result.notes);
    if (!ok) {
        entry["error"] = result.error;
        channel.error(where + definition.name + ": " + result.error + "\n");
        reportGoneHandles(session, where);
        return report(kExitFailed);
    }
    if (!line.assignTo.empty()) {
        if (!result.handle) {
            entry["error"] = "found no profile to name " + line.assignTo;
            channel.error(where + definition.name + ": found no profile to name " + line.assignTo +
                          "\n");
            return report(kExitFailed);
        }
        const std::string profile =
            profileName(result.handle->getTechType(), result.handle->getProfileId());
        entry["handle"] = {{"name", line.assignTo}, {"profile", profile}};
        if (!session.json) {
            channel.print(line.assignTo + " = " + profile + "\n");
        }
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
    return report(kExitOk);
}

// Parses one script line. *blank is set for a line with nothing to run. known holds the handle
// names defined at this point; an assignment adds one, drop removes.
bool parseLine(const std::string& text, bool truncate, std::set<std::string>* known,
               ScriptLine* line, bool* blank, std::string* error) {
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
        *error = unknownCommand(words[0], "help lists the commands");
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
    line->invocation.args.truncate = truncate;
    if (!prepareInvocation(*definition, rest, nullptr, known, &line->invocation, error)) {
        *error = std::string(definition->name) + ": " + *error;
        return false;
    }
    // However it was spelt ("--hel", "-ph"), a help option makes the line show help, not run.
    if (line->invocation.args.help) {
        line->help = commandHelp(*definition);
        return true;
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

const std::vector<OptionSpec>& scriptOptions() {
    static const std::vector<OptionSpec> table = {
        {"--echo", nullptr, kEcho, "print each script line before running it",
         setFlag<&Args::echo>},
    };
    return table;
}

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
        if (word == "--") {
            break;
        }
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
    invocation.args.truncate = globals.truncate;
    std::string error;
    const bool prepared =
        prepareInvocation(definition, words, &globals, nullptr, &invocation, &error);
    if (!prepared && invocation.ranOut) {
        channel.error(name + escapeText(error) + "; nothing was sent to the modem\n");
        if (globals.json) {
            channel.print(jsonText({{"error", error + "; nothing was sent to the modem"}}));
        }
        return kExitFailed;
    }
    if (!prepared || !settleGlobals(&globals, &error)) {
        // Input files are quoted in errors: escaped, never raw bytes.
        channel.error(name + escapeText(error) + "\n");
        return kExitUsage;
    }
    // However it was spelt ("--hel", "-ph"), a help option shows help and runs nothing.
    if (invocation.args.help || globals.help) {
        channel.print(commandHelp(definition));
        return kExitOk;
    }
    if (globals.version) {
        channel.print(versionText(globals.json));
        return kExitOk;
    }
    showSecrets(globals.showSecrets);
    printNotes(channel, "kelctl: ", invocation.notes);
    CommandResult result;
    auto link = std::make_unique<ModemLink>();
    const auto runStart = std::chrono::steady_clock::now();
    if (!openLink(globals, channel, link.get(), &error)) {
        if (globals.json) {
            channel.print(jsonText({{"error", error}}));
        }
        return kExitFailed;
    }
    auto session = std::make_unique<Session>(*link, channel);
    limitWaits(*session, globals, runStart);
    const bool ok = runWithWholePicture(definition, *session, invocation, &result);
    channel.print(globals.json ? jsonText(resultDocument(result, ok)) : result.output);
    channel.error(result.notes);
    if (!result.transientProfile.empty()) {
        note(channel, "kelctl: ",
             result.transientProfile +
                 " is not persistent: the library deletes it when kelctl exits and lets go of its "
                 "handle (--persistent keeps it; kelctl shell or run can hold the handle)");
    } else if (ok && definition.has(kChangesModem) && !invocation.args.dryRun &&
               link->isEmbedded() && globals.stateFile.empty()) {
        note(channel, "kelctl: ",
             "the embedded modem starts from its seed on every run; --state FILE keeps its "
             "profiles from one run to the next");
    }
    if (!ok) {
        channel.error(name + result.error + "\n");
    }
    // Released here, before the session and the modem go.
    result.handle.reset();
    session.reset();
    if (ok && !stateKept(globals, *link, channel)) {
        return kExitFailed;
    }
    return ok ? kExitOk : kExitFailed;
}

namespace {

// A line of standard input longer than this is refused; nothing a command takes comes near it.
constexpr size_t kMaxShellLine = 64 * 1024;

// Reads one line of in, without its newline, into text; false at the end of the input. Of a line
// longer than kMaxShellLine only the start is kept and *tooLong is set, but the line is read to
// its end, so that the next line starts where it should.
bool readShellLine(std::istream& in, std::string* text, bool* tooLong) {
    text->clear();
    *tooLong = false;
    bool any = false;
    char c;
    while (in.get(c)) {
        any = true;
        if (c == '\n') {
            return true;
        }
        if (text->size() < kMaxShellLine) {
            text->push_back(c);
        } else {
            *tooLong = true;
        }
    }
    return any;
}

// A script's run, checked or read line by line: its link and session once a modem is needed, and
// with --json the one document it prints at the end.
struct ScriptRun {
    ScriptRun(const GlobalOptions& options, Channel& out) : globals(options), channel(out) {}

    bool open() {
        std::string error;
        link = std::make_unique<ModemLink>();
        const auto runStart = std::chrono::steady_clock::now();
        if (!openLink(globals, channel, link.get(), &error)) {
            failure = error;
            return false;
        }
        session = std::make_unique<Session>(*link, channel);
        limitWaits(*session, globals, runStart);
        session->json = globals.json;
        return true;
    }

    void echo(const std::string& text) const {
        if (echoLines && !globals.json) {
            channel.print("> " + shownLine(text) + "\n");
        }
    }

    int finish(int status) {
        Json lines = session ? std::move(session->lines) : std::move(offlineLines);
        session.reset();  // the named handles go while the modem is still there
        if (status == kExitOk && link && !stateKept(globals, *link, channel)) {
            status = kExitFailed;
        }
        if (globals.json) {
            Json document = {{"lines", lines}, {"status", status}};
            if (!failure.empty()) {
                document["error"] = failure;
            }
            channel.print(jsonText(document));
        }
        return status;
    }

    GlobalOptions globals;
    Channel& channel;
    bool echoLines = false;
    std::unique_ptr<ModemLink> link;
    std::unique_ptr<Session> session;
    Json offlineLines = Json::array();
    std::string failure;
};

// The prologue both runners share: help anywhere before "--" wins over any
// option error, then the options themselves. Returns -1 when the runner
// goes on, otherwise the exit status already reported.
int scriptPrologue(const std::vector<std::string>& words, bool file, GlobalOptions* globals,
                   Args* args, Channel& channel) {
    for (const auto& word : words) {
        if (word == "--") {
            break;
        }
        if (isHelpWord(word)) {
            channel.print(scriptHelp(file));
            return kExitOk;
        }
    }
    std::string error;
    if (!parseScriptOptions(words, file ? 1 : 0, globals, args, &error)) {
        channel.error(std::string(file ? "kelctl: run: " : "kelctl: shell: ") + escapeText(error) +
                      "\n");
        return kExitUsage;
    }
    if (args->help || globals->help || globals->version) {
        channel.print(globals->version ? versionText(globals->json) : scriptHelp(file));
        return kExitOk;
    }
    return -1;
}

}  // namespace

int runScriptFile(const std::vector<std::string>& words, GlobalOptions globals, Channel& channel) {
    Args args;
    const int early = scriptPrologue(words, true, &globals, &args, channel);
    if (early >= 0) {
        return early;
    }
    std::string error;
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
        // The line's words come from the file: escaped, never printed raw.
        const std::string where = escapeText(file) + ":" + std::to_string(number) + ": ";
        if (!parseLine(text, globals.truncate, &known, &line, &blank, &error)) {
            channel.error(where + escapeText(error) + "\n");
            return kExitUsage;
        }
        if (!blank) {
            line.number = number;
            printNotes(channel, where, line.invocation.notes);
            modemNeeded = modemNeeded || line.help.empty();
            lines.push_back(std::move(line));
        }
    }
    showSecrets(globals.showSecrets);
    ScriptRun run(globals, channel);
    run.echoLines = args.echo;
    if (!modemNeeded) {
        // Only help: no modem is started.
        for (const auto& line : lines) {
            run.echo(line.text);
            if (globals.json) {
                run.offlineLines.push_back(
                    {{"line", line.number}, {"text", shownLine(line.text)}, {"help", line.help}});
            } else {
                channel.print(line.help);
            }
        }
        return run.finish(kExitOk);
    }
    if (!run.open()) {
        return run.finish(kExitFailed);
    }
    for (const auto& line : lines) {
        run.echo(line.text);
        if (executeLine(*run.session, line, line.number,
                        file + ":" + std::to_string(line.number) + ": ") != kExitOk) {
            return run.finish(kExitFailed);
        }
    }
    return run.finish(kExitOk);
}

int runShell(const std::vector<std::string>& words, GlobalOptions globals, Channel& channel) {
    Args args;
    const int early = scriptPrologue(words, false, &globals, &args, channel);
    if (early >= 0) {
        return early;
    }
    std::string error;
    showSecrets(globals.showSecrets);
    ScriptRun run(globals, channel);
    run.echoLines = args.echo;
    if (!run.open()) {
        return run.finish(kExitFailed);
    }
    const bool interactive = ::isatty(STDIN_FILENO) != 0 && !globals.json;
    int status = kExitOk;
    std::string text;
    for (int number = 1;; ++number) {
        if (interactive) {
            channel.print("kelctl> ");
        }
        bool tooLong = false;
        if (!readShellLine(std::cin, &text, &tooLong)) {
            break;
        }
        const std::string where = "line " + std::to_string(number) + ": ";
        if (tooLong) {
            channel.error(where + "longer than " + std::to_string(kMaxShellLine) +
                          " bytes, not run\n");
            status = std::max<int>(status, kExitUsage);
            continue;
        }
        std::set<std::string> known;
        for (const auto& [name, handle] : run.session->handles) {
            known.insert(name);
        }
        ScriptLine line;
        bool blank = false;
        if (!parseLine(text, globals.truncate, &known, &line, &blank, &error)) {
            channel.error(where + escapeText(error) + "\n");
            status = std::max<int>(status, kExitUsage);
            continue;
        }
        if (blank) {
            continue;
        }
        printNotes(channel, where, line.invocation.notes);
        run.echo(text);
        if (executeLine(*run.session, line, number, where) != kExitOk) {
            status = std::max<int>(status, kExitFailed);
        }
    }
    if (interactive) {
        channel.print("\n");
    }
    return run.finish(status);
}

bool prepareRun(GlobalOptions* globals, std::string* error) {
    return settleGlobals(globals, error);
}

}  // namespace kelctl
