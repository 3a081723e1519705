// kelctl: shows and changes a modem's packet-data profiles through libkelr, from the command
// line or from a script.
#include <string>
#include <vector>

#include "Commands.h"
#include "Monitor.h"
#include "Options.h"
#include "Output.h"
#include "Script.h"

namespace {

using namespace kelctl;

int runKelctl(std::vector<std::string> words, Channel& channel) {
    GlobalOptions globals;
    std::string error;
    if (!parseLeadingGlobals(&words, &globals, &error)) {
        channel.error("kelctl: " + error + "\n");
        return kExitUsage;
    }
    if (globals.version) {
        channel.print(versionText(globals.json));
        return kExitOk;
    }
    if (words.empty() && !globals.help) {
        channel.error("kelctl: no command given (kelctl --help lists the commands)\n");
        return kExitUsage;
    }
    const std::string command = words.empty() ? "help" : words.front();
    const std::vector<std::string> rest(words.begin() + (words.empty() ? 0 : 1), words.end());
    if (command == "help" || globals.help) {
        const std::string topic = command != "help" ? command : rest.empty() ? "" : rest.front();
        const CommandSpec* definition = topic.empty() ? nullptr : findCommand(topic);
        if (topic == "status" || topic == "monitor") {
            return topic == "status" ? runStatus({"--help"}, globals, channel)
                                     : runMonitor({"--help"}, globals, channel);
        }
        if (definition != nullptr) {
            channel.print(commandHelp(*definition));
        } else if (topic == "run" || topic == "shell") {
            return topic == "run" ? runScriptFile({"--help"}, globals, channel)
                                  : runShell({"--help"}, globals, channel);
        } else {
            channel.print(generalHelp());
        }
        return kExitOk;
    }
    if (command == "run") {
        return runScriptFile(rest, globals, channel);
    }
    // They open their own link: status describes one that is not usable, monitor outlives it.
    if (command == "status" || command == "monitor") {
        return command == "status" ? runStatus(rest, globals, channel)
                                   : runMonitor(rest, globals, channel);
    }
    if (command == "shell") {
        return runShell(rest, globals, channel);
    }
    const CommandSpec* definition = findCommand(command);
    if (definition == nullptr) {
        channel.error("kelctl: " + unknownCommand(command, "kelctl --help lists the commands") +
                      "\n");
        return kExitUsage;
    }
    return runCommandLine(*definition, rest, globals, channel);
}

}  // namespace

int main(int argc, char** argv) {
    Channel channel;
    const std::vector<std::string> words(argv + 1, argv + argc);
    const int status = runKelctl(words, channel);
    // Under --json a refused command line is answered with one document as well, on standard
    // output, which it has not used yet.
    if (status == kExitUsage && asksForJson(words) && !channel.printedOutput()) {
        std::string reason = channel.lastError();
        if (reason.rfind("kelctl: ", 0) == 0) {
            reason.erase(0, 8);
        }
        while (!reason.empty() && reason.back() == '\n') {
            reason.pop_back();
        }
        channel.print(jsonText({{"error", reason}}));
    }
    return status;
}
