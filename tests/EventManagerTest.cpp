#include "EventManager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include "DebugLogFixture.h"
#include "UniqueFd.h"
#include "hostlog/LogCapture.h"
#include "support/LogObservation.h"
#include "support/TestSupport.h"

namespace kel {
namespace {

// release() hands a descriptor over when the loop closes it itself.
using TestFd = vexwire::UniqueFd;

TestFd makeEventFd() {
    return TestFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
}

struct Pipe {
    TestFd read;
    TestFd write;
};

Pipe makePipe() {
    int fds[2] = {-1, -1};
    EXPECT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
    return Pipe{TestFd(fds[0]), TestFd(fds[1])};
}

void signal(int fd) {
    const std::uint64_t one = 1;
    ASSERT_EQ(write(fd, &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// What a handler saw; passed as the handler's data.
struct Probe {
    int events = 0;
    int closes = 0;
    int lastFd = -1;
};

void countEvent(int fd, void* data) {
    auto* probe = static_cast<Probe*>(data);
    ++probe->events;
    probe->lastFd = fd;
    EventManager::clearRead(fd, nullptr);
}

void countClose(int fd, void* data) {
    auto* probe = static_cast<Probe*>(data);
    ++probe->closes;
    probe->lastFd = fd;
}

class EventManagerTest : public DebugLogFixture {
  protected:
    bool logged(const std::string& text) const { return capture.hasAndroidMessage(text); }

    EventManager manager;
};

TEST_F(EventManagerTest, ReadableDescriptorRunsItsFirstHandlerUntilRemovedAndNoLoopClosesIt) {
    TestFd fd = makeEventFd();
    Probe probe;
    Probe second;
    ASSERT_TRUE(manager.addEventHandler(fd.get(), countEvent, &probe, countClose, EPOLLIN));
    EXPECT_TRUE(EventManager::isApprovedFd(fd.get()));
    // Added twice, the first handler stays.
    EXPECT_FALSE(manager.addEventHandler(fd.get(), countEvent, &second, countClose, EPOLLIN));

    signal(fd.get());
    manager.processEvents();
    EXPECT_EQ(probe.events, 1);
    EXPECT_EQ(probe.lastFd, fd.get());
    EXPECT_EQ(probe.closes, 0);
    EXPECT_EQ(second.events, 0);

    manager.removeEventHandler(fd.get());
    EXPECT_EQ(probe.closes, 1);
    EXPECT_EQ(second.closes, 0);
    EXPECT_FALSE(EventManager::isApprovedFd(fd.get()));
    EXPECT_TRUE(isOpen(fd.get()));
    // Forgotten: the same fd can be registered again.
    EXPECT_TRUE(manager.addEventHandler(fd.get(), countEvent, &probe, nullptr, EPOLLIN));
    manager.removeEventHandler(fd.get());
    {
        EventManager other;
        EXPECT_TRUE(other.addEventHandler(fd.get(), countEvent, &probe, countClose, EPOLLIN));
    }
    // A loop destroyed closes nothing; approval outlives it, revoking it is the owner's business.
    EXPECT_EQ(probe.closes, 1);
    EXPECT_TRUE(isOpen(fd.get()));
    EXPECT_TRUE(EventManager::isApprovedFd(fd.get()));
    EventManager::remApprovedFd(fd.get());
}

TEST_F(EventManagerTest, RemovingAnUnknownFdChangesNothingAndASecondAddIsRefusedAndLogged) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    TestFd fd = makeEventFd();
    manager.removeEventHandler(fd.get());
    EXPECT_TRUE(logged("Cannot remove event handler"));
    EXPECT_TRUE(isOpen(fd.get()));
    EXPECT_FALSE(EventManager::isApprovedFd(fd.get()));

    // No handler was left behind by the removal: a new one is taken, and a second refused.
    Probe probe;
    ASSERT_TRUE(manager.addEventHandler(fd.get(), countEvent, &probe, countClose, EPOLLIN));
    EXPECT_FALSE(manager.addEventHandler(fd.get(), countEvent, &probe, countClose, EPOLLIN));
    EXPECT_TRUE(logged("fd=" + std::to_string(fd.get()) + " is already in handlers"));
    manager.removeEventHandler(fd.get());
}

TEST_F(EventManagerTest, DescriptorEpollRefusesIsStillRecordedAndApproved) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    testsupport::TempDir dir;
    TestFd file(open(dir.file("plain").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
    ASSERT_GE(file.get(), 0);
    Probe probe;

    EXPECT_TRUE(manager.addEventHandler(file.get(), countEvent, &probe, countClose, EPOLLIN));
    std::vector<hostlog::AndroidLogRecord> refused = capture.androidContaining("Cannot add");
    ASSERT_EQ(refused.size(), 1u);
    EXPECT_EQ(refused[0].message, "Cannot add event handler");
    EXPECT_EQ(refused[0].priority, 6);
    EXPECT_TRUE(EventManager::isApprovedFd(file.get()));
    EXPECT_FALSE(manager.addEventHandler(file.get(), countEvent, &probe, countClose, EPOLLIN));

    manager.removeEventHandler(file.get());
    EXPECT_TRUE(logged("Cannot remove event handler"));
    EXPECT_EQ(probe.closes, 1);
    EXPECT_FALSE(EventManager::isApprovedFd(file.get()));
}

// Hung up or no longer approved, a descriptor is dropped and closed and only its close handler
// runs. Readable and hung up at once, the hang-up wins.
TEST_F(EventManagerTest, HungUpOrUnapprovedDescriptorIsDroppedAndClosedUnhandled) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    for (const bool hangUp : {true, false}) {
        SCOPED_TRACE(hangUp ? "hung up" : "unapproved");
        Pipe pipe = makePipe();
        Probe probe;
        ASSERT_TRUE(manager.addEventHandler(pipe.read.get(), countEvent, &probe, countClose,
                                            EPOLLIN | EPOLLHUP));
        ASSERT_EQ(write(pipe.write.get(), "x", 1), 1);
        if (hangUp) {
            TestFd(pipe.write.release());
        } else {
            EventManager::remApprovedFd(pipe.read.get());
        }

        manager.processEvents();
        const int fd = pipe.read.release();
        EXPECT_EQ(probe.events, 0);
        EXPECT_EQ(probe.closes, 1);
        EXPECT_EQ(probe.lastFd, fd);
        EXPECT_FALSE(isOpen(fd));
        EXPECT_FALSE(EventManager::isApprovedFd(fd));
        const std::string number = std::to_string(fd);
        EXPECT_TRUE(logged(hangUp ? "file descriptor '" + number + "' sent HUP."
                                  : "file descriptor " + number +
                                        " is not on the approved list, cannot process event"));
    }
}

// A pipe's write end whose reader is gone reports an error (and may report writable).
TEST_F(EventManagerTest, ErrorWithoutHangUpIsReportedAndKept) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    const struct {
        int registered;
        const char* message;
    } cases[] = {{0, "Unhandled epoll event: EPOLLERR  [flags 010]"},
                 {EPOLLOUT, "Unhandled epoll event: EPOLLOUT EPOLLERR  [flags 014]"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        Pipe pipe = makePipe();
        TestFd(pipe.read.release());
        Probe probe;
        ASSERT_TRUE(manager.addEventHandler(pipe.write.get(), countEvent, &probe, countClose,
                                            c.registered));

        manager.processEvents();
        EXPECT_TRUE(logged(c.message));
        EXPECT_EQ(probe.events, 0);
        EXPECT_EQ(probe.closes, 0);
        EXPECT_TRUE(isOpen(pipe.write.get()));
        EXPECT_TRUE(EventManager::isApprovedFd(pipe.write.get()));
        EXPECT_FALSE(manager.addEventHandler(pipe.write.get(), nullptr, nullptr, nullptr, 0));

        manager.removeEventHandler(pipe.write.get());
        EXPECT_EQ(probe.closes, 1);
    }
}

TEST_F(EventManagerTest, AtMostFourEventsPerTurn) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::vector<TestFd> fds;
    Probe probe;
    for (int i = 0; i < 6; ++i) {
        fds.push_back(makeEventFd());
        ASSERT_TRUE(
            manager.addEventHandler(fds.back().get(), countEvent, &probe, nullptr, EPOLLIN));
        signal(fds.back().get());
    }

    manager.processEvents();
    EXPECT_EQ(probe.events, 4);
    EXPECT_TRUE(logged("there are 4 file descriptor(s) with events pending"));
    manager.processEvents();
    EXPECT_EQ(probe.events, 6);

    for (const TestFd& fd : fds) {
        manager.removeEventHandler(fd.get());
    }
}

// Each handler removes the other descriptor; both are ready in the same turn.
struct Rival {
    EventManager* manager = nullptr;
    int other = -1;
    Probe probe;
};

void removeRival(int fd, void* data) {
    auto* rival = static_cast<Rival*>(data);
    ++rival->probe.events;
    EventManager::clearRead(fd, nullptr);
    rival->manager->removeEventHandler(rival->other);
}

void countRivalClose(int /*fd*/, void* data) {
    ++static_cast<Rival*>(data)->probe.closes;
}

TEST_F(EventManagerTest, HandlerMayRemoveAnotherPendingDescriptor) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    TestFd a = makeEventFd();
    TestFd b = makeEventFd();
    Rival rivalA{&manager, b.get(), {}};
    Rival rivalB{&manager, a.get(), {}};
    ASSERT_TRUE(manager.addEventHandler(a.get(), removeRival, &rivalA, countRivalClose, EPOLLIN));
    ASSERT_TRUE(manager.addEventHandler(b.get(), removeRival, &rivalB, countRivalClose, EPOLLIN));
    signal(a.get());
    signal(b.get());

    manager.processEvents();
    EXPECT_EQ(rivalA.probe.events + rivalB.probe.events, 1);
    // The loser was removed by its rival, not dropped as unapproved: it stays open.
    EXPECT_EQ(rivalA.probe.closes + rivalB.probe.closes, 1);
    EXPECT_TRUE(isOpen(a.get()));
    EXPECT_TRUE(isOpen(b.get()));
    EXPECT_TRUE(capture.androidContaining("not on the approved list").empty());
    EXPECT_TRUE(capture.androidContaining("Unhandled epoll event").empty());

    Rival& winner = rivalA.probe.events == 1 ? rivalA : rivalB;
    manager.removeEventHandler(winner.other == a.get() ? b.get() : a.get());
}

TEST_F(EventManagerTest, WakeFromAnotherThreadReturnsBlockedLoopAndOneTurnDrainsSeveralWakes) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::future<void> loop = std::async(std::launch::async, [this] { manager.processEvents(); });
    manager.wake();
    if (loop.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        manager.wake();
        loop.wait();
        FAIL() << "processEvents did not return after wake()";
    }
    EXPECT_TRUE(logged("EventManager::wake() EX"));

