// Tests that assert on Android log records, present or absent, begin with
// KELR_SKIP_UNLESS_ANDROID_LOG_READABLE(): on a device liblog hands its records to the log daemon,
// out of a test's reach, so they skip there with the reason (a fixture may call it in SetUp).
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
