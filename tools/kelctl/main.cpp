// kelctl: shows and changes a modem's packet-data profiles through libkelr, from the command
// line or from a script.
#include <string>
#include <vector>

#include "Commands.h"
#include "Options.h"
#include "Output.h"
#include "Script.h"

int main(int argc, char** argv) {
    using namespace kelctl;
    Channel channel;
    std::vector<std::string> words(argv + 1, argv + argc);
    GlobalOptions globals;
    std::string error;
    if (!parseLeadingGlobals(&words, &globals, &error)) {
        channel.error("kelctl: " + error + "\n");
        return kExitUsage;
    }
    if (words.empty()) {
        channel.error("kelctl: no command given (kelctl --help lists the commands)\n");
        return kExitUsage;
    }
    const std::string command = words.front();
    const std::vector<std::string> rest(words.begin() + 1, words.end());
    if (command == "--help" || command == "-h" || command == "help") {
        const CommandSpec* definition = rest.empty() ? nullptr : findCommand(rest.front());
        channel.print(definition != nullptr ? commandHelp(*definition) : generalHelp());
        return kExitOk;
    }
    if (command == "run") {
        return runScriptFile(rest, globals, channel);
    }
    if (command == "shell") {
        return runShell(rest, globals, channel);
    }
    const CommandSpec* definition = findCommand(command);
    if (definition == nullptr) {
        channel.error("kelctl: unknown command \"" + command +
                      "\" (kelctl --help lists the commands)\n");
        return kExitUsage;
    }
    return runCommandLine(*definition, rest, globals, channel);
}