    manager.wake();
    manager.wake();
    manager.processEvents();
    // The loop's own wake descriptor is drained by its handler, or it would be pending again.
    TestFd fd = makeEventFd();
    Probe probe;
    ASSERT_TRUE(manager.addEventHandler(fd.get(), countEvent, &probe, nullptr, EPOLLIN));
    signal(fd.get());
    capture.clear();
    manager.processEvents();
    EXPECT_EQ(probe.events, 1);
    EXPECT_TRUE(logged("there are 1 file descriptor(s) with events pending"));
    EXPECT_TRUE(capture.androidContaining("there are 2").empty());
    manager.removeEventHandler(fd.get());
}

TEST_F(EventManagerTest, ClearReadDrainsQuietlyAndReportsOnlyABadDescriptor) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    Pipe pipe = makePipe();
    const std::string chunk(1000, 'z');
    ASSERT_EQ(write(pipe.write.get(), chunk.data(), chunk.size()),
              static_cast<ssize_t>(chunk.size()));

    EventManager::clearRead(pipe.read.get(), nullptr);
    char byte;
    EXPECT_EQ(read(pipe.read.get(), &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    // Running dry ends in EAGAIN, which is no error.
    EXPECT_TRUE(capture.androidContaining("Error while clearing").empty());
    // At end of file it returns as well.
    TestFd(pipe.write.release());
    EventManager::clearRead(pipe.read.get(), nullptr);

    const int closed = pipe.read.release();
    close(closed);
    EventManager::clearRead(closed, nullptr);
    EXPECT_TRUE(logged("Error while clearing the read buffer on fd " + std::to_string(closed)));
}

}  // namespace
}  // namespace kel
