// Child processes for tests: a program started with chosen input, environment and working
// directory, its output read with bounded waits, its exit status reaped.
#ifndef KELR_TESTS_SUPPORT_CHILD_PROCESS_H
#define KELR_TESTS_SUPPORT_CHILD_PROCESS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "UniqueFd.h"
#include "support/TestSupport.h"

extern char** environ;

namespace testsupport {

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
    // Runs in the child just before exec (async-signal-safe calls only); false ends it with 126.
    bool (*beforeExec)() = nullptr;
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

// Waits until deadline for the child to end, then kills it. Returns its exit status, 128 + the
// signal that ended it, or -1 when there is no such child.
inline int reap(pid_t pid,
                std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::now() +
                                                                 kChildLimit) {
    if (pid <= 0) {
        ADD_FAILURE() << "no child to wait for";
        return -1;
    }
    int status = 0;
    pid_t ended = 0;
    while ((ended = ::waitpid(pid, &status, WNOHANG)) == 0 || (ended < 0 && errno == EINTR)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid, SIGKILL);
            ADD_FAILURE() << "the child did not end within the limit";
            ended = ::waitpid(pid, &status, 0);
            break;
        }
        ::poll(nullptr, 0, 10);
    }
    if (ended != pid) {
        ADD_FAILURE() << "waitpid: " << std::strerror(errno);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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
    outcome.status = reap(pid, deadline);
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

// Where a child's standard error goes: a pipe of its own, this process's, or the output pipe.
enum class Stderr { Piped, Inherited, WithOutput };

// Starts args (the program first) in its own process, as a shell would, with the environment
// and working directory of options. Standard output always comes back through a pipe.
inline Child spawn(std::vector<std::string> args, const RunOptions& options, int input,
                   Stderr err = Stderr::Piped) {
    std::vector<std::string> env = environmentWith(options);
    std::vector<char*> argv = pointers(args);
    std::vector<char*> envp = pointers(env);
    Child child;
    UniqueFd inRead, outWrite, errWrite;
    if ((input == kPipedInput && !makePipe(inRead, child.in)) || !makePipe(child.out, outWrite) ||
        (err == Stderr::Piped && !makePipe(child.err, errWrite))) {
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
        if (err != Stderr::Inherited) {
            ::dup2(err == Stderr::Piped ? errWrite.get() : outWrite.get(), STDERR_FILENO);
        }
        if (options.beforeExec != nullptr && !options.beforeExec()) {
            ::_exit(126);
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
                   const RunOptions& options = {}, Stderr err = Stderr::Piped) {
    testsupport::TempDir scratch;
    const std::string inputPath = scratch.file("stdin");
    std::ofstream(inputPath) << options.input;
    args.insert(args.begin(), program);
    const UniqueFd input(::open(inputPath.c_str(), O_RDONLY | O_CLOEXEC));
    if (!input) {
        ADD_FAILURE() << inputPath << ": " << std::strerror(errno);
        return {};
    }
    const Child child = spawn(std::move(args), options, input.get(), err);
    if (child.pid < 0) {
        return {};
    }
    return collect(child.pid, child.out.get(), child.err.get());
}

}  // namespace testsupport

#endif  // KELR_TESTS_SUPPORT_CHILD_PROCESS_H
