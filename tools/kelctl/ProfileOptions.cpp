// The options of the commands that describe a profile: its settings, which technology, and how
// the library may find, keep or change it.
#include "Options.h"
#include "ValueNames.h"

namespace kelctl {
namespace {

kel::ProfileParams& current(Args& args) {
    return args.entries.back().settings;
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

// Sets --kel or --ia: which profiles a filter takes.
template <std::optional<bool> Args::*Choice>
bool setChoice(const std::string& value, Args& args, GlobalOptions*, std::string* why) {
    const auto flag = yesNoFromName(value);
    if (!flag) {
        return notOneOf(value, "yes, no", why);
    }
    args.*Choice = *flag;
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

}  // namespace

const std::vector<OptionSpec>& profileOptions() {
    static const std::vector<OptionSpec> table = {
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
         setFlag<&Args::persistent>},
        {"--allow-update", nullptr, kAllowUpdate, "a found profile may be changed to fit",
         setFlag<&Args::allowUpdate>},
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
         setChoice<&Args::kel>},
        {"--ia", "yes|no", kIaFlag, "the initial-attach profile (kel_profile_ia)",
         setChoice<&Args::ia>},
    };
    return table;
}

}  // namespace kelctl
