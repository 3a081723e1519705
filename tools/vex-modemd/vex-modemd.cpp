// vex-modemd: the simulated modem as a foreground daemon, with a control socket for
// vex-modemctl. Stops cleanly on SIGINT or SIGTERM.
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ModemControl.h"
#include "NumberText.h"
#include "ToolOptions.h"
#include "VexWire.h"
#include "vexsim/SimModem.h"

namespace {

using vexwire::Clock;
using vexwire::UniqueFd;

constexpr size_t kMaxCommandBytes = 64 * 1024;
// From accept to the last byte of the reply; a command itself takes milliseconds.
constexpr auto kCommandTimeout = std::chrono::milliseconds(2000);
constexpr int kMaxControlConnections = 16;

const char* const kUsage =
    "usage: vex-modemd [options]\n"
    "  --seed FILE             initial profiles (see docs/platform.md); none when absent\n"
    "  --state FILE            keep persistent profiles here across restarts\n"
    "  --dir DIR               service directory (default: $VEX_SERVICE_DIR, else\n"
    "                          $XDG_RUNTIME_DIR/vex-services, else /tmp/vex-services-UID)\n"
    "  --subscriptions N       number of subscriptions (default 2)\n"
    "  --capacity-3gpp N       3GPP profiles per subscription (default 24)\n"
    "  --capacity-3gpp2 N      3GPP2 profiles per subscription (default 8)\n"
    "  --no-ready-on-register  do not send profiles-ready to newly registered clients\n"
    "  -h, --help              show this and exit\n"
    "  -V, --version           show the version and exit\n";

bool parseCount(const char* text, int max, int* value) {
    unsigned int parsed = 0;
    if (!vexwire::parseWhole(text, 10, &parsed) || parsed < 1 ||
        parsed > static_cast<unsigned int>(max)) {
        return false;
    }
    *value = static_cast<int>(parsed);
    return true;
}

enum LongOnly {
    kSeed = 256,
    kState,
    kDir,
    kSubscriptions,
    kCapacity3gpp,
    kCapacity3gpp2,
    kNoReady
};

// Returns 0 to go on, or the exit status plus one (--help and --version exit 0).
int parseOptions(int argc, char** argv, vexsim::Config* config) {
    static const option kOptions[] = {
        {"seed", required_argument, nullptr, kSeed},
        {"state", required_argument, nullptr, kState},
        {"dir", required_argument, nullptr, kDir},
        {"subscriptions", required_argument, nullptr, kSubscriptions},
        {"capacity-3gpp", required_argument, nullptr, kCapacity3gpp},
        {"capacity-3gpp2", required_argument, nullptr, kCapacity3gpp2},
        {"no-ready-on-register", no_argument, nullptr, kNoReady},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    const int status = vexmodemd::readToolOptions(
        argc, argv, {"vex-modemd", kUsage, ":hV", kOptions},
        [&](int code, const std::string& name) {
            bool ok = true;
            switch (code) {
                case kSeed:
                    config->seedFile = optarg;
                    break;
                case kState:
                    config->stateFile = optarg;
                    break;
                case kDir:
                    config->serviceDir = optarg;
                    break;
                case kSubscriptions:
                    ok = parseCount(optarg, 16, &config->subscriptions);
                    break;
                case kCapacity3gpp:
                    ok = parseCount(optarg, 255, &config->capacity3gpp);
                    break;
                case kCapacity3gpp2:
                    ok = parseCount(optarg, 255, &config->capacity3gpp2);
                    break;
                case kNoReady:
                    config->profilesReadyOnRegister = false;
                    break;
            }
            return ok ? 0
                      : vexmodemd::usageError("vex-modemd",
                                              "bad value for " + name + ": " + optarg) +
                            1;
        });
    if (status != 0) {
        return status;
    }
    if (optind < argc) {
        return vexmodemd::usageError(
                   "vex-modemd", std::string("takes no operands, not \"") + argv[optind] + "\"") +
               1;
    }
    return 0;
}

// Splits a command: NUL-ended arguments. False when the last one is not ended.
bool splitCommand(const std::string& bytes, std::vector<std::string>* args) {
    if (!bytes.empty() && bytes.back() != '\0') {
        return false;
    }
    for (size_t start = 0; start < bytes.size();) {
        size_t end = bytes.find('\0', start);
        args->push_back(bytes.substr(start, end - start));
        start = end + 1;
    }
    return true;
}

// Serves vex-modemctl. Every connection is non-blocking and has kCommandTimeout from its accept
// to send its command and take the reply, so a silent or dribbling client costs the others
// nothing; when kMaxControlConnections are open, the oldest is closed for a newcomer.
// Threads: its own thread; start() and stop() from main.
class ControlServer {
  public:
    ControlServer(vexsim::SimModem& modem, int subscriptions)
        : control(modem, subscriptions), wake(vexwire::makeWakeFd()) {}

    bool start(const std::string& dir, std::string* error) {
        socketDir = dir;
        socketPath = dir + "/" + vexmodemd::kControlSocketName;
        bool taken = false;
        listenFd = vexwire::listenService(dir, vexmodemd::kControlSocketName, &taken, error);
        if (taken) {
            *error = "another vex-modemd serves " + socketPath;
            return false;
        }
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
            vexwire::removeStaleSocket(socketDir, vexmodemd::kControlSocketName);
        }
    }

  private:
    struct Connection {
        UniqueFd fd;
        Clock::time_point deadline;
        std::string in;
        std::string out;  // the reply once the command is read; empty before
        size_t sent = 0;
        bool replied = false;
        bool done = false;
    };

    void serve() {
        std::vector<pollfd> fds;
        for (;;) {
            fds.assign({{wake.get(), POLLIN, 0}, {listenFd.get(), POLLIN, 0}});
            auto soonest = Clock::time_point::max();
            for (const Connection& conn : connections) {
                fds.push_back(
                    {conn.fd.get(), static_cast<short>(conn.replied ? POLLOUT : POLLIN), 0});
                soonest = std::min(soonest, conn.deadline);
            }
            int timeoutMs = -1;
            if (soonest != Clock::time_point::max()) {
                auto left =
                    std::chrono::duration_cast<std::chrono::milliseconds>(soonest - Clock::now());
                timeoutMs = static_cast<int>(std::max<long long>(0, left.count() + 1));
            }
            if (::poll(fds.data(), fds.size(), timeoutMs) < 0 && errno != EINTR) {
                return;
            }
            if (fds[0].revents != 0) {
                return;
            }
            for (size_t i = 2; i < fds.size(); ++i) {
                if (fds[i].revents != 0) {
                    step(connections[i - 2]);
                }
            }
            auto now = Clock::now();
            connections.erase(std::remove_if(connections.begin(), connections.end(),
                                             [now](const Connection& conn) {
                                                 return conn.done || conn.deadline <= now;
                                             }),
                              connections.end());
            if (fds[1].revents != 0) {
                acceptSome();
            }
        }
    }

    void acceptSome() {
        for (int i = 0; i < kMaxControlConnections; ++i) {
            UniqueFd fd(::accept4(listenFd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (!fd) {
                return;
            }
            if (!vexwire::servesPeer(fd.get(), "vex-modemd: refused a control connection")) {
                continue;
            }
            if (connections.size() >= static_cast<size_t>(kMaxControlConnections)) {
                connections.erase(connections.begin());  // the oldest
            }
            connections.push_back(Connection{std::move(fd), Clock::now() + kCommandTimeout});
        }
    }

    // Reads what a connection sent, runs its command once it is complete, writes the reply.
    void step(Connection& conn) {
        if (!conn.replied) {
            char chunk[4096];
            ssize_t n = ::recv(conn.fd.get(), chunk, sizeof chunk, MSG_DONTWAIT);
            if (n < 0) {
                conn.done = errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR;
                return;
            }
            conn.in.append(chunk, static_cast<size_t>(n));
            if (n > 0 && conn.in.size() <= kMaxCommandBytes) {
                return;
            }
            std::vector<std::string> args;
            bool readable = conn.in.size() <= kMaxCommandBytes && splitCommand(conn.in, &args);
            conn.out = vexmodemd::encodeReply(
                readable ? control.execute(args) : vexmodemd::Reply{false, "unreadable command"});
            conn.replied = true;
        }
        while (conn.sent < conn.out.size()) {
            ssize_t n = ::send(conn.fd.get(), conn.out.data() + conn.sent,
                               conn.out.size() - conn.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                return;
            }
            if (n <= 0) {
                break;
            }
            conn.sent += static_cast<size_t>(n);
        }
        conn.done = true;
    }

    vexmodemd::ModemControl control;
    UniqueFd wake;
    UniqueFd listenFd;
    std::string socketDir;
    std::string socketPath;
    std::vector<Connection> connections;  // serving thread only; oldest first
    std::thread thread;
};

}  // namespace

int main(int argc, char** argv) {
    vexsim::Config config;
    if (const int status = parseOptions(argc, argv, &config); status != 0) {
        return status - 1;
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
    if (!server.start(modem.serviceDir(), &error)) {
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
