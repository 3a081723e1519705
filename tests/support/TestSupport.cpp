#include "support/TestSupport.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testsupport {

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/kelr-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    dirPath = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(dirPath, ignored);
}

Watchdog::Watchdog(std::string what, std::chrono::seconds limit)
    : thread([this, what = std::move(what), limit] {
          std::unique_lock<std::mutex> lock(mutex);
          if (!finished.wait_for(lock, limit, [this] { return done; })) {
              std::fprintf(stderr, "watchdog: %s did not finish within %lld s\n", what.c_str(),
                           static_cast<long long>(limit.count()));
              std::abort();
          }
      }) {}

Watchdog::~Watchdog() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
    }
    finished.notify_all();
    thread.join();
}

std::string sourceDir() {
    return KELR_SOURCE_DIR;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

ScopedEnv::ScopedEnv(const char* variable, const char* value) : name(variable) {
    if (const char* old = std::getenv(variable)) {
        saved = old;
    }
    value != nullptr ? ::setenv(variable, value, 1) : ::unsetenv(variable);
}

ScopedEnv::~ScopedEnv() {
    saved ? ::setenv(name.c_str(), saved->c_str(), 1) : ::unsetenv(name.c_str());
}

}  // namespace testsupport
