// Helpers of the platform tests that run processes: vex-modemd as a daemon, a command with its
// output, and code run as another local user, the way an attacker on a shared machine would.
#ifndef KELR_TESTS_PLATFORM_VEX_PROCESS_H
#define KELR_TESTS_PLATFORM_VEX_PROCESS_H

#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/ChildProcess.h"

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
        testsupport::RunOptions options;
        options.beforeExec = asOtherUser ? becomeOtherUser : nullptr;
        child = testsupport::spawn(
            std::move(argv), options, testsupport::kInheritedInput,
            withStderr ? testsupport::Stderr::WithOutput : testsupport::Stderr::Inherited);
        return child.pid > 0;
    }
    // The next line of output, or what is left at its end; empty at the end or when nothing comes
    // within 10 s.
    std::string readLine() {
        using testsupport::Read;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        switch (testsupport::readUntil(child.out.get(), pending, "\n", deadline)) {
            case Read::Found:
                break;
            case Read::Ended:
                return std::exchange(pending, std::string());
            case Read::TimedOut:
                return "";
        }
        const size_t end = pending.find('\n') + 1;
        std::string line = pending.substr(0, end);
        pending.erase(0, end);
        return line;
    }
    int stop(int signal) {
        if (child.pid > 0) {
            ::kill(child.pid, signal);
        }
        return wait();
    }
    // The exit status once the child has ended, 128 + the signal when a signal ended it.
    int wait() {
        const int status = testsupport::reap(child.pid);
        child.pid = -1;
        return status;
    }
    pid_t processId() const { return child.pid; }
    ~Daemon() {
        if (child.pid > 0) {
            stop(SIGKILL);
        }
    }

  private:
    testsupport::Child child;
    std::string pending;  // read, not yet returned
};

struct Result {
    int status;          // exit status; 128 + the signal when killed, -1 when not run
    std::string output;  // stdout and stderr together
};

// Runs argv (argv[0] a path) to its end, as the other user when asked.
inline Result runCommand(const std::vector<std::string>& argv, bool asOtherUser = false) {
    testsupport::RunOptions options;
    options.beforeExec = asOtherUser ? becomeOtherUser : nullptr;
    const testsupport::Outcome ran = testsupport::run(argv[0], {argv.begin() + 1, argv.end()},
                                                      options, testsupport::Stderr::WithOutput);
    return {ran.status, ran.out};
}

// Runs body in a forked child as the other user; returns its result as the child's exit status,
// 126 when the privileges could not be dropped, 128 + the signal when the child died. The body
// makes system calls only: it runs in a copy of a process that has other threads.
inline int runAsOtherUser(const std::function<int()>& body) {
    pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(becomeOtherUser() ? body() : 126);
    }
    return testsupport::reap(pid);
}

}  // namespace vextest

#endif  // KELR_TESTS_PLATFORM_VEX_PROCESS_H
