#include "Options.h"

#include <getopt.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "NumberText.h"  // the platform's number parsing (platform/vex)
#include "ValueNames.h"

namespace kelctl {
namespace {

// Options of the whole run (before or after the command name, never on a script line).
constexpr unsigned int kGlobal = 1u << 30;
// Options every command line takes.
constexpr unsigned int kAlways = 1u << 31;
// Where the help text of an option starts.
constexpr std::size_t kHelpColumn = 34;

using ApplyFn = bool (*)(const std::string& value, Args& args, GlobalOptions* globals,
                         std::string* why);

struct OptionSpec {
    const char* name;
    const char* value;  // what the value is, for help; null for a flag
    unsigned int group;
    const char* help;
    ApplyFn apply;
};

kel::ProfileParams& current(Args& args) {
    return args.entries.back().settings;
}

// Digits only: none of these numbers may be negative, so a sign is refused like any other letter.
std::optional<long> parseNumber(const std::string& text, unsigned long min, unsigned long max) {
    unsigned long value = 0;
    if (!vexwire::parseWhole(text, 10, &value) || value < min || value > max) {
        return std::nullopt;
    }
    return static_cast<long>(value);
}

bool isDigits(const std::string& text, std::size_t minLength, std::size_t maxLength) {
    if (text.size() < minLength || text.size() > maxLength) {
        return false;
    }
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

std::string quoted(const std::string& value) {
    return "\"" + value + "\"";
}

bool notOneOf(const std::string& value, const std::string& accepted, std::string* why) {
    *why = quoted(value) + " is not one of " + accepted;
    return false;
}

// Sets one of the 16-bit throttling settings.
template <void (kel::ProfileParams::*Setter)(int)>
bool setTimerValue(const std::string& value, Args& args, GlobalOptions*, std::string* why) {
    const auto number = parseNumber(value, 0, 65535);
    if (!number) {
        *why = quoted(value) + " is not a number from 0 to 65535";
        return false;
    }
    (current(args).*Setter)(static_cast<int>(*number));
    return true;
}

template <void (kel::ProfileParams::*Setter)(bool)>
bool setYesNo(const std::string& value, Args& args, GlobalOptions*, std::string* why) {
    const auto flag = yesNoFromName(value);
    if (!flag) {
        return notOneOf(value, "yes, no", why);
    }
    (current(args).*Setter)(*flag);
    return true;
}

bool setIp(const std::string& value, kel::ProfileParams& params, bool roaming, std::string* why) {
    const auto ip = ipFromName(value);
    if (!ip) {
        return notOneOf(value, ipNames(), why);
    }
    if (roaming) {
        params.setRoamIPType(*ip);
    } else {
        params.setHomeIPType(*ip);
    }
    return true;
}

const std::vector<OptionSpec>& optionTable() {
    static const std::vector<OptionSpec> table = {
        // Profile settings.
        {"--apn", "NAME", kSettings, "APN name (at most 150 bytes)",
         [](const std::string& v, Args& a, GlobalOptions*, std::string*) {
             current(a).setApnName(v);
             return true;
         }},
        {"--ip", "v4|v6|v4v6", kSettings, "IP type at home",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             return setIp(v, current(a), false, why);
         }},
        {"--roam-ip", "v4|v6|v4v6", kSettings, "IP type when roaming",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             return setIp(v, current(a), true, why);
         }},
        {"--types", "LIST", kSettings, "APN types, e.g. default,mms,supl (or none)",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             std::string bad;
             const auto mask = typesFromNames(v, &bad);
             if (!mask) {
                 *why = quoted(bad) + " is not an APN type; accepted: " + typeNames();
                 return false;
             }
             current(a).setApnTypesMask(*mask);
             return true;
         }},
        {"--auth", "none|pap|chap|pap_chap", kSettings, "authentication",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             const auto auth = authFromName(v);
             if (!auth) {
                 return notOneOf(v, authNames(), why);
             }
             current(a).setAuthType(*auth);
             return true;
         }},
        {"--user", "NAME", kSettings, "user name (at most 127 bytes)",
         [](const std::string& v, Args& a, GlobalOptions*, std::string*) {
             current(a).setUserName(v);
             return true;
         }},
        {"--password", "TEXT", kSettings, "password (at most 127 bytes)",
         [](const std::string& v, Args& a, GlobalOptions*, std::string*) {
             current(a).setPassword(v);
             return true;
         }},
        {"--class", "ims|admn|inet|app", kSettings, "APN class",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             const auto apnClass = classFromName(v);
             if (!apnClass) {
                 return notOneOf(v, classNames(), why);
             }
             current(a).setApnClass(*apnClass);
             return true;
         }},
        {"--clat", "yes|no", kSettings, "CLAT (464XLAT) enabled",
         setYesNo<&kel::ProfileParams::setIsClatEnabled>},
        {"--emergency-calls", "yes|no", kSettings, "the profile carries emergency calls",
         setYesNo<&kel::ProfileParams::setIsEmergencySupported>},
        {"--disabled", "yes|no", kSettings, "the APN is disabled",
         setYesNo<&kel::ProfileParams::setIsApnDisabled>},
        {"--max-conns", "N", kSettings, "PDN connections allowed per time block",
         setTimerValue<&kel::ProfileParams::setMaxPdnsConnPerBlock>},
        {"--max-conns-time", "SECONDS", kSettings, "length of that time block",
         setTimerValue<&kel::ProfileParams::setMaxPdnConnTimer>},
        {"--wait-time", "SECONDS", kSettings, "wait between PDN connection requests",
         setTimerValue<&kel::ProfileParams::setPdnReqWaitInterval>},
        {"--tech", "3gpp|3gpp2", kTech, "technology (default 3gpp)",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             const auto tech = techFromName(v);
             if (!tech) {
                 return notOneOf(v, techNames(), why);
             }
             a.entries.back().tech = *tech;
             return true;
         }},
        {"--and", nullptr, kEntries, "start the next entry",
         [](const std::string&, Args& a, GlobalOptions*, std::string*) {
             a.entries.emplace_back();
             return true;
         }},
        {"--persistent", nullptr, kPersistent, "keep the profile on the modem after kelctl exits",
         [](const std::string&, Args& a, GlobalOptions*, std::string*) {
             a.persistent = true;
             return true;
         }},
        {"--allow-update", nullptr, kAllowUpdate, "a found profile may be changed to fit",
         [](const std::string&, Args& a, GlobalOptions*, std::string*) {
             a.allowUpdate = true;
             return true;
         }},
        {"--id", "N", kFilter, "modem profile index",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             const auto id = parseNumber(v, 0, 255);
             if (!id) {
                 *why = quoted(v) + " is not a profile index from 0 to 255";
                 return false;
             }
             a.id = static_cast<int>(*id);
             return true;
         }},
        {"--criteria", "LIST", kFilter, "loosen comparisons: home-subset, apn-subset, ...",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             std::string bad;
             const auto bits = criteriaFromNames(v, &bad);
             if (!bits) {
                 *why = quoted(bad) + " is not a criterion; accepted: " + criteriaNames();
                 return false;
             }
             a.criteria |= *bits;
             return true;
         }},
        {"--kel", "yes|no", kKelFlag, "only profiles kelctl's library made (or only others)",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             const auto flag = yesNoFromName(v);
             if (!flag) {
                 return notOneOf(v, "yes, no", why);
             }
             a.kel = *flag;
             return true;
         }},
        {"--ia", "yes|no", kIaFlag, "the initial-attach profile (kel_profile_ia)",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             const auto flag = yesNoFromName(v);
             if (!flag) {
                 return notOneOf(v, "yes, no", why);
             }
             a.ia = *flag;
             return true;
         }},
        {"--json", nullptr, kAlways | kGlobal, "print one JSON document",
         [](const std::string&, Args& a, GlobalOptions* g, std::string*) {
             a.json = true;
             if (g != nullptr) {
                 g->json = true;
             }
             return true;
         }},
        {"--truncate", nullptr, kAlways | kGlobal, "cut values too long for their modem field",
         [](const std::string&, Args& a, GlobalOptions* g, std::string*) {
             a.truncate = true;
             if (g != nullptr) {
                 g->truncate = true;
             }
             return true;
         }},
        {"--mcc", "MCC", kCarrier, "mobile country code (up to 3 digits)",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             if (!isDigits(v, 1, 3)) {
                 *why = quoted(v) + " is not a mobile country code of up to 3 digits";
                 return false;
             }
             a.mcc = v;
             return true;
         }},
        {"--mnc", "MNC", kCarrier, "mobile network code (up to 3 digits)",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             if (!isDigits(v, 1, 3)) {
                 *why = quoted(v) + " is not a mobile network code of up to 3 digits";
                 return false;
             }
             a.mnc = v;
             return true;
         }},
        {"--mvno-type", "spn|imsi|gid|iccid", kCarrier, "select a virtual operator's entries",
         [](const std::string& v, Args& a, GlobalOptions*, std::string* why) {
             const std::string type = lower(v);
             if (type != "spn" && type != "imsi" && type != "gid" && type != "iccid") {
                 return notOneOf(v, "spn, imsi, gid, iccid", why);
             }
             a.mvnoType = type;
             return true;
         }},
        {"--mvno-match", "DATA", kCarrier, "the virtual operator's match data",
         [](const std::string& v, Args& a, GlobalOptions*, std::string*) {
             a.mvnoMatch = v;
             return true;
         }},
        {"--dry-run", nullptr, kDryRun, "print what would change on the modem; change nothing",
         [](const std::string&, Args& a, GlobalOptions*, std::string*) {
             a.dryRun = true;
             return true;
         }},
        {"--create", nullptr, kCarrier,
         "create a persistent profile for each APN of the carrier that no profile carries",
         [](const std::string&, Args& a, GlobalOptions*, std::string*) {
             a.create = true;
             return true;
         }},
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
        {"--echo", nullptr, kEcho, "print each script line before running it",
         [](const std::string&, Args& a, GlobalOptions*, std::string*) {
             a.echo = true;
             return true;
         }},
        // The whole run.
        {"--modem", "DIR", kGlobal, "use the running modem serving in DIR (default: embedded)",
         [](const std::string& v, Args&, GlobalOptions* g, std::string*) {
             g->modemDir = v;
             return true;
         }},
        {"--embedded", nullptr, kGlobal, "use the embedded modem even if VEX_SERVICE_DIR is set",
         [](const std::string&, Args&, GlobalOptions* g, std::string*) {
             g->embedded = true;
             return true;
         }},
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
             char* end = nullptr;
             const double seconds = std::strtod(v.c_str(), &end);
             if (v.empty() || *end != '\0' || !(seconds > 0) || seconds > 3600) {
                 *why = quoted(v) + " is not a number of seconds above 0 and at most 3600";
                 return false;
             }
             g->timeoutMs = std::max(1, static_cast<int>(std::lround(seconds * 1000)));
             g->timeoutGiven = true;
             return true;
         }},
        {"--show-secrets", nullptr, kGlobal, "print passwords in clear (hidden by default)",
         [](const std::string&, Args&, GlobalOptions* g, std::string*) {
             g->showSecrets = true;
             return true;
         }},
        {"--reference", nullptr, kGlobal,
         "run the library with its safe-mode switches off, as it behaves by default",
         [](const std::string&, Args&, GlobalOptions* g, std::string*) {
             g->reference = true;
             return true;
         }},
        {"--version", nullptr, kGlobal, "print kelctl's and the library's version",
         [](const std::string&, Args&, GlobalOptions* g, std::string*) {
             g->version = true;
             return true;
         }},
        {"--verbose", nullptr, kAlways | kGlobal, "show the library's log and more detail",
         [](const std::string&, Args& a, GlobalOptions* g, std::string*) {
             a.verbose = true;
             if (g != nullptr) {
                 g->verbose = true;
             }
             return true;
         }},
        {"--help", nullptr, kAlways | kGlobal, "show this help",
         [](const std::string&, Args& a, GlobalOptions* g, std::string*) {
             a.help = true;
             if (g != nullptr) {
                 g->help = true;
             }
             return true;
         }},
    };
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
