#include "hostlog/LogCapture.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>

#include "HostLog.h"
#ifdef KELR_HOSTLOG_SYSTEM_LIBLOG
#include "StderrCapture.h"
#endif

namespace hostlog {
namespace {

struct Records {
    std::mutex mutex;        // guards everything below
    bool capturing = false;  // a LogCapture lives
    std::vector<AndroidLogRecord> android;
    std::vector<DiagRecord> diag;
    int initCalls = 0;
    int deInitCalls = 0;
};

// Never destroyed: the library's log writer is a static too, and its destructor may call the
// diagnostics library while the process exits.
Records& records() {
    static Records* const instance = std::make_unique<Records>().release();
    return *instance;
}

// Runs use on the records under their lock.
template <typename Use>
auto withRecords(Use use) {
    Records& r = records();
    std::lock_guard<std::mutex> lock(r.mutex);
    return use(r);
}

void reset(Records& r) {
    r.android.clear();
    r.diag.clear();
    r.initCalls = 0;
    r.deInitCalls = 0;
}

// Mirrors Records::capturing for readers that take no lock.
std::atomic<bool> captureActive{false};

// -1 until first read from the environment.
std::atomic<int> echoState{-1};

bool echoEnabled() {
    int state = echoState.load();
    if (state < 0) {
        const char* quiet = std::getenv("KELR_LOG_QUIET");
        state = (quiet != nullptr && std::string(quiet) == "1") ? 0 : 1;
        int unset = -1;
        // A concurrent setEcho wins over the environment.
        echoState.compare_exchange_strong(unset, state);
        state = echoState.load();
    }
    return state == 1;
}

}  // namespace

namespace detail {

bool capturing() {
    return captureActive.load(std::memory_order_relaxed);
}

bool echoing() {
    return echoEnabled();
}

void recordAndroid(AndroidLogRecord record) {
    withRecords([&record](Records& r) {
        if (r.capturing) {
            r.android.push_back(std::move(record));
        }
    });
}

void recordDiag(DiagRecord record) {
    withRecords([&record](Records& r) {
        if (r.capturing) {
            r.diag.push_back(std::move(record));
        }
    });
}

void noteDiagInit() {
    withRecords([](Records& r) { r.initCalls += r.capturing ? 1 : 0; });
}

void noteDiagDeInit() {
    withRecords([](Records& r) { r.deInitCalls += r.capturing ? 1 : 0; });
}

std::string lineHead() {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    char date[32] = "";
    if (localtime_r(&now.tv_sec, &local) != nullptr) {
        strftime(date, sizeof(date), "%m-%d %H:%M:%S", &local);
    }
    char head[96];
    std::snprintf(head, sizeof(head), "%s.%03d %5d %5d", date, static_cast<int>(now.tv_usec / 1000),
                  static_cast<int>(getpid()), static_cast<int>(syscall(SYS_gettid)));
    return head;
}

void echo(const std::string& text) {
    if (!echoEnabled()) {
        return;
    }
#ifdef KELR_HOSTLOG_SYSTEM_LIBLOG
    // Standard error may be a capture's file, which must hold the system's records only.
    writeToOriginalStderr(text);
#else
    writeAll(STDERR_FILENO, text.data(), text.size());
#endif
}

void writeAll(int fd, const char* data, size_t left) {
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;
        }
        data += written;
        left -= static_cast<size_t>(written);
    }
}

}  // namespace detail

LogCapture::LogCapture() {
    withRecords([](Records& r) {
        r.capturing = true;
        captureActive.store(true);
        reset(r);
    });
#ifdef KELR_HOSTLOG_SYSTEM_LIBLOG
    detail::startStderrCapture();
#endif
}

LogCapture::~LogCapture() {
#ifdef KELR_HOSTLOG_SYSTEM_LIBLOG
    detail::stopStderrCapture();
#endif
    withRecords([](Records& r) {
        r.capturing = false;
        captureActive.store(false);
        reset(r);
    });
}

std::vector<AndroidLogRecord> LogCapture::android() const {
#ifdef KELR_HOSTLOG_SYSTEM_LIBLOG
    // The system's liblog records nothing here: its records are what it wrote to standard error.
    return detail::stderrRecords();
#else
    return withRecords([](Records& r) { return r.android; });
#endif
}

std::vector<DiagRecord> LogCapture::diag() const {
    return withRecords([](Records& r) { return r.diag; });
}

int LogCapture::diagInitCalls() const {
    return withRecords([](Records& r) { return r.initCalls; });
}

int LogCapture::diagDeInitCalls() const {
    return withRecords([](Records& r) { return r.deInitCalls; });
}

std::vector<AndroidLogRecord> LogCapture::androidContaining(const std::string& text) const {
    std::vector<AndroidLogRecord> found;
    for (AndroidLogRecord& record : android()) {
        if (record.message.find(text) != std::string::npos) {
            found.push_back(std::move(record));
        }
    }
    return found;
}

bool LogCapture::hasAndroidMessage(const std::string& text) const {
    for (const AndroidLogRecord& record : android()) {
        if (record.message == text) {
            return true;
        }
    }
    return false;
}

void LogCapture::clear() {
    withRecords([](Records& r) { reset(r); });
#ifdef KELR_HOSTLOG_SYSTEM_LIBLOG
    detail::clearStderrRecords();
#endif
}

std::string androidLogUnreadableReason() {
#if defined(KELR_HOSTLOG_SYSTEM_LIBLOG)
    return detail::stderrCaptureUnavailableReason();
#elif defined(KELR_SYSTEM_LIBLOG)
    // A device's tests: liblog writes to the log daemon, and this capture never sees its records.
    return "asserts on Android log records, which the system's liblog hands to the log daemon, "
           "where a test cannot read them back";
#else
    return std::string();
#endif
}

void setEcho(bool enabled) {
    echoState.store(enabled ? 1 : 0);
}

}  // namespace hostlog
