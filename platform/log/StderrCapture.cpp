#include "StderrCapture.h"

#include <android/log.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "HostLog.h"
#include "NumberText.h"
#include "UniqueFd.h"

namespace hostlog::detail {
namespace {

// More than any test writes; what lies beyond is not read.
constexpr size_t kMaxCaptured = 16u << 20;

struct Capture {
    std::mutex mutex;         // guards everything below
    vexwire::UniqueFd file;   // the private file standard error goes into, open while capturing
    vexwire::UniqueFd saved;  // standard error as it was before the capture
    off_t clearedAt = 0;      // where the records not yet cleared begin
    int depth = 0;            // captures living; only the outermost moves standard error
    int previousMinimum = ANDROID_LOG_DEFAULT;
};

// Never destroyed, like the stand-ins' records: a log call may come while the process exits.
Capture& capture() {
    static Capture* const instance = std::make_unique<Capture>().release();
    return *instance;
}

// Unlinked from the start where the file system allows it, else unlinked as soon as it is made;
// created 0600 and never through an existing name, so nothing else can read or replace it.
vexwire::UniqueFd privateFile() {
    const char* dir = std::getenv("TMPDIR");
    if (dir == nullptr || dir[0] != '/') {
        dir = "/tmp";
    }
    vexwire::UniqueFd fd(::open(dir, O_TMPFILE | O_RDWR | O_APPEND | O_CLOEXEC, 0600));
    if (fd) {
        return fd;
    }
    std::string name = std::string(dir) + "/kelr-log-XXXXXX";
    fd.reset(::mkostemp(name.data(), O_APPEND | O_CLOEXEC));
    if (fd) {
        ::unlink(name.c_str());
    }
    return fd;
}

std::string readFrom(int fd, off_t offset) {
    std::string text;
    char buffer[8192];
    while (text.size() < kMaxCaptured) {
        const size_t want = std::min(sizeof(buffer), kMaxCaptured - text.size());
        ssize_t got = ::pread(fd, buffer, want, offset + static_cast<off_t>(text.size()));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
    return text;
}

int priorityOf(char letter) {
    switch (letter) {
        case 'V':
            return ANDROID_LOG_VERBOSE;
        case 'D':
            return ANDROID_LOG_DEBUG;
        case 'I':
            return ANDROID_LOG_INFO;
        case 'W':
            return ANDROID_LOG_WARN;
        case 'E':
            return ANDROID_LOG_ERROR;
        case 'F':
            return ANDROID_LOG_FATAL;
        case '\0':  // liblog has no letter for Silent and prints a NUL
            return ANDROID_LOG_SILENT;
        default:
            return -1;
    }
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Reads "  123" at pos: spaces, then digits; advances pos past them.
bool readNumber(const std::string& line, size_t& pos, long& value) {
    pos = std::min(line.find_first_not_of(' ', pos), line.size());
    const size_t end = std::min(line.find_first_not_of("0123456789", pos), line.size());
    const bool read =
        vexwire::parseWhole(std::string_view(line).substr(pos, end - pos), 10, &value);
    pos = end;
    return read;
}

// Whether line[at...] is " P MM-DD HH:MM:SS pid tid " for pid; sets priority and the message's
// start.
bool headAt(const std::string& line, size_t at, long pid, int& priority, size_t& message) {
    static const char kStamp[] = "dd-dd dd:dd:dd";
    const size_t stampLength = sizeof(kStamp) - 1;
    if (line.size() < at + 3 + stampLength || line[at] != ' ' || line[at + 2] != ' ') {
        return false;
    }
    priority = priorityOf(line[at + 1]);
    for (size_t i = 0; i < stampLength; ++i) {
        const char c = line[at + 3 + i];
        if (kStamp[i] == 'd' ? !isDigit(c) : c != kStamp[i]) {
            return false;
        }
    }
    size_t pos = at + 3 + stampLength;
    long pidField = 0;
    long tid = 0;
    if (priority < 0 || line[pos] != ' ' || !readNumber(line, pos, pidField) || pidField != pid ||
        pos >= line.size() || line[pos] != ' ' || !readNumber(line, pos, tid) ||
        pos >= line.size() || line[pos] != ' ') {
        return false;
    }
    message = pos + 1;
    return true;
}

// A tag may hold spaces, so the head is the first place where the rest of a head follows.
bool parseHead(const std::string& line, long pid, AndroidLogRecord& record) {
    for (size_t at = line.find(' '); at != std::string::npos; at = line.find(' ', at + 1)) {
        int priority = 0;
        size_t message = 0;
        if (headAt(line, at, pid, priority, message)) {
            record.priority = priority;
            record.tag = line.substr(0, at);
            record.message = line.substr(message);
            return true;
        }
    }
    return false;
}

// The records in text as liblog's standard error logger prints them for process pid; a line that
// does not begin a record of pid continues the message before it.
std::vector<AndroidLogRecord> parseStderrRecords(const std::string& text, long pid) {
    std::vector<AndroidLogRecord> records;
    // Only whole lines: a record being written now is read next time.
    const size_t end = text.rfind('\n');
    if (end == std::string::npos) {
        return records;
    }
    size_t start = 0;
    while (start <= end) {
        const size_t newline = text.find('\n', start);
        const std::string line = text.substr(start, newline - start);
        AndroidLogRecord record;
        if (parseHead(line, pid, record)) {
            records.push_back(std::move(record));
        } else if (!records.empty()) {
            records.back().message += '\n';
            records.back().message += line;
        }
        start = newline + 1;
    }
    return records;
}

// Puts standard error back and hands it everything captured, so that a run's output shows what
// it wrote as it did without a capture. Called with the capture's lock held.
void restore(Capture& c) {
    if (!c.file) {
        return;
    }
    __android_log_set_minimum_priority(c.previousMinimum);
    std::fflush(stderr);
    int restored = -1;
    do {
        restored = ::dup2(c.saved.get(), STDERR_FILENO);
    } while (restored < 0 && errno == EINTR);
    c.saved.reset();
    const std::string text = readFrom(c.file.get(), 0);
    writeAll(STDERR_FILENO, text.data(), text.size());
    c.file.reset();
}

// A process that exits while capturing (a death test's child, say) must not lose what it wrote.
void restoreAtExit() {
    Capture& c = capture();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.depth = 0;
    restore(c);
}

}  // namespace

bool startStderrCapture() {
    Capture& c = capture();
    std::lock_guard<std::mutex> lock(c.mutex);
    if (c.depth++ > 0) {
        return true;
    }
    vexwire::UniqueFd file = privateFile();
    const int why = errno;
    std::fflush(stderr);
    vexwire::UniqueFd saved(file ? ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3) : -1);
    if (!saved || ::dup2(file.get(), STDERR_FILENO) < 0) {
        std::fprintf(stderr, "hostlog: cannot capture standard error: %s\n",
                     std::strerror(file ? errno : why));
        return false;
    }
    static const bool restoresAtExit = std::atexit(restoreAtExit) == 0;
    static_cast<void>(restoresAtExit);
    c.file = std::move(file);
    c.saved = std::move(saved);
    c.clearedAt = 0;
    c.previousMinimum = __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    return true;
}

std::string stderrCaptureUnavailableReason() {
    static const std::string reason = [] {
        vexwire::UniqueFd probe = privateFile();
        return probe ? std::string()
                     : "cannot make a private file to capture standard error in: " +
                           std::string(std::strerror(errno));
    }();
    return reason;
}

void stopStderrCapture() {
    Capture& c = capture();
    std::lock_guard<std::mutex> lock(c.mutex);
    if (c.depth > 0 && --c.depth == 0) {
        restore(c);
    }
}

std::vector<AndroidLogRecord> stderrRecords() {
    Capture& c = capture();
    std::lock_guard<std::mutex> lock(c.mutex);
    if (!c.file) {
        return {};
    }
    return parseStderrRecords(readFrom(c.file.get(), c.clearedAt), static_cast<long>(::getpid()));
}

void clearStderrRecords() {
    Capture& c = capture();
    std::lock_guard<std::mutex> lock(c.mutex);
    struct stat status {};
    if (c.file && ::fstat(c.file.get(), &status) == 0) {
        c.clearedAt = status.st_size;
    }
}

void writeToOriginalStderr(const std::string& text) {
    Capture& c = capture();
    std::lock_guard<std::mutex> lock(c.mutex);
    writeAll(c.saved ? c.saved.get() : STDERR_FILENO, text.data(), text.size());
}

}  // namespace hostlog::detail
