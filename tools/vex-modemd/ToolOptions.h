// The command lines of vex-modemd and vex-modemctl, read alike: as getopt_long reads them (long
// options may be shortened while unambiguous, "--opt=value" and "--opt value" both work), with
// -h/--help and -V/--version, and every refusal in the tool's own words.
//
// Main thread only: getopt_long keeps its state in globals.
#ifndef VEX_MODEMD_TOOL_OPTIONS_H
#define VEX_MODEMD_TOOL_OPTIONS_H

#include <getopt.h>

#include <cstdio>
#include <string>

namespace vexmodemd {

// "TOOL: REASON (TOOL --help lists the options)" on standard error; returns the exit status, 2.
inline int usageError(const char* tool, const std::string& reason) {
    std::fprintf(stderr, "%s: %s (%s --help lists the options)\n", tool, reason.c_str(), tool);
    return 2;
}

struct ToolCommandLine {
    const char* tool;
    const char* usage;         // printed by --help
    const char* shortOptions;  // ":hV"; a leading "+" stops at the first operand
    const option* longOptions;
};

// Hands each of the tool's own options to apply(code, name), name being the word as written up
// to any "="; apply returns 0 to go on, or the exit status plus one. Returns the same: 0 once the
// options are read, otherwise the exit status plus one (so that --help and --version, which exit
// 0, are told apart from going on). optind is then at the first operand.
template <typename Apply>
int readToolOptions(int argc, char** argv, const ToolCommandLine& line, Apply apply) {
    opterr = 0;  // its messages are written here, in the tool's own words
    for (;;) {
        const int previous = optind;
        const int code = ::getopt_long(argc, argv, line.shortOptions, line.longOptions, nullptr);
        if (code == -1) {
            return 0;
        }
        const std::string word = previous < argc ? argv[previous] : "";
        const std::string name = word.substr(0, word.find('='));
        switch (code) {
            case 'h':
                std::fputs(line.usage, stdout);
                return 1;
            case 'V':
                std::printf("%s %s\n", line.tool, VEX_TOOLS_VERSION);
                return 1;
            case ':':
                return usageError(line.tool, name + " needs a value") + 1;
            case '?':
                return usageError(line.tool, optopt != 0
                                                 ? "unknown option -" + std::string(1, optopt)
                                                 : "unknown or ambiguous option " + name) +
                       1;
            default:
                if (const int status = apply(code, name); status != 0) {
                    return status;
                }
        }
    }
}

}  // namespace vexmodemd

#endif  // VEX_MODEMD_TOOL_OPTIONS_H
