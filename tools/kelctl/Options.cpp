#include "Options.h"

#include <getopt.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "NumberText.h"  // the platform's number parsing (platform/vex)
#include "ValueNames.h"

namespace kelctl {

std::optional<long> parseNumber(const std::string& text, unsigned long min, unsigned long max) {
    unsigned long value = 0;
    if (!vexwire::parseWhole(text, 10, &value) || value < min || value > max) {
        return std::nullopt;
    }
    return static_cast<long>(value);
}

std::string quoted(const std::string& value) {
    return "\"" + value + "\"";
}

bool notOneOf(const std::string& value, const std::string& accepted, std::string* why) {
    *why = quoted(value) + " is not one of " + accepted;
    return false;
}

namespace {

// Options of the whole run (before or after the command name, never on a script line).
constexpr unsigned int kGlobal = 1u << 30;
// Options every command line takes.
constexpr unsigned int kAlways = 1u << 31;
// Where the help text of an option starts.
constexpr std::size_t kHelpColumn = 34;

template <bool GlobalOptions::*Flag>
bool setRunFlag(const std::string&, Args&, GlobalOptions* globals, std::string*) {
    globals->*Flag = true;
    return true;
}

// A flag every command line takes: on the kelctl command line it holds for the whole run too.
template <bool Args::*Line, bool GlobalOptions::*Run>
bool setLineFlag(const std::string&, Args& args, GlobalOptions* globals, std::string*) {
    args.*Line = true;
    if (globals != nullptr) {
        globals->*Run = true;
    }
    return true;
}

// The options of the whole run, declared once; json, truncate, verbose and help are also every
// command line's.
const std::vector<OptionSpec>& runOptions() {
    static const std::vector<OptionSpec> table = {
        {"--json", nullptr, kAlways | kGlobal, "print one JSON document",
         setLineFlag<&Args::json, &GlobalOptions::json>},
        {"--truncate", nullptr, kAlways | kGlobal, "cut values too long for their modem field",
         setLineFlag<&Args::truncate, &GlobalOptions::truncate>},
        {"--modem", "DIR", kGlobal, "use the running modem serving in DIR (default: embedded)",
         [](const std::string& v, Args&, GlobalOptions* g, std::string*) {
             g->modemDir = v;
             return true;
         }},
        {"--embedded", nullptr, kGlobal, "use the embedded modem even if VEX_SERVICE_DIR is set",
         setRunFlag<&GlobalOptions::embedded>},
        {"--seed", "FILE", kGlobal, "embedded modem: its initial profiles",
         [](const std::string& v, Args&, GlobalOptions* g, std::string*) {
             g->seedFile = v;
             return true;
         }},
        {"--state", "FILE", kGlobal, "embedded modem: keep its persistent profiles in FILE",
         [](const std::string& v, Args&, GlobalOptions* g, std::string*) {
             g->stateFile = v;
             return true;
         }},
        {"--sub", "N", kGlobal, "modem subscription (default 0)",
         [](const std::string& v, Args&, GlobalOptions* g, std::string* why) {
             const auto sub = parseNumber(v, 0, 7);
             if (!sub) {
                 *why = quoted(v) + " is not a subscription number from 0 to 7";
                 return false;
             }
             g->subscription = static_cast<int>(*sub);
             return true;
         }},
        {"--timeout", "SECONDS", kGlobal,
         "bound the whole run (default: 5 s for the modem to answer)",
         [](const std::string& v, Args&, GlobalOptions* g, std::string* why) {
             // Digits with an optional fraction; strtod alone would take "+5", " 5" or "1e1".
             const bool decimal = !v.empty() && v[0] >= '0' && v[0] <= '9' &&
                                  v.find_first_not_of("0123456789.") == std::string::npos &&
                                  std::count(v.begin(), v.end(), '.') <= 1;
             char* end = nullptr;
             const double seconds = decimal ? std::strtod(v.c_str(), &end) : 0;
             if (!decimal || *end != '\0' || !(seconds > 0) || seconds > 3600) {
                 *why = quoted(v) + " is not a number of seconds above 0 and at most 3600";
                 return false;
             }
             g->timeoutMs = std::max(1, static_cast<int>(std::lround(seconds * 1000)));
             g->timeoutGiven = true;
             return true;
         }},
        {"--show-secrets", nullptr, kGlobal, "print passwords in clear (hidden by default)",
         setRunFlag<&GlobalOptions::showSecrets>},
        {"--reference", nullptr, kGlobal,
         "run the library with its safe-mode switches off, as it behaves by default",
         setRunFlag<&GlobalOptions::reference>},
        {"--version", nullptr, kGlobal, "print kelctl's and the library's version",
         setRunFlag<&GlobalOptions::version>},
        {"--verbose", nullptr, kAlways | kGlobal, "show the library's log and more detail",
         setLineFlag<&Args::verbose, &GlobalOptions::verbose>},
        {"--help", nullptr, kAlways | kGlobal, "show this help",
         setLineFlag<&Args::help, &GlobalOptions::help>},
    };
    return table;
}

// Every option, so that one a command does not take is named as such rather than as unknown.
const std::vector<OptionSpec>& optionTable() {
    static const std::vector<OptionSpec> table = [] {
        std::vector<OptionSpec> all;
        for (const auto* part : {&profileOptions(), &carrierOptions(), &refreshOptions(),
                                 &scriptOptions(), &runOptions()}) {
            all.insert(all.end(), part->begin(), part->end());
        }
        return all;
    }();
    return table;
}

// Short forms of the options people type most.
constexpr std::pair<char, const char*> kShortForms[] = {
    {'h', "--help"},  {'V', "--version"},    {'v', "--verbose"}, {'j', "--json"},
    {'m', "--modem"}, {'t', "--timeout"},    {'n', "--dry-run"}, {'e', "--echo"},
    {'a', "--apn"},   {'p', "--persistent"},
};

char shortFormOf(const OptionSpec& optionDef) {
    for (const auto& [letter, name] : kShortForms) {
        if (optionDef.name == std::string(name)) {
            return letter;
        }
    }
    return '\0';
}

// getopt_long reports a long option by its index plus this, so that no index looks like a letter.
constexpr int kLongBase = 256;

const OptionSpec* optionByCode(int code) {
    const auto& table = optionTable();
    if (code >= kLongBase && code - kLongBase < static_cast<int>(table.size())) {
        return &table[static_cast<std::size_t>(code - kLongBase)];
    }
    for (const auto& optionDef : table) {
        if (code > 0 && shortFormOf(optionDef) == code) {
            return &optionDef;
        }
    }
    return nullptr;
}

// The getopt_long tables for every option; which command takes which is checked afterwards, so
// that an option of another command is named as such rather than as unknown.
struct GetoptTables {
    std::vector<option> longOptions;
    std::string shortOptions;
};

GetoptTables getoptTables(bool stopAtOperand) {
    GetoptTables tables;
    // ':' first: a missing value is told apart from an unknown option. '+': stop at the command.
    tables.shortOptions = stopAtOperand ? "+:" : ":";
    const auto& table = optionTable();
    for (std::size_t i = 0; i < table.size(); ++i) {
        const OptionSpec& optionDef = table[i];
        const int hasArg = optionDef.value != nullptr ? required_argument : no_argument;
        tables.longOptions.push_back(
            {optionDef.name + 2, hasArg, nullptr, kLongBase + static_cast<int>(i)});
        if (const char letter = shortFormOf(optionDef); letter != '\0') {
            tables.shortOptions += letter;
            tables.shortOptions += optionDef.value != nullptr ? ":" : "";
        }
    }
    tables.longOptions.push_back({nullptr, 0, nullptr, 0});
    return tables;
}

// Why getopt_long refused the word at hand.
std::string refusal(int result, const std::string& word) {
    const OptionSpec* optionDef = optionByCode(optopt);
    if (result == ':' && optionDef != nullptr) {
        return std::string(optionDef->name) + " needs a value: " + optionDef->value;
    }
    if (optionDef != nullptr && optopt >= kLongBase) {
        return std::string(optionDef->name) + " takes no value";
    }
    if (optopt > 0 && optopt < kLongBase) {
        return std::string("unknown option -") + static_cast<char>(optopt);
    }
    const std::string name = word.substr(0, word.find('='));
    std::string candidates;
    for (const auto& known : optionTable()) {
        if (name.size() > 2 && std::string(known.name).compare(0, name.size(), name) == 0) {
            candidates += (candidates.empty() ? "" : ", ") + std::string(known.name);
        }
    }
    return candidates.empty() ? "unknown option " + name
                              : "option " + name + " is ambiguous: " + candidates;
}

// Runs getopt_long over words, applying each option. With stopAtOperand the first operand ends
// the options; *used is then the number of words taken. Otherwise options and operands mix, and
// the operands go to args->positional.
bool parseWords(const std::vector<std::string>& words, unsigned int groups, bool stopAtOperand,
                Args* args, GlobalOptions* globals, std::size_t* used, std::string* error) {
    std::vector<std::string> storage = {"kelctl"};
    storage.insert(storage.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (auto& word : storage) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const int argc = static_cast<int>(storage.size());
    const GetoptTables tables = getoptTables(stopAtOperand);
    opterr = 0;
    optind = 0;  // a full restart: every parse sees a fresh vector
    for (;;) {
        const int result = ::getopt_long(argc, argv.data(), tables.shortOptions.c_str(),
                                         tables.longOptions.data(), nullptr);
        if (result == -1) {
            break;
        }
        const std::string word = argv[std::max(1, optind - 1)];
        if (result == '?' || result == ':') {
            *error = refusal(result, word);
            return false;
        }
        const OptionSpec* optionDef = optionByCode(result);
        if (optionDef == nullptr) {
            *error = "unknown option " + word;
            return false;
        }
        const std::string name = optionDef->name;
        if ((optionDef->group & (kGlobal | kAlways)) == kGlobal && globals == nullptr) {
            *error = name + " applies to a whole kelctl run, not to one script line";
            return false;
        }
        if ((optionDef->group & (groups | kGlobal | kAlways)) == 0) {
            *error = "this command does not take " + name;
            return false;
        }
        std::string why;
        if (!optionDef->apply(optarg != nullptr ? optarg : "", *args, globals, &why)) {
            *error = name + ": " + why;
            return false;
        }
    }
    *used = static_cast<std::size_t>(optind - 1);
    for (int i = optind; !stopAtOperand && i < argc; ++i) {
        args->positional.emplace_back(argv[static_cast<std::size_t>(i)]);
    }
    return true;
}

std::string helpLines(unsigned int groups) {
    std::string text;
    for (const auto& optionDef : optionTable()) {
        const bool global = (optionDef.group & kGlobal) != 0;
        if ((optionDef.group & groups) == 0 || (global && (groups & kGlobal) == 0)) {
            continue;
        }
        const char letter = shortFormOf(optionDef);
        std::string head = letter != '\0' ? std::string("  -") + letter + ", " : "      ";
        head += optionDef.name;
        if (optionDef.value != nullptr) {
            head += std::string(" ") + optionDef.value;
        }
        if (head.size() < kHelpColumn) {
            head.resize(kHelpColumn, ' ');
        } else {
            head += "\n" + std::string(kHelpColumn, ' ');
        }
        text += head + optionDef.help + "\n";
    }
    return text;
}

}  // namespace

bool parseArgs(unsigned int groups, const std::vector<std::string>& words, Args* args,
               GlobalOptions* globals, std::string* error) {
    std::size_t used = 0;
    return parseWords(words, groups, false, args, globals, &used, error);
}

bool parseLeadingGlobals(std::vector<std::string>* words, GlobalOptions* globals,
                         std::string* error) {
    Args unused;
    std::size_t used = 0;
    if (!parseWords(*words, kGlobal, true, &unused, globals, &used, error)) {
        return false;
    }
    words->erase(words->begin(), words->begin() + static_cast<std::ptrdiff_t>(used));
    return true;
}

std::string optionsHelp(unsigned int groups) {
    return helpLines(groups | kAlways);
}

std::string globalOptionsHelp() {
    return helpLines(kGlobal);
}

bool asksForJson(const std::vector<std::string>& words) {
    static const std::string kJson = "--json";
    for (const auto& word : words) {
        if (word == "--") {
            return false;
        }
        if (word == "-j" || (word.size() >= 3 && kJson.compare(0, word.size(), word) == 0)) {
            return true;
        }
    }
    return false;
}

}  // namespace kelctl
