// A fixture for tests that assert on the library's Debug log lines: installs the Android log
// writer and records every line the test causes.
#ifndef KELR_TESTS_DEBUG_LOG_FIXTURE_H
#define KELR_TESTS_DEBUG_LOG_FIXTURE_H

#include <android/log.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "LocalLogBuffer.h"
#include "hostlog/LogCapture.h"

namespace kel {

class DebugLogFixture : public ::testing::Test {
  public:
    // The messages logged at Debug with the library's tag, in order.
    std::vector<std::string> debugLines() const {
        std::vector<std::string> lines;
        for (const hostlog::AndroidLogRecord& record : capture.android()) {
            if (record.priority == ANDROID_LOG_DEBUG && record.tag == kLogTag) {
                lines.push_back(record.message);
            }
        }
        return lines;
    }

  protected:
    void SetUp() override {
        LogWrapper::getInstance()->setLogWriter(std::make_unique<AdbWriter>());
        capture.clear();
    }

    hostlog::LogCapture capture;
};

}  // namespace kel

#endif  // KELR_TESTS_DEBUG_LOG_FIXTURE_H
