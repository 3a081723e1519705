// vex-modemctl: tells a running vex-modemd what to do, and prints what it answers.
#include <getopt.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "ModemControl.h"
#include "NumberText.h"
#include "ToolOptions.h"
#include "VexWire.h"

namespace {

// The bound of the connect, and then of the exchange after it; the daemon itself gives a command
// two seconds.
constexpr auto kExchangeTimeout = std::chrono::milliseconds(10000);
// A reply larger than this is not one the daemon sends.
constexpr size_t kMaxReplyBytes = 16 * 1024 * 1024;
constexpr int kLongestWaitSeconds = 60;

const char* const kUsage =
    "usage: vex-modemctl [--dir DIR] [--wait SECONDS] COMMAND [ARGS...]\n"
    "  --dir DIR         service directory of the daemon (default: $VEX_SERVICE_DIR, else\n"
    "                    $XDG_RUNTIME_DIR/vex-services, else /tmp/vex-services-UID)\n"
    "  --wait SECONDS    wait up to SECONDS (at most 60) for a daemon that is starting\n"
    "  -h, --help        show this and exit\n"
    "  -V, --version     show the version and exit\n"
    "Run 'vex-modemctl help' for the commands.\n";

struct Options {
    std::string dir = vexwire::serviceDirectory();
    int waitSeconds = 0;
    int command = 0;  // argv index of the command
};

// As getopt_long reads them, up to the command: what follows it is the command's own. Returns 0
// to go on, or the exit status plus one.
int parseOptions(int argc, char** argv, Options* options) {
    enum { kDir = 256, kWait };
    static const option kOptions[] = {
        {"dir", required_argument, nullptr, kDir},
        {"wait", required_argument, nullptr, kWait},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    // "+": options end at the command, whose arguments may look like options.
    const int status = vexmodemd::readToolOptions(
        argc, argv, {"vex-modemctl", kUsage, "+:hV", kOptions}, [&](int code, const std::string&) {
            unsigned int seconds = 0;
            switch (code) {
                case kDir:
                    options->dir = optarg;
                    break;
                case kWait:
                    if (!vexwire::parseWhole(optarg, 10, &seconds) ||
                        seconds > static_cast<unsigned int>(kLongestWaitSeconds)) {
                        return vexmodemd::usageError(
                                   "vex-modemctl", "--wait: \"" + std::string(optarg) +
                                                       "\" is not a number of seconds from 0 to " +
                                                       std::to_string(kLongestWaitSeconds)) +
                               1;
                    }
                    options->waitSeconds = static_cast<int>(seconds);
                    break;
            }
            return 0;
        });
    if (status != 0) {
        return status;
    }
    if (optind >= argc) {
        std::fputs(
            "vex-modemctl: no command given (vex-modemctl --help shows the options, "
            "'vex-modemctl help' the commands)\n",
            stderr);
        return 3;
    }
    options->command = optind;
    return 0;
}

// Connects to the control socket, retrying until waitUntil while no daemon listens yet. A
// directory that is missing only means no daemon (yet); one that is not this user's is refused.
vexwire::UniqueFd connectControl(const std::string& dir, const std::string& path,
                                 vexwire::Clock::time_point waitUntil,
                                 vexwire::ConnectOutcome* outcome, std::string* refusal) {
    for (;;) {
        std::string reason;
        bool missing = false;
        if (!vexwire::checkServiceDirectory(dir, &reason, &missing) && !missing) {
            *refusal = "refusing service directory " + reason;
            return {};
        }
        vexwire::UniqueFd connected =
            vexwire::connectUnix(path, vexwire::Clock::now() + kExchangeTimeout, outcome);
        if (connected || outcome->status != vexwire::ConnectStatus::NoService ||
            vexwire::Clock::now() >= waitUntil) {
            return connected;
        }
        ::poll(nullptr, 0, 50);
    }
}

bool readReply(int fd, vexwire::Clock::time_point deadline, std::string* reply) {
    char chunk[4096];
    while (reply->size() <= kMaxReplyBytes) {
        auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - vexwire::Clock::now());
        pollfd pfd{fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&pfd, 1, static_cast<int>(left.count()) + 1) <= 0) {
            return false;
        }
        ssize_t n = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (n == 0) {
            return true;
        }
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
            return false;
        }
        if (n > 0) {
            reply->append(chunk, static_cast<size_t>(n));
        }
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const int status = parseOptions(argc, argv, &options); status != 0) {
        return status - 1;
    }
    const std::string& dir = options.dir;
    const int waitSeconds = options.waitSeconds;
    const int first = options.command;
    std::string path = dir + "/" + vexmodemd::kControlSocketName;
    vexwire::ConnectOutcome outcome;
    std::string refusal;
    vexwire::UniqueFd fd = connectControl(
        dir, path, vexwire::Clock::now() + std::chrono::seconds(waitSeconds), &outcome, &refusal);
    if (!refusal.empty()) {
        std::fprintf(stderr, "vex-modemctl: %s\n", refusal.c_str());
        return 1;
    }
    if (outcome.status == vexwire::ConnectStatus::UntrustedPeer) {
        std::fprintf(stderr, "vex-modemctl: refusing the daemon: %s\n",
                     vexwire::untrustedPeerText(path, outcome.peerUid).c_str());
        return 1;
    }
    if (!fd) {
        std::fprintf(stderr, "vex-modemctl: no vex-modemd answers at %s\n", path.c_str());
        return 1;
    }
    const auto deadline = vexwire::Clock::now() + kExchangeTimeout;
    std::string request;
    for (int i = first; i < argc; ++i) {
        request.append(argv[i]).push_back('\0');
    }
    if (vexwire::writeAll(fd.get(), reinterpret_cast<const uint8_t*>(request.data()),
                          request.size(), deadline) != request.size()) {
        std::fprintf(stderr, "vex-modemctl: cannot send the command to %s\n", path.c_str());
        return 1;
    }
    ::shutdown(fd.get(), SHUT_WR);
    std::string reply;
    if (!readReply(fd.get(), deadline, &reply) || reply.empty()) {
        std::fprintf(stderr, "vex-modemctl: no answer from %s\n", path.c_str());
        return 1;
    }
    size_t eol = reply.find('\n');
    std::string status = reply.substr(0, eol);
    std::string output = eol == std::string::npos ? "" : reply.substr(eol + 1);
    if (status != "ok") {
        // A command the daemon does not know, or wrong arguments, is a wrong command line.
        const bool wrong = status.rfind(vexmodemd::kWrongPrefix, 0) == 0;
        const std::size_t skip = wrong ? std::strlen(vexmodemd::kWrongPrefix)
                                 : status.rfind("error: ", 0) == 0 ? 7
                                                                   : 0;
        std::fprintf(stderr, "vex-modemctl: %s\n", status.c_str() + skip);
        return wrong ? 2 : 1;
    }
    std::fputs(output.c_str(), stdout);
    return 0;
}
