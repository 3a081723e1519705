// Command-line options: which options exist, which commands take them, and how their values are
// checked. Everything a person typed is validated here, before kelctl touches a modem, so a bad
// value costs nothing.
//
// Plain functions and values: the main thread only.
#ifndef KELCTL_OPTIONS_H
#define KELCTL_OPTIONS_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "kel/ClientRequest.h"
#include "kel/ProfileParams.h"

namespace kelctl {

// Option groups; each command lists the groups it takes.
enum OptionGroup : unsigned int {
    kSettings = 1u << 0,     // profile settings: --apn, --ip, --types, ...
    kTech = 1u << 1,         // --tech
    kPersistent = 1u << 2,   // --persistent
    kAllowUpdate = 1u << 3,  // --allow-update
    kFilter = 1u << 4,       // --id, --criteria
    kKelFlag = 1u << 5,      // --kel
    kIaFlag = 1u << 6,       // --ia
    kCarrier = 1u << 8,      // --mcc, --mnc, --mvno-type, --mvno-match, --create
    kRefresh = 1u << 9,      // --started, --completed
    kEntries = 1u << 10,     // --and: several entries on one command line
    kEcho = 1u << 11,        // --echo
    kVerbose = 1u << 12,     // --verbose, where a script line may use it
    kDryRun = 1u << 13,      // --dry-run
};

// The modem's text fields and the longest value each holds, in bytes (UTF-8 counts each byte).
constexpr std::size_t kApnLimit = 150;
constexpr std::size_t kUserNameLimit = 127;
constexpr std::size_t kPasswordLimit = 127;

// One profile description as given on the command line.
struct Entry {
    kel::ProfileParams settings;
    std::optional<kel::TechType> tech;
};

// What one command line, or one script line, asks of its command.
struct Args {
    std::vector<std::string> positional;
    // One entry per --and group; commands without kEntries have exactly one.
    std::vector<Entry> entries{1};
    bool persistent = false;
    bool allowUpdate = false;
    bool json = false;
    bool dryRun = false;
    bool echo = false;
    bool verbose = false;
    bool help = false;
    bool truncate = false;  // cut values longer than their modem field instead of refusing them
    bool create = false;    // carrier: a persistent profile for each APN no profile carries
    std::optional<int> id;
    std::optional<bool> kel;
    std::optional<bool> ia;
    unsigned int criteria = 0;
    std::string mcc;
    std::string mnc;
    std::string mvnoType;
    std::string mvnoMatch;
    std::optional<kel::PDCRefreshStatus> refreshStep;

    const kel::ProfileParams& settings() const { return entries.front().settings; }
    std::optional<kel::TechType> tech() const { return entries.front().tech; }
};

// What concerns a whole kelctl run: which modem, which subscription, how long to wait.
struct GlobalOptions {
    std::string modemDir;   // a running modem's service directory; empty: the embedded modem
    bool embedded = false;  // use the embedded modem even when VEX_SERVICE_DIR is set
    std::string seedFile;   // embedded modem: its initial profiles
    std::string stateFile;  // embedded modem: where its persistent profiles are kept
    int subscription = 0;
    int timeoutMs = 5000;
    bool timeoutGiven = false;  // --timeout given: it bounds the whole run, not only the wait
    bool verbose = false;
    bool json = false;         // one JSON document on standard output
    bool showSecrets = false;  // passwords in clear in everything kelctl prints
    bool truncate = false;
    bool help = false;
    bool version = false;
    // Run the library with every switch of kel::Options off, exactly as its reference behaviour;
    // by default kelctl turns them all on (kel::Options::safe()).
    bool reference = false;
    // When the run began: --timeout counts from here, the reading of input files included.
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};

// One option: how it is written, which commands take it (its group), its help line, and how its
// value is checked and kept. apply says why a value is refused in *why.
using ApplyFn = bool (*)(const std::string& value, Args& args, GlobalOptions* globals,
                         std::string* why);
struct OptionSpec {
    const char* name;
    const char* value;  // what the value is, for help; null for a flag
    unsigned int group;
    const char* help;
    ApplyFn apply;
};

// The option tables, each beside the commands that take its options. A command's help lists its
// options in the order of these tables; the options of the whole run are Options.cpp's own.
const std::vector<OptionSpec>& profileOptions();  // ProfileOptions.cpp: the profile commands
const std::vector<OptionSpec>& carrierOptions();  // CarrierApply.cpp: carrier, and --dry-run
const std::vector<OptionSpec>& refreshOptions();  // Commands.cpp
const std::vector<OptionSpec>& scriptOptions();   // Script.cpp

// For the tables: a number from min to max, written in decimal digits only (none of these may be
// negative, so a sign is refused like any other letter).
std::optional<long> parseNumber(const std::string& text, unsigned long min, unsigned long max);
std::string quoted(const std::string& value);
// Sets *why to "\"VALUE\" is not one of ACCEPTED"; false.
bool notOneOf(const std::string& value, const std::string& accepted, std::string* why);

// The apply of a flag that concerns one command line.
template <bool Args::*Flag>
bool setFlag(const std::string&, Args& args, GlobalOptions*, std::string*) {
    args.*Flag = true;
    return true;
}

// Parses the words after a command name for a command that takes `groups`, the way getopt_long
// does: long options with unique abbreviations, short forms of the common ones, options and
// operands in any order, "--" ends the options. Options of the whole run are stored in *globals;
// with globals null (a script line) they are refused. False with a one-line reason that names the
// option and what it accepts.
bool parseArgs(unsigned int groups, const std::vector<std::string>& words, Args* args,
               GlobalOptions* globals, std::string* error);

// Takes the options of the whole run from the front of words (up to the command name) and
// removes them. False with a reason.
bool parseLeadingGlobals(std::vector<std::string>* words, GlobalOptions* globals,
                         std::string* error);

// Whether words ask for --json (or -j, or a shortening of it) before "--": a command line
// refused before it is parsed is then answered with a JSON document too.
bool asksForJson(const std::vector<std::string>& words);

// The option lines of a command's help, one per option, aligned.
std::string optionsHelp(unsigned int groups);
std::string globalOptionsHelp();

}  // namespace kelctl

#endif  // KELCTL_OPTIONS_H
