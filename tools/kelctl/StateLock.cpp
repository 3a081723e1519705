#include "StateLock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "Output.h"

namespace kelctl {
namespace {

// Held for the life of the process: closing any descriptor of the file would drop the lock.
UniqueFd& heldLock() {
    static UniqueFd lock;
    return lock;
}

// How often a waiting run looks again: short against a run, long against a system call.
constexpr std::chrono::milliseconds kRetry{20};

flock wholeFile(short type) {
    flock region{};
    region.l_type = type;
    region.l_whence = SEEK_SET;
    return region;
}

// The process that holds the lock now, or 0 when none does.
pid_t holderOf(int fd) {
    flock region = wholeFile(F_WRLCK);
    if (::fcntl(fd, F_GETLK, &region) != 0 || region.l_type == F_UNLCK) {
        return 0;
    }
    return region.l_pid;
}

}  // namespace

bool lockStateFile(const std::string& statePath, std::chrono::steady_clock::time_point deadline,
                   std::string* error) {
    const std::string path = statePath + ".lock";
    UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600));
    struct stat info {};
    if (!fd || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        *error = "--state " + statePath + ": cannot lock it (" + path + ": " +
                 (fd ? "not a regular file" : std::strerror(errno)) + ")";
        return false;
    }
    const auto started = std::chrono::steady_clock::now();
    for (;;) {
        flock region = wholeFile(F_WRLCK);
        if (::fcntl(fd.get(), F_SETLK, &region) == 0) {
            heldLock() = std::move(fd);
            return true;
        }
        if (errno != EACCES && errno != EAGAIN && errno != EINTR) {
            *error = "--state " + statePath + ": cannot lock it: " + std::strerror(errno);
            return false;
        }
        if (std::chrono::steady_clock::now() + kRetry >= deadline) {
            const pid_t holder = holderOf(fd.get());
            const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::steady_clock::now() - started);
            *error = "--state " + statePath + " is in use by another run (" +
                     (holder > 0 ? "process " + std::to_string(holder) : "a process") + " holds " +
                     path + "); waited " + secondsText(static_cast<int>(waited.count())) +
                     ", nothing was sent to the modem";
            return false;
        }
        std::this_thread::sleep_for(kRetry);
    }
}

}  // namespace kelctl
