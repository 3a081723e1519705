// Whether a test can read back what the library wrote to the Android log. The host stand-in for
// liblog records every call for hostlog::LogCapture; with the system's liblog on a host
// (KELR_PLATFORM=system) the capture reads back what liblog writes to standard error; on a device
// liblog hands its records to the log daemon, out of a test's reach. Tests that assert on Android
// log records, present or absent, begin with KELR_SKIP_UNLESS_ANDROID_LOG_READABLE(), which skips
// them, with the reason, where the records cannot be read back; a fixture whose every test does so
// may call it in SetUp.
#ifndef KELR_TESTS_LOG_OBSERVATION_H
#define KELR_TESTS_LOG_OBSERVATION_H

#include <gtest/gtest.h>

#include <string>

#include "hostlog/LogCapture.h"

#define KELR_SKIP_UNLESS_ANDROID_LOG_READABLE()                                         \
    do {                                                                                \
        const std::string kelrUnreadableReason = hostlog::androidLogUnreadableReason(); \
        if (!kelrUnreadableReason.empty()) {                                            \
            GTEST_SKIP() << kelrUnreadableReason;                                       \
        }                                                                               \
    } while (false)

#endif  // KELR_TESTS_LOG_OBSERVATION_H
