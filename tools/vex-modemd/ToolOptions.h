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
// Each byte that is not printable ASCII is shown as '?': reason quotes the command line.
inline int usageError(const char* tool, std::string reason) {
    for (char& c : reason) {
        c = c >= 0x20 && c < 0x7f ? c : '?';
    }
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
        int index = -1;
        const int code = ::getopt_long(argc, argv, line.shortOptions, line.longOptions, &index);
        if (code == -1) {
            return 0;
        }
        // A refused option is the word just read; an accepted one may have read its value after
        // it, so it is named by its entry. getopt_long may have stepped over operands.
        const std::string word = argv[optind - 1];
        const std::string name = index >= 0 ? std::string("--") + line.longOptions[index].name
                                            : word.substr(0, word.find('='));
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
