// Whether a test can read back what the library wrote to the Android log. The host stand-in for
// liblog records every call for hostlog::LogCapture; the system's liblog (KELR_PLATFORM=system,
// and every device) hands its records to the log daemon (on a host without one, to standard
// error), out of a test's reach. Tests that assert on Android log records, present or absent,
// begin with KELR_SKIP_UNLESS_ANDROID_LOG_READABLE(); a fixture whose every test does so may call
// it in SetUp.
#ifndef KELR_TESTS_LOG_OBSERVATION_H
#define KELR_TESTS_LOG_OBSERVATION_H

#include <gtest/gtest.h>

#ifdef KELR_SYSTEM_LIBLOG
#define KELR_SKIP_UNLESS_ANDROID_LOG_READABLE()                                                   \
    GTEST_SKIP() << "asserts on Android log records, which the system's liblog hands to the log " \
                    "daemon or standard error, where a test cannot read them back"
#else
#define KELR_SKIP_UNLESS_ANDROID_LOG_READABLE() static_cast<void>(0)
#endif

#endif  // KELR_TESTS_LOG_OBSERVATION_H
