// A value one thread changes and another reads or waits for, the way tests watch callbacks that
// run on a library's own threads. Threads: any; guarded by mu.
#ifndef KELR_TESTS_SUPPORT_GUARDED_H
#define KELR_TESTS_SUPPORT_GUARDED_H

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace testsupport {

template <typename T>
class Guarded {
  public:
    // Long enough for a loaded machine; a wait that ends there fails its test instead of hanging.
    static constexpr std::chrono::seconds kLimit{10};

    template <typename Apply>
    void change(Apply apply) {
        {
            std::lock_guard<std::mutex> lock(mu);
            apply(value);
        }
        cv.notify_all();
    }
    // Whether holds(value) came true within the limit.
    template <typename Holds>
    bool waitUntil(Holds holds) {
        std::unique_lock<std::mutex> lock(mu);
        return cv.wait_for(lock, kLimit, [&] { return holds(value); });
    }
    T get() {
        std::lock_guard<std::mutex> lock(mu);
        return value;
    }

  private:
    std::mutex mu;
    std::condition_variable cv;
    T value{};
};

// A one-shot gate: a callback waits at it (within the limit) until the test opens it.
class Gate {
  public:
    void open() {
        opened.change([](bool& value) { value = true; });
    }
    bool wait() {
        return opened.waitUntil([](bool value) { return value; });
    }

  private:
    Guarded<bool> opened;
};

}  // namespace testsupport

#endif  // KELR_TESTS_SUPPORT_GUARDED_H
