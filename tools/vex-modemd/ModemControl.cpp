#include "ModemControl.h"

#include <cstdio>

#include "NumberText.h"
#include "ProfileText.h"

namespace vexmodemd {
namespace {

const char* const kHelp =
    "status                              whether the modem is up, and where\n"
    "profiles [SUB]                      the profile tables, one profile line each\n"
    "clients                             connected clients and their registrations\n"
    "create 3gpp|3gpp2 [sub=N] KEY=VALUE...   create a profile as another client would\n"
    "modify 3gpp|3gpp2 [sub=N] index=N KEY=VALUE...\n"
    "delete 3gpp|3gpp2 [sub=N] index=N\n"
    "subscription-change [SUB]           announce a subscription change\n"
    "profiles-ready [SUB]                announce that the profiles are ready\n"
    "ready-on-register on|off            profiles-ready to each newly registered client\n"
    "fail-next COUNT [MSGID [ERROR]]     answer the next requests with a failed result\n"
    "delay MS [MSGID]                    hold responses back; 0 turns it off\n"
    "drop CLIENT                         close a client's connection\n"
    "down | up | restart                 take the modem down, bring it up\n"
    "ind-unknown [MSGID [SUB]]           send an indication of an unknown id\n"
    "ind-malformed [SUB]                 send a profile-changed indication that cannot decode\n"
    "ind-burst COUNT [SUB]               send COUNT modify events back to back\n";

// A command line the daemon does not take.
Reply fail(const std::string& reason) {
    return Reply{false, reason, true};
}

// A command the modem, as it is now, does not carry out.
Reply refuse(const std::string& reason) {
    return Reply{false, reason, false};
}

bool parseUnsigned(const std::string& text, unsigned long max, unsigned long* value) {
    return vexwire::parseUnsignedC(text, max, value);
}

std::string hex(unsigned int value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%04x", value);
    return text;
}

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

// Rebuilds a profile line from shell words, quoting the values the shell has unquoted.
std::string profileLine(const std::vector<std::string>& words) {
    std::string line = "profile";
    for (const std::string& word : words) {
        size_t eq = word.find('=');
        line += " ";
        line += eq == std::string::npos
                    ? word
                    : word.substr(0, eq + 1) + vexsim::quoteValue(word.substr(eq + 1));
    }
    return line;
}

bool hasKey(const std::vector<std::string>& words, const std::string& key) {
    for (const std::string& word : words) {
        if (word.rfind(key + "=", 0) == 0) {
            return true;
        }
    }
    return false;
}

std::string describe(const vexsim::Profile& profile) {
    return std::string(profile.type == WDS_PROFILE_TYPE_3GPP_V01 ? "3gpp" : "3gpp2") +
           " sub=" + std::to_string(profile.subscription) +
           " index=" + std::to_string(profile.index);
}

}  // namespace

Reply ModemControl::execute(const std::vector<std::string>& args) {
    if (args.empty()) {
        return fail("no command; try 'help'");
    }
    const std::string& command = args[0];
    std::vector<std::string> rest(args.begin() + 1, args.end());
    if (command == "help") {
        return Reply{true, kHelp};
    }
    if (command == "status") {
        return Reply{true, std::string(modem.isUp() ? "up " : "down ") + modem.serviceDir() + "\n"};
    }
    if (command == "profiles") {
        return profiles(rest);
    }
    if (command == "clients") {
        return clients();
    }
    if (command == "create" || command == "modify" || command == "delete") {
        return change(command, rest);
    }
    if (command == "subscription-change" || command == "profiles-ready") {
        return announce(command, rest);
    }
    if (command == "fail-next" || command == "delay" || command == "drop" ||
        command == "ready-on-register") {
        return faults(command, rest);
    }
    if (command == "ind-unknown" || command == "ind-malformed" || command == "ind-burst") {
        return indications(command, rest);
    }
    if (command == "down" || command == "up" || command == "restart") {
        if (!rest.empty()) {
            return fail(command + " takes no arguments");
        }
        return power(command);
    }
    return fail("unknown command '" + command + "'; try 'help'");
}

bool ModemControl::parseSubscription(const std::string& text, int* subscription,
                                     Reply* error) const {
    unsigned long value;
    if (!parseUnsigned(text, static_cast<unsigned long>(subscriptions - 1), &value)) {
        *error = fail("bad subscription '" + text + "' (the modem has " +
                      std::to_string(subscriptions) + ")");
        return false;
    }
    *subscription = static_cast<int>(value);
    return true;
}

Reply ModemControl::profiles(const std::vector<std::string>& args) {
    int first = 0, last = subscriptions - 1;
    Reply error;
    if (args.size() > 1) {
        return fail("usage: profiles [SUB]");
    }
    if (args.size() == 1) {
        if (!parseSubscription(args[0], &first, &error)) {
            return error;
        }
        last = first;
    }
    std::string out;
    for (int sub = first; sub <= last; ++sub) {
        for (const vexsim::Profile& profile : modem.profiles(sub)) {
            out += vexsim::formatProfile(profile) + "\n";
        }
    }
    return Reply{true, out};
}

Reply ModemControl::clients() {
    std::string out;
    for (const vexsim::ClientInfo& c : modem.clients()) {
        out += "client " + std::to_string(c.id);
        if (c.notifierOnly) {
            out += " notifier\n";
            continue;
        }
        out += std::string(" bound=") + yesNo(c.bound) + " sub=" + std::to_string(c.subscription) +
               " indications=" + yesNo(c.indicationsRegistered) +
               " events=" + yesNo(c.eventListConfigured) + " ready=" + yesNo(c.profilesReadySent) +
               " requests=" + std::to_string(c.requestsServed) +
               " indications_sent=" + std::to_string(c.indicationsSent) +
               " last=" + hex(c.lastMessageId) + "\n";
    }
    return Reply{true, out.empty() ? "no clients\n" : out};
}

Reply ModemControl::change(const std::string& command, const std::vector<std::string>& args) {
    std::vector<vexsim::Profile> parsed;
    std::string why;
    if (!vexsim::parseProfiles(profileLine(args), &parsed, &why) || parsed.size() != 1) {
        // The words are one line; its number says nothing to the user.
        return fail(why.rfind("line 1: ", 0) == 0 ? why.substr(8) : why);
    }
    vexsim::Profile& profile = parsed[0];
    if (profile.subscription >= subscriptions) {
        return fail("bad subscription " + std::to_string(profile.subscription) +
                    " (the modem has " + std::to_string(subscriptions) + ")");
    }
    if (command == "create") {
        if (profile.index != 0) {
            return fail("create: the modem assigns the index");
        }
        auto index = modem.createProfile(profile.subscription, profile.type, profile.settings,
                                         profile.persistent);
        if (!index) {
            return refuse("create: the modem refused (down, table full or bad settings)");
        }
        profile.index = *index;
        return Reply{true, "created " + describe(profile) + "\n"};
    }
    if (profile.index == 0) {
        return fail(command + ": index=N is required");
    }
    if (command == "delete") {
        if (args.size() > 3 || (args.size() == 3 && !hasKey(args, "sub"))) {
            return fail("delete takes only the type, sub=N and index=N");
        }
        if (!modem.deleteProfile(profile.subscription, profile.type, profile.index)) {
            return refuse("delete: no such profile: " + describe(profile));
        }
        return Reply{true, "deleted " + describe(profile) + "\n"};
    }
    if (hasKey(args, "persistent")) {
        return fail("modify: persistence cannot be changed");
    }
    if (!modem.modifyProfile(profile.subscription, profile.type, profile.index, profile.settings)) {
        return refuse("modify: no such profile: " + describe(profile));
    }
    return Reply{true, "modified " + describe(profile) + "\n"};
}

Reply ModemControl::announce(const std::string& command, const std::vector<std::string>& args) {
    int sub = 0;
    Reply error;
    if (args.size() > 1) {
        return fail("usage: " + command + " [SUB]");
    }
    if (args.size() == 1 && !parseSubscription(args[0], &sub, &error)) {
        return error;
    }
    if (command == "subscription-change") {
        modem.announceSubscriptionChange(sub);
    } else {
        modem.announceProfilesReady(sub);
    }
    return Reply{true, "announced " + command + " on sub " + std::to_string(sub) + "\n"};
}

Reply ModemControl::faults(const std::string& command, const std::vector<std::string>& args) {
    unsigned long a = 0, b = 0, c = VEX_ERR_INTERNAL_V01;
    if (command == "ready-on-register") {
        if (args.size() != 1 || (args[0] != "on" && args[0] != "off")) {
            return fail("usage: ready-on-register on|off");
        }
        modem.setProfilesReadyOnRegister(args[0] == "on");
        return Reply{true, "profiles-ready on register " + args[0] + "\n"};
    }
    if (command == "drop") {
        if (args.size() != 1 || !parseUnsigned(args[0], 0x7FFFFFFF, &a)) {
            return fail("usage: drop CLIENT");
        }
        if (!modem.dropClient(static_cast<int>(a))) {
            return refuse("no client " + args[0]);
        }
        return Reply{true, "dropped client " + args[0] + "\n"};
    }
    size_t maxArgs = command == "fail-next" ? 3 : 2;
    if (args.empty() || args.size() > maxArgs || !parseUnsigned(args[0], 0x7FFFFFFF, &a) ||
        (args.size() > 1 && !parseUnsigned(args[1], 0xFFFF, &b)) ||
        (args.size() > 2 && !parseUnsigned(args[2], 0xFFFF, &c))) {
        return fail(command == "fail-next" ? "usage: fail-next COUNT [MSGID [ERROR]]"
                                           : "usage: delay MS [MSGID]");
    }
    std::optional<unsigned int> msgId;
    std::string which = "every request";
    if (args.size() > 1) {
        msgId = static_cast<unsigned int>(b);
        which = "requests " + hex(*msgId);
    }
    if (command == "fail-next") {
        modem.failNext(static_cast<int>(a), msgId, static_cast<int>(c));
        std::string ofId = msgId ? " with id " + hex(*msgId) : "";
        return Reply{true, "failing the next " + std::to_string(a) +
                               (a == 1 ? " request" : " requests") + ofId + " with error " +
                               hex(static_cast<unsigned int>(c)) + "\n"};
    }
    modem.setResponseDelay(std::chrono::milliseconds(a), msgId);
    if (a == 0) {
        return Reply{true, "responses to " + which + " no longer delayed\n"};
    }
    return Reply{true, "responses to " + which + " delayed by " + std::to_string(a) + " ms\n"};
}

Reply ModemControl::indications(const std::string& command, const std::vector<std::string>& args) {
    int sub = 0;
    unsigned long value = 0x0777;
    Reply error;
    if (command == "ind-malformed") {
        if (args.size() > 1 || (args.size() == 1 && !parseSubscription(args[0], &sub, &error))) {
            return args.size() > 1 ? fail("usage: ind-malformed [SUB]") : error;
        }
        modem.sendMalformedIndication(sub);
        return Reply{true, "sent a malformed indication on sub " + std::to_string(sub) + "\n"};
    }
    bool burst = command == "ind-burst";
    if ((burst && args.empty()) || args.size() > 2 ||
        (!args.empty() && !parseUnsigned(args[0], burst ? 100000 : 0xFFFF, &value))) {
        return fail(burst ? "usage: ind-burst COUNT [SUB]" : "usage: ind-unknown [MSGID [SUB]]");
    }
    if (args.size() == 2 && !parseSubscription(args[1], &sub, &error)) {
        return error;
    }
    if (burst) {
        modem.sendIndicationBurst(sub, static_cast<int>(value));
        return Reply{true, "sent " + std::to_string(value) + " modify events on sub " +
                               std::to_string(sub) + "\n"};
    }
    modem.sendUnknownIndication(sub, static_cast<unsigned int>(value));
    return Reply{true, "sent indication " + hex(static_cast<unsigned int>(value)) + " on sub " +
                           std::to_string(sub) + "\n"};
}

Reply ModemControl::power(const std::string& command) {
    if (command == "down" || command == "restart") {
        modem.stop();
    }
    if (command == "up" || command == "restart") {
        std::string why;
        if (!modem.start(&why)) {
            return refuse("cannot come up: " + why);
        }
    }
    return Reply{true, std::string(modem.isUp() ? "up" : "down") + "\n"};
}

std::string encodeReply(const Reply& reply) {
    if (!reply.ok) {
        std::string reason = reply.text;
        for (char& ch : reason) {
            ch = ch == '\n' ? ' ' : ch;
        }
        return (reply.wrong ? kWrongPrefix : "error: ") + reason + "\n";
    }
    return "ok\n" + reply.text;
}

}  // namespace vexmodemd
