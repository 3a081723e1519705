// Helpers shared by the test suites.
#ifndef KELR_TESTS_TEST_SUPPORT_H
#define KELR_TESTS_TEST_SUPPORT_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace testsupport {

// A fresh directory under the system's temporary directory, removed with its contents when the
// object goes. Each test gets its own, so suites can run in parallel.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return dirPath; }
    std::string file(const std::string& name) const { return dirPath + "/" + name; }

  private:
    std::string dirPath;
};

// Turns a hang into a failure: unless it is destroyed within the limit, it reports what hung on
// standard error and aborts the process, so the test fails instead of stalling the suite.
class Watchdog {
  public:
    Watchdog(std::string what, std::chrono::seconds limit);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    std::mutex mutex;  // guards done
    std::condition_variable finished;
    bool done = false;
    std::thread thread;
};

// Sets (or, given nullptr, clears) an environment variable, and restores it when it goes.
class ScopedEnv {
  public:
    ScopedEnv(const char* variable, const char* value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    std::string name;
    std::optional<std::string> saved;
};

// The repository's source directory (for shipped seed and carrier files).
std::string sourceDir();

// A file's whole content; empty when it cannot be read.
std::string readFile(const std::string& path);

}  // namespace testsupport

#endif  // KELR_TESTS_TEST_SUPPORT_H
