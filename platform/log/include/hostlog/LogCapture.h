// Observation of the host log stand-ins: while a LogCapture lives, every __android_log_print,
// Diag_LSM_Init, Diag_LSM_DeInit and msg_sprintf call is recorded as it was made, so a test can
// assert on it without scraping standard error. Built against the system's liblog, which keeps no
// record a test could ask for, a capture instead sends standard error into a private file for its
// lifetime and reads the Android records back from what liblog wrote there; it lowers liblog's
// minimum priority meanwhile, so that Verbose and Debug records are written too.
//
// Threads: the log calls may come from any thread; every method here takes the capture's lock.
// At most one LogCapture may live at a time.
#ifndef HOSTLOG_LOG_CAPTURE_H
#define HOSTLOG_LOG_CAPTURE_H

#include <cstdint>
#include <string>
#include <vector>

namespace hostlog {

struct AndroidLogRecord {
    int priority = 0;
    std::string tag;
    std::string message;  // the formatted text
};

struct DiagRecord {
    // The descriptor as the call passed it.
    uint16_t line = 0;
    uint16_t ssId = 0;
    uint32_t mask = 0;
    std::string format;
    std::string fileName;
    // The arguments, read as the format's conversions say (strings as text, numbers in decimal).
    std::vector<std::string> args;
    std::string text;  // the formatted line
};

class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<AndroidLogRecord> android() const;
    std::vector<DiagRecord> diag() const;
    int diagInitCalls() const;
    int diagDeInitCalls() const;
    // Android messages containing text, in call order.
    std::vector<AndroidLogRecord> androidContaining(const std::string& text) const;
    // Whether some Android message equals text exactly.
    bool hasAndroidMessage(const std::string& text) const;
    void clear();
};

// Why a LogCapture cannot read Android log records back here, or empty if it can: the system's
// liblog on a device hands them to the log daemon, out of a test's reach.
std::string androidLogUnreadableReason();

// Whether the stand-ins also print to standard error (default: on, unless the environment
// variable KELR_LOG_QUIET is set to 1).
void setEcho(bool enabled);

}  // namespace hostlog

#endif  // HOSTLOG_LOG_CAPTURE_H
