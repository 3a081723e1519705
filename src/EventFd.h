// One owned eventfd: the way every hand-off into the worker thread is signalled. Created
// non-blocking and close-on-exec with a count of 0; closed when the holder goes.
//
// Threads: signal() may be called on any thread (the kernel serialises the counter); drain() runs
// on the thread that owns the event loop.
#ifndef KEL_EVENT_FD_H
#define KEL_EVENT_FD_H

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "LocalLogBuffer.h"

namespace kel {

class EventFd {
  public:
    // The library cannot run without its wake-ups, so a failure aborts the process.
    EventFd() : fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
        if (fd == -1) {
            KEL_LOG(Error, "Cannot create eventfd instance");
            std::abort();
        }
    }
    ~EventFd() { close(fd); }
    EventFd(const EventFd&) = delete;
    EventFd& operator=(const EventFd&) = delete;

    int get() const { return fd; }

    // Adds 1 to the counter; returns what write() returned (8 on success, errno set otherwise).
    ssize_t signal() const {
        const std::uint64_t one = 1;
        return write(fd, &one, sizeof(one));
    }

    // Reads until the counter is empty; a failure other than "nothing left" is logged, and the
    // caller goes on regardless since the wake-up has served its purpose.
    static void drain(int fd) {
        std::uint64_t count = 0;
        while (read(fd, &count, sizeof(count)) != -1) {
        }
        if (errno != EAGAIN) {
            KEL_LOG(Error, "Error while clearing the read buffer on fd %d", fd);
        }
    }

  private:
    int fd;
};

}  // namespace kel

#endif  // KEL_EVENT_FD_H
