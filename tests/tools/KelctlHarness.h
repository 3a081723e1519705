// The harness of the kelctl tests: kelctl, vex-modemd and vex-modemctl run as real processes,
// their standard output, standard error and exit status read back.
#ifndef KELR_TESTS_TOOLS_KELCTL_HARNESS_H
#define KELR_TESTS_TOOLS_KELCTL_HARNESS_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/TestSupport.h"

namespace kelctltest {

// A hung child must not hang the suite; nothing here takes more than a fraction of this.
inline constexpr std::chrono::seconds kChildLimit{60};

class Fd {
  public:
    explicit Fd(int owned = -1) : fd(owned) {}
    ~Fd() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd; }
    void reset() {
        if (fd >= 0) {
            ::close(fd);
        }
        fd = -1;
    }

  private:
    int fd;
};

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

struct RunOptions {
    std::string input;    // standard input
    std::string workDir;  // empty: the test's own
    // Environment changes: a value sets the variable, none removes it.
    std::vector<std::pair<std::string, std::optional<std::string>>> env;
    // The watchdog: a child still running then is killed and the test fails.
    std::chrono::seconds limit = kChildLimit;
};

inline std::vector<std::string> environmentWith(const RunOptions& options) {
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('='));
        bool replaced = false;
        for (const auto& change : options.env) {
            replaced = replaced || change.first == name;
        }
        if (!replaced) {
            env.push_back(text);
        }
    }
    for (const auto& [name, value] : options.env) {
        if (value) {
            env.push_back(name + "=" + *value);
        }
    }
    return env;
}

inline std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (auto& s : strings) {
        out.push_back(s.data());
    }
    out.push_back(nullptr);
    return out;
}

