// vex-modemctl: tells a running vex-modemd what to do, and prints what it answers.
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ModemControl.h"
#include "VexWire.h"

namespace {

constexpr int kReplyTimeoutMs = 30000;
constexpr int kLongestWaitSeconds = 60;

const char* const kUsage =
    "usage: vex-modemctl [--dir DIR] [--wait SECONDS] COMMAND [ARGS...]\n"
    "  --dir DIR         service directory of the daemon (default: $VEX_SERVICE_DIR, else "
    "/tmp/vex-services)\n"
    "  --wait SECONDS    wait up to SECONDS (at most 60) for a daemon that is starting\n"
    "Run 'vex-modemctl help' for the commands.\n";

// Connects to the control socket, retrying until the deadline while no daemon listens yet.
vexwire::UniqueFd connectControl(const std::string& path, vexwire::Clock::time_point deadline) {
    for (;;) {
        vexwire::UniqueFd connected = vexwire::connectUnix(path);
        if (connected || vexwire::Clock::now() >= deadline) {
            return connected;
        }
        ::poll(nullptr, 0, 50);
    }
}

bool readReply(int fd, std::string* reply) {
    char chunk[4096];
    for (;;) {
        pollfd pfd{fd, POLLIN, 0};
        if (::poll(&pfd, 1, kReplyTimeoutMs) <= 0) {
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
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir = vexwire::serviceDirectory();
    int waitSeconds = 0;
    int first = 1;
    while (first + 1 < argc &&
           (std::strcmp(argv[first], "--dir") == 0 || std::strcmp(argv[first], "--wait") == 0)) {
        if (std::strcmp(argv[first], "--dir") == 0) {
            dir = argv[first + 1];
        } else {
            char* end = nullptr;
            const long seconds = std::strtol(argv[first + 1], &end, 10);
            if (*argv[first + 1] == '\0' || *end != '\0' || seconds < 0 ||
                seconds > kLongestWaitSeconds) {
                std::fprintf(stderr,
                             "vex-modemctl: --wait: \"%s\" is not a number of seconds "
                             "from 0 to %d\n",
                             argv[first + 1], kLongestWaitSeconds);
                return 2;
            }
            waitSeconds = static_cast<int>(seconds);
        }
        first += 2;
    }
    if (first >= argc || std::strcmp(argv[first], "--help") == 0) {
        std::fputs(kUsage, first >= argc ? stderr : stdout);
        return first >= argc ? 2 : 0;
    }
    std::string path = dir + "/" + vexmodemd::kControlSocketName;
    vexwire::UniqueFd fd =
        connectControl(path, vexwire::Clock::now() + std::chrono::seconds(waitSeconds));
    if (!fd) {
        std::fprintf(stderr, "vex-modemctl: no vex-modemd answers at %s\n", path.c_str());
        return 1;
    }
    std::string request;
    for (int i = first; i < argc; ++i) {
        request.append(argv[i]).push_back('\0');
    }
    auto deadline = vexwire::Clock::now() + std::chrono::milliseconds(kReplyTimeoutMs);
    if (vexwire::writeAll(fd.get(), reinterpret_cast<const uint8_t*>(request.data()),
                          request.size(), deadline) != request.size()) {
        std::fprintf(stderr, "vex-modemctl: cannot send the command to %s\n", path.c_str());
        return 1;
    }
    ::shutdown(fd.get(), SHUT_WR);
    std::string reply;
    if (!readReply(fd.get(), &reply) || reply.empty()) {
        std::fprintf(stderr, "vex-modemctl: no answer from %s\n", path.c_str());
        return 1;
    }
    size_t eol = reply.find('\n');
    std::string status = reply.substr(0, eol);
    std::string output = eol == std::string::npos ? "" : reply.substr(eol + 1);
    if (status != "ok") {
        std::fprintf(stderr, "vex-modemctl: %s\n",
                     status.rfind("error: ", 0) == 0 ? status.c_str() + 7 : status.c_str());
        return 1;
    }
    std::fputs(output.c_str(), stdout);
    return 0;
}
