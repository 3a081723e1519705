#include "LocalLogBuffer.h"

#include <android/log.h>
#include <diag/msg.h>
#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace kel {
namespace {

// The formatting buffer: one byte more than the limit given to vsnprintf, so a message is cut to
// 511 characters and the buffer always stays terminated.
constexpr size_t kLogBufferSize = 513;
constexpr size_t kLogLimit = 512;

// Four blanks, a date and time of up to 49 characters, ".mmm", " [" and "]".
constexpr size_t kStampReserve = 4 + 49 + 4 + 3;

constexpr uint16_t kDiagLine = 118;
constexpr uint16_t kDiagSsId = 63;
constexpr const char* kDiagFormat = "|%s| %s";
constexpr const char* kDiagFileName = "src/LocalLogBuffer";

bool keptInHistory(LogLevel level) {
    switch (level) {
        case LogLevel::Error:
        case LogLevel::History:
            return true;
        case LogLevel::Verbose:
        case LogLevel::Debug:
        case LogLevel::Info:
        case LogLevel::Fatal:
            return false;
    }
    return false;
}

}  // namespace

LogWrapper* LogWrapper::getInstance() {
    // The history is constructed before the wrapper and so destroyed after it: a static that logs
    // from its destructor at exit (the facade) must find both alive.
    LocalLogBuffer::getInstance();
    static LogWrapper instance;
    return &instance;
}

LogWrapper::~LogWrapper() {
    // Handles released during the process's exit may still log after this instance is gone;
    // leaving no writer behind makes their messages go nowhere instead of through a freed one.
    std::atomic_store(&logWriter, std::shared_ptr<LogWriter>());
}

void LogWrapper::setLogWriter(std::unique_ptr<LogWriter> writer) {
    std::shared_ptr<LogWriter> previous =
        std::atomic_exchange(&logWriter, std::shared_ptr<LogWriter>(std::move(writer)));
    // previous is destroyed here, or by the last log call still writing through it.
}

void LogWrapper::log(LogLevel level, const char* tag, const char* format, ...) {
    // Not zero-filled: vsnprintf terminates what it writes, and a failed format leaves the
    // terminator placed here.
    char buffer[kLogBufferSize];
    buffer[0] = '\0';
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        std::vsnprintf(buffer, kLogLimit, format, args);
        va_end(args);
    }
    // Up to the first NUL: a "%c" of 0 ends the message there.
    std::string message(buffer, strnlen(buffer, kLogLimit - 1));
    const bool kept = keptInHistory(level);
    if (std::shared_ptr<LogWriter> writer = std::atomic_load(&logWriter)) {
        // The history needs the text after the writer has had it; otherwise it is handed over.
        writer->write(level, tag != nullptr ? tag : "", kept ? message : std::move(message));
    }
    if (kept) {
        LocalLogBuffer::getInstance()->addLogWithTimestamp(std::move(message));
    }
}

void AdbWriter::write(LogLevel level, std::string tag, std::string message) {
    __android_log_print(convertPrio(level), tag.c_str(), "%s", message.c_str());
}

int AdbWriter::convertPrio(LogLevel level) {
    switch (level) {
        case LogLevel::Verbose:
            return ANDROID_LOG_VERBOSE;
        case LogLevel::Debug:
            return ANDROID_LOG_DEBUG;
        case LogLevel::Info:
            return ANDROID_LOG_INFO;
        case LogLevel::Error:
            return ANDROID_LOG_ERROR;
        case LogLevel::Fatal:
            return ANDROID_LOG_FATAL;
        case LogLevel::History:
            return ANDROID_LOG_INFO;
    }
    return ANDROID_LOG_INFO;
}

DiagWriter::DiagWriter() {
    // Without a session the diagnostics library drops messages; nothing better can be done here.
    Diag_LSM_Init(nullptr);
}

DiagWriter::~DiagWriter() {
    Diag_LSM_DeInit();
}

void DiagWriter::write(LogLevel level, std::string tag, std::string message) {
    const uint32_t mask = static_cast<uint32_t>(convertPrio(level));
    if ((mask & 0x1F) == 0) {
        return;
    }
    // Filled once, on the first call: every later message carries the first call's mask whatever
    // its own level. Deliberate; do not make it per call.
    static const msg_const_type descriptor = {
        {kDiagLine, kDiagSsId, mask}, kDiagFormat, kDiagFileName};
    msg_sprintf(&descriptor, tag.c_str(), message.c_str());
}

int DiagWriter::convertPrio(LogLevel level) {
    switch (level) {
        case LogLevel::Error:
        case LogLevel::History:
            return MSG_LEGACY_HIGH;
        case LogLevel::Fatal:
            return MSG_LEGACY_FATAL;
        case LogLevel::Verbose:
        case LogLevel::Debug:
        case LogLevel::Info:
            return MSG_LEGACY_LOW;
    }
    return MSG_LEGACY_LOW;
}

LocalLogBuffer* LocalLogBuffer::getInstance() {
    static LocalLogBuffer instance("KEL", 200);
    return &instance;
}

LocalLogBuffer::LocalLogBuffer(std::string bufferName, int bound)
    : name(std::move(bufferName)), maxSize(bound) {}

void LogStamp::append(const timeval& when, std::string& out) {
    if (!valid || when.tv_sec != second) {
        date[0] = '\0';
        tm local{};
        // localtime_r: lines are stamped on several threads at once.
        if (localtime_r(&when.tv_sec, &local) != nullptr) {
            strftime(date, sizeof(date), "%F %X", &local);
        }
        dateLength = strnlen(date, sizeof(date));
        second = when.tv_sec;
        valid = true;
    }
    out.append(date, dateLength);
    const long millis = when.tv_usec / 1000;
    if (millis < 0 || millis > 999) {
        // Not from gettimeofday; printed as "%03d" prints it.
        char text[16];
        std::snprintf(text, sizeof(text), ".%03d", static_cast<int>(millis));
        out += text;
        return;
    }
    const char digits[] = {'.', static_cast<char>('0' + millis / 100),
                           static_cast<char>('0' + millis / 10 % 10),
                           static_cast<char>('0' + millis % 10)};
    out.append(digits, sizeof(digits));
}

void LocalLogBuffer::addLogWithTimestamp(std::string line) {
    timeval now{};
    gettimeofday(&now, nullptr);
    // One per thread, so stamping takes no lock: the lines of one second share their date.
    thread_local LogStamp stamp;
    std::string text;
    text.reserve(kStampReserve + name.size() + line.size());
    text += "    ";
    stamp.append(now, text);
    text += " [";
    text += name;
    text += ']';
    text += line;

    std::lock_guard<std::mutex> lock(logMutex);
    // Trimming before the append, with greater-than, keeps up to maxSize + 1 lines. Deliberate;
    // the bound is kept exactly.
    while (!logs.empty() && static_cast<long long>(logs.size()) > maxSize) {
        logs.pop_front();
    }
    logs.push_back(std::move(text));
}

std::vector<std::string> LocalLogBuffer::getLogs() {
    std::lock_guard<std::mutex> lock(logMutex);
    return std::vector<std::string>(logs.begin(), logs.end());
}

void LocalLogBuffer::flush() {
    std::lock_guard<std::mutex> lock(logMutex);
    logs.clear();
}

std::string LocalLogBuffer::getName() {
    return name;
}

}  // namespace kel
