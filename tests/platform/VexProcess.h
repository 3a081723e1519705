// Helpers of the platform tests that run processes: vex-modemd as a daemon, a command with its
// output, and code run as another local user, the way an attacker on a shared machine would.
#ifndef KELR_TESTS_PLATFORM_VEX_PROCESS_H
#define KELR_TESTS_PLATFORM_VEX_PROCESS_H

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "UniqueFd.h"

extern char** environ;

namespace vextest {

// The other local user: nobody.
constexpr uid_t kOtherUid = 65534;
constexpr gid_t kOtherGid = 65534;

// Drops every privilege to the other user. Async-signal-safe: called between fork and exec.
inline bool becomeOtherUser() {
    return ::setgroups(0, nullptr) == 0 && ::setresgid(kOtherGid, kOtherGid, kOtherGid) == 0 &&
           ::setresuid(kOtherUid, kOtherUid, kOtherUid) == 0 && ::geteuid() == kOtherUid;
}

struct Result {
    int status;          // exit status; -1 when killed or not run
    std::string output;  // stdout and stderr together
};

// Runs argv (argv[0] a path) with stdout and stderr in one pipe, as the other user when asked.
// Bounded: a child still running after 30 s is killed.
inline Result runCommand(const std::vector<std::string>& argv, bool asOtherUser = false) {
    Result result{-1, ""};
    std::vector<std::string> args = argv;
    std::vector<char*> cargs;
    for (auto& arg : args) {
        cargs.push_back(arg.data());
    }
    cargs.push_back(nullptr);
    int fds[2];
    if (argv.empty() || ::pipe2(fds, O_CLOEXEC) != 0) {
        return result;
    }
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(fds[1], STDOUT_FILENO);
        ::dup2(fds[1], STDERR_FILENO);
        if (asOtherUser && !becomeOtherUser()) {
            ::_exit(126);
        }
        ::execve(cargs[0], cargs.data(), environ);
        ::_exit(127);
    }
    ::close(fds[1]);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    char buffer[4096];
    while (pid > 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd pfd{fds[0], POLLIN, 0};
        if (left.count() <= 0 || ::poll(&pfd, 1, static_cast<int>(left.count())) <= 0) {
            ::kill(pid, SIGKILL);
            break;
        }
        ssize_t n = ::read(fds[0], buffer, sizeof buffer);
        if (n <= 0) {
            break;
        }
        result.output.append(buffer, static_cast<size_t>(n));
    }
    ::close(fds[0]);
    int status = 0;
    if (pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
        result.status = WEXITSTATUS(status);
    }
    return result;
}

// Runs body in a forked child as the other user; returns its result as the child's exit status,
// 126 when the privileges could not be dropped, -1 when the child died. The body makes system
// calls only: it runs in a copy of a process that has other threads.
inline int runAsOtherUser(const std::function<int()>& body) {
    pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(becomeOtherUser() ? body() : 126);
    }
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

// vex-modemd (or, given its path, another program) in the foreground of a child process; its
// stdout (and its stderr, when asked) comes back through a pipe.
class Daemon {
  public:
    bool start(const std::vector<std::string>& args, bool withStderr = false,
               const char* program = VEX_MODEMD_PATH) {
        int fds[2];
        if (::pipe(fds) != 0) {
            return false;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
        if (withStderr) {
            posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
        }
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        std::vector<std::string> argv = {program};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> cargs;
        for (auto& arg : argv) {
            cargs.push_back(arg.data());
        }
        cargs.push_back(nullptr);
        int rc = ::posix_spawn(&pid, program, &actions, nullptr, cargs.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        output.reset(fds[0]);
        return rc == 0;
    }
    // The daemon's next line of output; empty at its end or when none comes within 10 s.
    std::string readLine() {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        size_t eol;
        while ((eol = pending.find('\n')) == std::string::npos) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd pfd{output.get(), POLLIN, 0};
            char buffer[1024];
            ssize_t n = 0;
            if (left.count() <= 0 || ::poll(&pfd, 1, static_cast<int>(left.count())) <= 0 ||
                (n = ::read(output.get(), buffer, sizeof buffer)) <= 0) {
                return "";
            }
            pending.append(buffer, static_cast<size_t>(n));
        }
        std::string line = pending.substr(0, eol + 1);
        pending.erase(0, eol + 1);
        return line;
    }
    int stop(int signal) {
        ::kill(pid, signal);
        return wait();
    }
    // The exit status once the child has ended by itself; -1 when a signal ended it.
    int wait() {
        int status = 0;
        ::waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    pid_t processId() const { return pid; }
    ~Daemon() {
        if (pid > 0) {
            stop(SIGKILL);
        }
    }

  private:
    pid_t pid = -1;
    vexwire::UniqueFd output;
    std::string pending;  // read, not yet returned
};

}  // namespace vextest

#endif  // KELR_TESTS_PLATFORM_VEX_PROCESS_H
