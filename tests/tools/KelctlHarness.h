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
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "UniqueFd.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/TestSupport.h"

namespace kelctltest {

// A hung child must not hang the suite; nothing here takes more than a fraction of this.
inline constexpr std::chrono::seconds kChildLimit{60};

using vexwire::UniqueFd;

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

struct RunOptions {
    std::string input;    // standard input
    std::string workDir;  // empty: the test's own
    // Environment changes: a value sets the variable, none removes it.
    std::map<std::string, std::optional<std::string>> env;
};

inline std::vector<std::string> environmentWith(const RunOptions& options) {
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('='));
        if (options.env.count(name) == 0) {
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

enum class Read { Found, Ended, TimedOut };

// Reads fd into pending until pending holds text, the output ends or the deadline passes.
inline Read readUntil(int fd, std::string& pending, const std::string& text,
                      std::chrono::steady_clock::time_point deadline) {
    while (pending.find(text) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd ready{fd, POLLIN, 0};
        if (left.count() <= 0) {
            return Read::TimedOut;
        }
        if (::poll(&ready, 1, static_cast<int>(left.count())) <= 0) {
            continue;
        }
        char chunk[4096];
        const ssize_t n = ::read(fd, chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return Read::Ended;
        }
        pending.append(chunk, static_cast<std::size_t>(n));
    }
    return Read::Found;
}

// Reads both pipes (a closed one is skipped) to their end, then reaps the child.
inline Outcome collect(pid_t pid, int outFd, int errFd) {
    Outcome outcome;
    const auto deadline = std::chrono::steady_clock::now() + kChildLimit;
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    std::string* sinks[2] = {&outcome.out, &outcome.err};
    int open = (outFd >= 0 ? 1 : 0) + (errFd >= 0 ? 1 : 0);
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

inline bool makePipe(UniqueFd& readEnd, UniqueFd& writeEnd) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return false;
    }
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
    return true;
}

// A started child and the pipe ends this process keeps; pid is -1 when it could not start.
struct Child {
    pid_t pid = -1;
    UniqueFd in;   // its standard input, when piped
    UniqueFd out;  // its standard output
    UniqueFd err;  // its standard error, when piped
};

// Standard input of a child: a pipe the caller writes, or inherited.
inline constexpr int kPipedInput = -2;
inline constexpr int kInheritedInput = -1;

// Starts args (the program first) in its own process, as a shell would, with the environment
// and working directory of options. Standard output always comes back through a pipe.
inline Child spawn(std::vector<std::string> args, const RunOptions& options, int input,
                   bool pipeErr = true) {
    std::vector<std::string> env = environmentWith(options);
    std::vector<char*> argv = pointers(args);
    std::vector<char*> envp = pointers(env);
    Child child;
    UniqueFd inRead, outWrite, errWrite;
    if ((input == kPipedInput && !makePipe(inRead, child.in)) || !makePipe(child.out, outWrite) ||
        (pipeErr && !makePipe(child.err, errWrite))) {
        return child;
    }
    const int stdinFd = input == kPipedInput ? inRead.get() : input;
    child.pid = ::fork();
    if (child.pid == 0) {
        // Only async-signal-safe calls between fork and exec.
        if (!options.workDir.empty() && ::chdir(options.workDir.c_str()) != 0) {
            ::_exit(126);
        }
        if (stdinFd >= 0) {
            ::dup2(stdinFd, STDIN_FILENO);
        }
        ::dup2(outWrite.get(), STDOUT_FILENO);
        if (pipeErr) {
            ::dup2(errWrite.get(), STDERR_FILENO);
        }
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    if (child.pid < 0) {
        ADD_FAILURE() << "fork: " << std::strerror(errno);
    }
    return child;
}

// Runs program with args in its own process to its end.
inline Outcome run(const std::string& program, std::vector<std::string> args,
                   const RunOptions& options = {}) {
    testsupport::TempDir scratch;
    const std::string inputPath = scratch.file("stdin");
    std::ofstream(inputPath) << options.input;
    args.insert(args.begin(), program);
    const UniqueFd input(::open(inputPath.c_str(), O_RDONLY | O_CLOEXEC));
    const Child child = spawn(std::move(args), options, input.get());
    if (child.pid < 0) {
        return {};
    }
    return collect(child.pid, child.out.get(), child.err.get());
}

// A row of a table test: its name names the row's test and stands for the row in messages.
struct Row {
    const char* name;
};

inline std::ostream& operator<<(std::ostream& os, const Row& row) {
    return os << row.name;
}

struct RowName {
    template <typename Param>
    std::string operator()(const ::testing::TestParamInfo<Param>& info) const {
        return info.param.name;
    }
};

inline std::vector<std::string> joined(std::vector<std::string> head,
                                       const std::vector<std::string>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// The outcome of a run that must succeed; a failure shows the run's standard error.
inline Outcome succeeded(Outcome outcome) {
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return outcome;
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
                 const std::vector<std::string>& extra = {})
        : serviceDir(dir) {
        std::vector<std::string> args = {VEX_MODEMD_PATH, "--dir", dir, "--seed", seed};
        args.insert(args.end(), extra.begin(), extra.end());
        // Its standard output stays open so that the daemon can still print when it stops.
        daemon = spawn(std::move(args), {}, kInheritedInput, false);
        std::string seen;
        // The daemon announces that it serves once its socket is up.
        const bool serving = daemon.pid > 0 && readUntil(daemon.out.get(), seen, "serving WDS",
                                                         std::chrono::steady_clock::now() +
                                                             kChildLimit) == Read::Found;
        EXPECT_TRUE(serving) << "vex-modemd never said that it serves: " << seen;
    }

    ~RunningModem() {
        if (daemon.pid > 0) {
            ::kill(daemon.pid, SIGTERM);
            ::waitpid(daemon.pid, nullptr, 0);
        }
    }

    // What vex-modemctl answers, for the modem's own view or to change it as another client.
    std::string control(std::vector<std::string> args) const {
        args.insert(args.begin(), {"--dir", serviceDir});
        const Outcome outcome = run(VEX_MODEMCTL_PATH, args);
        EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
        return outcome.out;
    }

  private:
    const std::string serviceDir;
    Child daemon;
};

// A kelctl run that goes on while the test talks to it: standard input written line by line,
// standard output read as it comes. Every wait is bounded by kChildLimit.
class LiveKelctl {
  public:
    explicit LiveKelctl(std::vector<std::string> args) {
        args.insert(args.begin(), KELCTL_PATH);
        RunOptions options;
        // A modem a developer runs must not stand in for the one a test chose.
        options.env.emplace("VEX_SERVICE_DIR", std::nullopt);
        child = spawn(std::move(args), options, kPipedInput);
    }
    ~LiveKelctl() {
        if (child.pid > 0) {
            ::kill(child.pid, SIGKILL);
            ::waitpid(child.pid, nullptr, 0);
        }
    }

    void send(const std::string& line) {
        const std::string text = line + "\n";
        EXPECT_EQ(::write(child.in.get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }
    // The output up to and including text, after what earlier waits took; empty when it did
    // not come.
    std::string waitFor(const std::string& text) {
        const Read read = readUntil(child.out.get(), pending, text, deadline());
        if (read != Read::Found) {
            ADD_FAILURE() << "kelctl never printed \"" << text << "\" after: " << pending;
            return "";
        }
        return take(pending.find(text) + text.size());
    }
    // The next line, without its end; none once the output ended.
    std::optional<std::string> line() {
        const Read read = readUntil(child.out.get(), pending, "\n", deadline());
        if (read == Read::TimedOut) {
            ADD_FAILURE() << "no line from kelctl in time; so far: " << pending;
        }
        if (read != Read::Found) {
            return std::nullopt;
        }
        std::string text = take(pending.find('\n') + 1);
        text.pop_back();
        return text;
    }
    // The lines up to and including the first that contains text, without their time stamps.
    std::vector<std::string> until(const std::string& text) {
        std::vector<std::string> lines;
        while (auto next = line()) {
            lines.push_back(next->substr(next->find(' ') + 1));
            if (next->find(text) != std::string::npos) {
                return lines;
            }
        }
        ADD_FAILURE() << "kelctl never printed " << text;
        return lines;
    }
    void signal(int number) const { ::kill(child.pid, number); }
    void closeOutput() { child.out.reset(); }
    // Ends the input, reads the rest and the exit status.
    Outcome finish() {
        child.in.reset();
        Outcome outcome = collect(child.pid, child.out.get(), child.err.get());
        child.pid = -1;
        return outcome;
    }

  private:
    static std::chrono::steady_clock::time_point deadline() {
        return std::chrono::steady_clock::now() + kChildLimit;
    }
    std::string take(std::size_t length) {
        std::string taken = pending.substr(0, length);
        pending.erase(0, length);
        return taken;
    }

    Child child;
    std::string pending;  // read, not yet taken
};

class KelctlTest : public ::testing::Test {
  protected:
    // kelctl with the test seed's embedded modem, unless args choose otherwise. Every run must
    // keep standard output free of the library's console line and be free of sanitizer reports.
    Outcome kelctl(std::vector<std::string> args, RunOptions options = {}) {
        // A modem a developer runs must not stand in for the one a test chose.
        options.env.emplace("VEX_SERVICE_DIR", std::nullopt);
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

}  // namespace kelctltest

#endif  // KELR_TESTS_TOOLS_KELCTL_HARNESS_H
