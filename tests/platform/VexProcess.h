// Helpers of the platform tests that run processes: vex-modemd as a daemon, a command with its
// output, and code run as another local user, the way an attacker on a shared machine would.
#ifndef KELR_TESTS_PLATFORM_VEX_PROCESS_H
#define KELR_TESTS_PLATFORM_VEX_PROCESS_H

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
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

// A program (vex-modemd unless another path is given) in a child process, as the other user when
// asked; its stdout (and its stderr, when asked) comes back through a pipe.
class Daemon {
  public:
    bool start(const std::vector<std::string>& args, bool withStderr = false,
               const char* program = VEX_MODEMD_PATH, bool asOtherUser = false) {
        std::vector<std::string> argv = {program};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> cargs;
        for (auto& arg : argv) {
            cargs.push_back(arg.data());
        }
        cargs.push_back(nullptr);
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            return false;
        }
        pid = ::fork();
        if (pid == 0) {  // system calls only: the test process has other threads
            ::dup2(fds[1], STDOUT_FILENO);
            if (withStderr) {
                ::dup2(fds[1], STDERR_FILENO);
            }
            if (asOtherUser && !becomeOtherUser()) {
                ::_exit(126);
            }
            ::execve(program, cargs.data(), environ);
            ::_exit(127);
        }
        ::close(fds[1]);
        output.reset(fds[0]);
        return pid > 0;
    }
    // The next line of output, or what is left at its end; empty at the end or when nothing comes
    // within 10 s.
    std::string readLine() {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        size_t eol;
        while ((eol = pending.find('\n')) == std::string::npos) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd pfd{output.get(), POLLIN, 0};
            char buffer[1024];
            ssize_t n = 0;
            if (left.count() <= 0 || ::poll(&pfd, 1, static_cast<int>(left.count())) <= 0) {
                silent = true;
                return "";
            }
            if ((n = ::read(output.get(), buffer, sizeof buffer)) <= 0) {
                return std::exchange(pending, std::string());
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

    bool silent = false;  // a read found no output within its bound

  private:
    pid_t pid = -1;
    vexwire::UniqueFd output;
    std::string pending;  // read, not yet returned
};

struct Result {
    int status;          // exit status; -1 when killed or not run
    std::string output;  // stdout and stderr together
};

// Runs argv (argv[0] a path) to its end, as the other user when asked; killed when it falls
// silent for 10 s.
inline Result runCommand(const std::vector<std::string>& argv, bool asOtherUser = false) {
    Daemon child;
    if (argv.empty() ||
        !child.start({argv.begin() + 1, argv.end()}, true, argv[0].c_str(), asOtherUser)) {
        return {-1, ""};
    }
    Result result{-1, ""};
    for (std::string line; !(line = child.readLine()).empty();) {
        result.output += line;
    }
    result.status = child.silent ? child.stop(SIGKILL) : child.wait();
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

}  // namespace vextest

#endif  // KELR_TESTS_PLATFORM_VEX_PROCESS_H
