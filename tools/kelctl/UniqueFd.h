// The one owner of a file descriptor: closes it when it goes.
// Threads: not synchronised; its owner decides who touches it.
#ifndef KELCTL_UNIQUE_FD_H
#define KELCTL_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace kelctl {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int owned) : fd(owned) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd; }
    explicit operator bool() const { return fd >= 0; }
    int release() { return std::exchange(fd, -1); }
    void reset(int newFd = -1) {
        if (fd >= 0) {
            ::close(fd);
        }
        fd = newFd;
    }

  private:
    int fd = -1;
};

}  // namespace kelctl

#endif  // KELCTL_UNIQUE_FD_H
