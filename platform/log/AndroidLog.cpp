// Host stand-in for Android's log: one logcat-style ("threadtime") line per message line on
// standard error, and a record for LogCapture.
#include <android/log.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "HostLog.h"

namespace {

char priorityLetter(int priority) {
    switch (priority) {
        case ANDROID_LOG_VERBOSE:
            return 'V';
        case ANDROID_LOG_DEBUG:
            return 'D';
        case ANDROID_LOG_INFO:
            return 'I';
        case ANDROID_LOG_WARN:
            return 'W';
        case ANDROID_LOG_ERROR:
            return 'E';
        case ANDROID_LOG_FATAL:
            return 'F';
        case ANDROID_LOG_SILENT:
            return 'S';
        default:
            return '?';
    }
}

std::string formatMessage(const char* fmt, va_list args) {
    if (fmt == nullptr) {
        return std::string();
    }
    va_list sizing;
    va_copy(sizing, args);
    int length = std::vsnprintf(nullptr, 0, fmt, sizing);
    va_end(sizing);
    if (length <= 0) {
        return std::string();
    }
    std::string text(static_cast<size_t>(length) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), fmt, args);
    text.resize(static_cast<size_t>(length));
    return text;
}

// Like logcat, every line of a multi-line message gets its own head.
std::string threadtimeLines(int priority, const std::string& tag, const std::string& message) {
    std::string head = hostlog::detail::lineHead();
    head += ' ';
    head += priorityLetter(priority);
    head += ' ';
    head += tag;
    head += ": ";
    std::string out;
    size_t start = 0;
    while (true) {
        size_t end = message.find('\n', start);
        out += head;
        out.append(message, start, end == std::string::npos ? std::string::npos : end - start);
        out += '\n';
        if (end == std::string::npos || end + 1 == message.size()) {
            break;
        }
        start = end + 1;
    }
    return out;
}

}  // namespace

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::string message = formatMessage(fmt, args);
    va_end(args);

    hostlog::AndroidLogRecord record;
    record.priority = prio;
    record.tag = tag != nullptr ? tag : "";
    record.message = message;
    hostlog::detail::echo(threadtimeLines(prio, record.tag, message));
    hostlog::detail::recordAndroid(std::move(record));
    return static_cast<int>(message.size());
}