// Reads both pipes to their end, then reaps the child.
inline Outcome collect(pid_t pid, int outFd, int errFd, std::chrono::seconds limit) {
    Outcome outcome;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    std::string* sinks[2] = {&outcome.out, &outcome.err};
    int open = 2;
    while (open > 0 && std::chrono::steady_clock::now() < deadline) {
        if (::poll(fds, 2, 1000) < 0 && errno != EINTR) {
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char chunk[4096];
            const ssize_t n = ::read(fds[i].fd, chunk, sizeof(chunk));
            if (n > 0) {
                sinks[i]->append(chunk, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                fds[i].fd = -1;
                --open;
            }
        }
    }
    if (open > 0) {
        ::kill(pid, SIGKILL);
        ADD_FAILURE() << "the child did not finish within the limit";
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
}

// Runs program with args in its own process, as a shell would.
inline Outcome run(const std::string& program, std::vector<std::string> args,
                   const RunOptions& options = {}) {
    testsupport::TempDir scratch;
    const std::string inputPath = scratch.file("stdin");
    std::ofstream(inputPath) << options.input;
    args.insert(args.begin(), program);
    std::vector<std::string> env = environmentWith(options);
    std::vector<char*> argv = pointers(args);
    std::vector<char*> envp = pointers(env);

    int outPipe[2];
    int errPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return {};
    }
    Fd outRead(outPipe[0]), outWrite(outPipe[1]), errRead(errPipe[0]), errWrite(errPipe[1]);
    Fd input(::open(inputPath.c_str(), O_RDONLY | O_CLOEXEC));
    const pid_t pid = ::fork();
    if (pid == 0) {
        // Only async-signal-safe calls between fork and exec.
        if (!options.workDir.empty() && ::chdir(options.workDir.c_str()) != 0) {
            ::_exit(126);
        }
        ::dup2(input.get(), STDIN_FILENO);
        ::dup2(outWrite.get(), STDOUT_FILENO);
        ::dup2(errWrite.get(), STDERR_FILENO);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    outWrite.reset();
    errWrite.reset();
    return collect(pid, outRead.get(), errRead.get(), options.limit);
}

// The document kelctl printed, parsed strictly; a parse failure fails the test.
inline nlohmann::json parsed(const std::string& text) {
    const nlohmann::json document = nlohmann::json::parse(text, nullptr, false);
    EXPECT_FALSE(document.is_discarded()) << "not one JSON document: " << text;
    return document;
}

inline bool exists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

inline std::string dataFile(const std::string& name) {
    return testsupport::sourceDir() + "/tests/data/" + name;
}

inline int countOf(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

// vex-modemd serving in dir, started for one test and stopped with it.
class RunningModem {
  public:
    RunningModem(const std::string& dir, const std::string& seed,
                 const std::vector<std::string>& extra = {}) {
        std::vector<std::string> args = {VEX_MODEMD_PATH, "--dir", dir, "--seed", seed};
        args.insert(args.end(), extra.begin(), extra.end());
        std::vector<char*> argv = pointers(args);
        int outPipe[2];
        if (::pipe2(outPipe, O_CLOEXEC) != 0) {
            return;
        }
        Fd write(outPipe[1]);
        output = std::make_unique<Fd>(outPipe[0]);
        pid = ::fork();
        if (pid == 0) {
            ::dup2(write.get(), STDOUT_FILENO);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        write.reset();
        serving = waitForLine("serving WDS");
    }

    ~RunningModem() {
        if (pid > 0) {
            ::kill(pid, SIGTERM);
            int status = 0;
            ::waitpid(pid, &status, 0);
        }
    }

    bool isServing() const { return serving; }

    // What vex-modemctl answers for the modem's own view.
    std::string control(const std::string& dir, std::vector<std::string> args) const {
        args.insert(args.begin(), {"--dir", dir});
        return run(VEX_MODEMCTL_PATH, args).out;
    }

  private:
    // The daemon announces that it serves once its socket is up.
    bool waitForLine(const std::string& text) {
        std::string seen;
        const auto deadline = std::chrono::steady_clock::now() + kChildLimit;
        while (seen.find(text) == std::string::npos &&
               std::chrono::steady_clock::now() < deadline) {
            pollfd fd{output->get(), POLLIN, 0};
            if (::poll(&fd, 1, 1000) <= 0) {
                continue;
            }
            char chunk[512];
            const ssize_t n = ::read(output->get(), chunk, sizeof(chunk));
            if (n <= 0) {
                return false;
            }
            seen.append(chunk, static_cast<std::size_t>(n));
        }
        return seen.find(text) != std::string::npos;
    }

    pid_t pid = -1;
    std::unique_ptr<Fd> output;  // kept open so the daemon can still print when it stops
    bool serving = false;
};

class KelctlTest : public ::testing::Test {
  protected:
    // kelctl with the test seed's embedded modem, unless args choose otherwise. Every run must
    // keep standard output free of the library's console line and be free of sanitizer reports.
    Outcome kelctl(std::vector<std::string> args, RunOptions options = {}) {
        // A modem a developer runs must not stand in for the one a test chose.
        const bool chosen =
            std::any_of(options.env.begin(), options.env.end(),
                        [](const auto& change) { return change.first == "VEX_SERVICE_DIR"; });
        if (!chosen) {
            options.env.emplace_back("VEX_SERVICE_DIR", std::nullopt);
        }
        const Outcome outcome = run(KELCTL_PATH, std::move(args), options);
        EXPECT_THAT(outcome.out, ::testing::Not(::testing::HasSubstr("wake()")));
        EXPECT_THAT(outcome.err, ::testing::Not(::testing::HasSubstr("Sanitizer")));
        EXPECT_THAT(outcome.err, ::testing::Not(::testing::HasSubstr("runtime error")));
        return outcome;
    }

    Outcome seeded(std::vector<std::string> args, RunOptions options = {}) {
        args.insert(args.begin(), {"--seed", seed});
        return kelctl(std::move(args), std::move(options));
    }

    std::string script(const std::string& name, const std::string& text) {
        const std::string path = dir.file(name);
        std::ofstream(path) << text;
        return path;
    }

    testsupport::TempDir dir;
    const std::string seed = dataFile("kelctl-seed.conf");
    const std::string state = dir.file("modem.state");
};

// ---------------------------------------------------------------------------------------------
// Reading the modem

}  // namespace kelctltest

#endif  // KELR_TESTS_TOOLS_KELCTL_HARNESS_H
