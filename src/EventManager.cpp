#include "EventManager.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "LocalLogBuffer.h"

namespace kel {
namespace {

constexpr std::uint32_t kEpollEt = 1u << 31;
// Marks an entry of the current turn whose descriptor was removed by an earlier handler.
constexpr int kRemovedFd = -1;

// Epoll's data word carries the descriptor itself, so dispatch finds the handler by fd.
int eventFd(const epoll_event& event) {
    return event.data.fd;
}

std::string unhandledFlagNames(std::uint32_t bits) {
    std::string names;
    if ((bits & EPOLLOUT) != 0) {
        names += "EPOLLOUT ";
    }
    if ((bits & EPOLLPRI) != 0) {
        names += "EPOLLPRI ";
    }
    if ((bits & EPOLLERR) != 0) {
        names += "EPOLLERR ";
    }
    if ((bits & kEpollEt) != 0) {
        names += "EPOLLET ";
    }
    return names;
}

void* asPointer(EventCallback callback) {
    return reinterpret_cast<void*>(callback);
}

}  // namespace

std::set<int> EventManager::approvedFd;

namespace {
// Guards approvedFd: the set is process-wide, and while Manager::init replaces a pipeline the old
// manager's teardown and the new worker touch it at the same time.
std::mutex& approvedFdMutex() {
    static std::mutex mutex;
    return mutex;
}
}  // namespace

EventManager::EventManager() : events{} {
    epollFd = epoll_create1(EPOLL_CLOEXEC);
    if (epollFd == -1) {
        KEL_LOG(Error, "Cannot create epoll instance");
        std::abort();
    }
    wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd == -1) {
        KEL_LOG(Error, "Cannot create eventfd instance");
        std::abort();
    }
    addEventHandler(wakeFd, clearRead, nullptr, nullptr, EPOLLIN | EPOLLHUP);
    KEL_LOG(Verbose, "EventManager is ready. epollFd:%d", epollFd);
}

EventManager::~EventManager() {
    removeEventHandler(wakeFd);
    close(wakeFd);
    close(epollFd);
}

bool EventManager::addEventHandler(int fd, EventCallback callback, void* data,
                                   CloseCallback closeCallback, int eventBits) {
    KEL_LOG(Verbose,
            "EventManager::addEventHandler(int %d, EventCallback %p, void* %p, CloseCallback %p, "
            "events %d) EX",
            fd, asPointer(callback), data, asPointer(closeCallback), eventBits);
    if (handlers.count(fd) != 0) {
        KEL_LOG(Info, "fd=%d is already in handlers", fd);
        return false;
    }
    epoll_event event{};
    event.events = static_cast<std::uint32_t>(eventBits);
    event.data.fd = fd;
    if (epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) == -1) {
        // Still recorded and approved: the map, not the kernel, is the record of registrations.
        KEL_LOG(Error, "Cannot add event handler");
    }
    handlers[fd] = HandlerObject{callback, closeCallback, data};
    addApprovedFd(fd);
    return true;
}

void EventManager::removeEventHandler(int fd) {
    KEL_LOG(Verbose, "EventManager::removeEventHandler(int fd) EX");
    if (epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr) == -1) {
        KEL_LOG(Error, "Cannot remove event handler");
    }
    HandlerObject& handler = handlers[fd];
    if (handler.closeCallback != nullptr) {
        handler.closeCallback(fd, handler.data);
    }
    size_t erased = handlers.erase(fd);
    if (erased == 0) {
        KEL_LOG(Error, "handlers.erase for fd %d, returned %d!", fd, static_cast<int>(erased));
    }
    remApprovedFd(fd);
    // A handler may remove another descriptor that is still pending in this turn; that entry must
    // be neither dispatched nor taken for an unapproved descriptor and closed under its owner.
    for (epoll_event& pending : events) {
        if (eventFd(pending) == fd) {
            pending.events = 0;
            pending.data.fd = kRemovedFd;
        }
    }
}

void EventManager::processEvents() {
    int count = epoll_wait(epollFd, events, kMaxEvents, -1);
    if (count == -1) {
        KEL_LOG(Error, "epoll_wait error");
        return;
    }
    if (count < 1) {
        return;
    }
    for (int i = 0; i < count; ++i) {
        const int fd = eventFd(events[i]);
        const std::uint32_t bits = events[i].events;
        if (fd == kRemovedFd) {
            continue;
        }
        KEL_LOG(Verbose, "there are %d file descriptor(s) with events pending", count - i);
        KEL_LOG(Verbose, "processing event number: %d, handling %d for %d", i,
                static_cast<int>(bits), fd);
        if ((bits & EPOLLHUP) != 0) {
            KEL_LOG(Info, "file descriptor '%d' sent HUP.", fd);
            removeEventHandler(fd);
            close(fd);
        } else if ((bits & EPOLLIN) != 0) {
            if (!isApprovedFd(fd)) {
                KEL_LOG(Info,
                        "file descriptor %d is not on the approved list, cannot process event", fd);
                removeEventHandler(fd);
                close(fd);
                continue;
            }
            auto found = handlers.find(fd);
            if (found == handlers.end()) {
                KEL_LOG(Info, "file descriptor '%d' does not have an event handler registered", fd);
                continue;
            }
            // Copied: the callback may add or remove handlers and so invalidate the entry.
            const HandlerObject handler = found->second;
            KEL_LOG(Verbose, "file descriptor '%d' is processing events [callback:%p, data:%p]", fd,
                    asPointer(handler.callback), handler.data);
            if (handler.callback != nullptr) {
                handler.callback(fd, handler.data);
            } else {
                KEL_LOG(Error, "no callback registered");
            }
        } else {
            // Only a hang-up or a rejected descriptor removes a handler; an error alone is
            // reported and the descriptor stays registered.
            KEL_LOG(Info, "Unhandled epoll event: %s [flags 0%o]", unhandledFlagNames(bits).c_str(),
                    bits);
        }
    }
}

void EventManager::wake() {
    KEL_LOG(Verbose, "EventManager::wake() EX");
    // The console line is part of the loop's observable behaviour.
    std::fputs("wake()\n", stdout);
    std::fflush(stdout);
    const std::uint64_t one = 1;
    ssize_t written = write(wakeFd, &one, sizeof(one));
    if (written != static_cast<ssize_t>(sizeof(one))) {
        KEL_LOG(Info, "Error in writing rv: %d, error: %s", static_cast<int>(written),
                std::strerror(errno));
    }
}

void EventManager::clearRead(int fd, void* /*data*/) {
    char buffer[256];
    ssize_t got;
    do {
        got = read(fd, buffer, sizeof(buffer));
        // End of file stops too: a half-closed socket would otherwise keep the loop spinning.
    } while (got > 0);
    if (got == -1 && errno != EAGAIN) {
        KEL_LOG(Info, "Error while clearing the read buffer on fd %d", fd);
    }
}

bool EventManager::isApprovedFd(int fd) {
    std::lock_guard<std::mutex> lock(approvedFdMutex());
    return approvedFd.count(fd) != 0;
}

void EventManager::addApprovedFd(int fd) {
    std::lock_guard<std::mutex> lock(approvedFdMutex());
    approvedFd.insert(fd);
}

void EventManager::remApprovedFd(int fd) {
    std::lock_guard<std::mutex> lock(approvedFdMutex());
    approvedFd.erase(fd);
}

}  // namespace kel
