// vex-modemd: the simulated modem as a foreground daemon, with a control socket for
// vex-modemctl. Stops cleanly on SIGINT or SIGTERM.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ModemControl.h"
#include "VexWire.h"
#include "vexsim/SimModem.h"

namespace {

using vexwire::UniqueFd;

constexpr size_t kMaxCommandBytes = 64 * 1024;
constexpr int kCommandTimeoutMs = 5000;

const char* const kUsage =
    "usage: vex-modemd [options]\n"
    "  --seed FILE           initial profiles (see docs/platform.md); none when absent\n"
    "  --state FILE          keep persistent profiles here across restarts\n"
    "  --dir DIR             service directory (default: $VEX_SERVICE_DIR, else "
    "/tmp/vex-services)\n"
    "  --subscriptions N     number of subscriptions (default 2)\n"
    "  --capacity-3gpp N     3GPP profiles per subscription (default 24)\n"
    "  --capacity-3gpp2 N    3GPP2 profiles per subscription (default 8)\n"
    "  --no-ready-on-register  do not send profiles-ready to newly registered clients\n";

bool parseCount(const char* text, int max, int* value) {
    char* end = nullptr;
    long parsed = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || parsed < 1 || parsed > max) {
        return false;
    }
    *value = static_cast<int>(parsed);
    return true;
}

// Returns 0 to go on, or the exit status.
int parseOptions(int argc, char** argv, vexsim::Config* config) {
    for (int i = 1; i < argc; ++i) {
        std::string option = argv[i];
        if (option == "--help" || option == "-h") {
            std::fputs(kUsage, stdout);
            return -1;
        }
        if (option == "--no-ready-on-register") {
            config->profilesReadyOnRegister = false;
            continue;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "vex-modemd: %s needs a value\n%s", option.c_str(), kUsage);
            return 2;
        }
        const char* value = argv[++i];
        bool ok = true;
        if (option == "--seed") {
            config->seedFile = value;
        } else if (option == "--state") {
            config->stateFile = value;
        } else if (option == "--dir") {
            config->serviceDir = value;
        } else if (option == "--subscriptions") {
            ok = parseCount(value, 16, &config->subscriptions);
        } else if (option == "--capacity-3gpp") {
            ok = parseCount(value, 255, &config->capacity3gpp);
        } else if (option == "--capacity-3gpp2") {
            ok = parseCount(value, 255, &config->capacity3gpp2);
        } else {
            std::fprintf(stderr, "vex-modemd: unknown option %s\n%s", option.c_str(), kUsage);
            return 2;
        }
        if (!ok) {
            std::fprintf(stderr, "vex-modemd: bad value for %s: %s\n", option.c_str(), value);
            return 2;
        }
    }
    return 0;
}

// Reads one command: NUL-ended arguments up to the end of the stream.
bool readCommand(int fd, std::vector<std::string>* args) {
    std::string bytes;
    char chunk[4096];
    while (bytes.size() <= kMaxCommandBytes) {
        pollfd pfd{fd, POLLIN, 0};
        if (::poll(&pfd, 1, kCommandTimeoutMs) <= 0) {
            return false;
        }
        ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            break;
        }
        bytes.append(chunk, static_cast<size_t>(n));
    }
    if (bytes.size() > kMaxCommandBytes || (!bytes.empty() && bytes.back() != '\0')) {
        return false;
    }
    for (size_t start = 0; start < bytes.size();) {
        size_t end = bytes.find('\0', start);
        args->push_back(bytes.substr(start, end - start));
        start = end + 1;
    }
    return true;
}

// Serves vex-modemctl, one command at a time. Threads: its own thread; stop() from main.
class ControlServer {
  public:
    ControlServer(vexsim::SimModem& modem, int subscriptions)
        : control(modem, subscriptions), wake(vexwire::makeWakeFd()) {}

    bool start(const std::string& path, std::string* error) {
        socketPath = path;
        if (vexwire::connectUnix(path)) {
            *error = "another vex-modemd serves " + path;
            return false;
        }
        ::unlink(path.c_str());
        listenFd = vexwire::listenUnix(path, error);
        if (!listenFd || !wake) {
            return false;
        }
        thread = std::thread([this] { serve(); });
        return true;
    }

    void stop() {
        vexwire::signalWakeFd(wake.get());
        if (thread.joinable()) {
            thread.join();
        }
        if (listenFd) {
            ::unlink(socketPath.c_str());
        }
    }

  private:
    void serve() {
        for (;;) {
            pollfd fds[2] = {{wake.get(), POLLIN, 0}, {listenFd.get(), POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0 && errno != EINTR) {
                return;
            }
            if (fds[0].revents != 0) {
                return;
            }
            UniqueFd conn(::accept4(listenFd.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!conn) {
                continue;
            }
            std::vector<std::string> args;
            vexmodemd::Reply reply = readCommand(conn.get(), &args)
                                         ? control.execute(args)
                                         : vexmodemd::Reply{false, "unreadable command"};
            std::string text = vexmodemd::encodeReply(reply);
            vexwire::writeAll(conn.get(), reinterpret_cast<const uint8_t*>(text.data()),
                              text.size(),
                              vexwire::Clock::now() + std::chrono::milliseconds(kCommandTimeoutMs));
        }
    }

    vexmodemd::ModemControl control;
    UniqueFd wake;
    UniqueFd listenFd;
    std::string socketPath;
    std::thread thread;
};

}  // namespace

int main(int argc, char** argv) {
    vexsim::Config config;
    int status = parseOptions(argc, argv, &config);
    if (status != 0) {
        return status < 0 ? 0 : status;
    }
    // Blocked before any thread starts, so that only sigwait below receives them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    vexsim::SimModem modem(config);
    std::string error;
    if (!modem.start(&error)) {
        std::fprintf(stderr, "vex-modemd: %s\n", error.c_str());
        return 1;
    }
    ControlServer server(modem, config.subscriptions);
    std::string controlPath = modem.serviceDir() + "/" + vexmodemd::kControlSocketName;
    if (!server.start(controlPath, &error)) {
        std::fprintf(stderr, "vex-modemd: %s\n", error.c_str());
        return 1;
    }
    std::printf("vex-modemd: serving WDS in %s (control: %s)\n", modem.serviceDir().c_str(),
                controlPath.c_str());
    std::fflush(stdout);

    int received = 0;
    sigwait(&signals, &received);
    server.stop();
    modem.stop();
    std::printf("vex-modemd: stopped by %s\n", received == SIGINT ? "SIGINT" : "SIGTERM");
    return 0;
}
