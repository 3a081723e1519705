// The worker thread's epoll loop: waits on registered descriptors and calls their handlers. A
// process-wide set of approved descriptors guards dispatch: a readable descriptor that is not
// approved is dropped and closed, never handed to a handler.
//
// Threads: processEvents, addEventHandler, removeEventHandler and the handlers run on the thread
// that owns the loop (the worker); wake() may be called from any thread.
#ifndef KEL_EVENT_MANAGER_H
#define KEL_EVENT_MANAGER_H

#include <sys/epoll.h>

#include <map>
#include <set>

namespace kel {

using EventCallback = void (*)(int fd, void* data);
using CloseCallback = void (*)(int fd, void* data);

class EventManager {
  public:
    struct HandlerObject {
        EventCallback callback = nullptr;
        CloseCallback closeCallback = nullptr;
        void* data = nullptr;  // borrowed; owned by whoever registered the handler
    };

    EventManager();
    ~EventManager();
    EventManager(const EventManager&) = delete;
    EventManager& operator=(const EventManager&) = delete;

    // False only when fd already has a handler. An epoll failure is logged and the fd is still
    // recorded and approved: the map, not the kernel, is the record of what is registered.
    bool addEventHandler(int fd, EventCallback callback, void* data, CloseCallback closeCallback,
                         int events);
    // Runs the close callback, forgets fd and revokes its approval; does not close fd.
    void removeEventHandler(int fd);
    // One turn: waits for at most 4 events and dispatches them.
    void processEvents();
    // Makes a blocked or the next processEvents return.
    void wake();

    // Drains a non-blocking descriptor; the wake eventfd's handler.
    static void clearRead(int fd, void* data);
    static bool isApprovedFd(int fd);
    static void addApprovedFd(int fd);
    static void remApprovedFd(int fd);

  private:
    static constexpr int kMaxEvents = 4;

    int epollFd = -1;
    int wakeFd = -1;
    epoll_event events[kMaxEvents];
    std::map<int, HandlerObject> handlers;

    static std::set<int> approvedFd;
};

}  // namespace kel

#endif  // KEL_EVENT_MANAGER_H
