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

// Formats once into a buffer on the stack; only a message longer than it is formatted again.
std::string formatMessage(const char* fmt, va_list args) {
    if (fmt == nullptr) {
        return std::string();
    }
    char buffer[1024];
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(buffer, sizeof(buffer), fmt, args);
    std::string text;
    if (length > 0 && static_cast<size_t>(length) < sizeof(buffer)) {
        text.assign(buffer, static_cast<size_t>(length));
    } else if (length > 0) {
        text.resize(static_cast<size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), fmt, again);
        text.resize(static_cast<size_t>(length));
    }
    va_end(again);
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
    const bool echoing = hostlog::detail::echoing();
    const bool capturing = hostlog::detail::capturing();
    if (!echoing && !capturing) {
        // Nobody sees the line, so nothing is written: not even formatted.
        return 0;
    }
    va_list args;
    va_start(args, fmt);
    std::string message = formatMessage(fmt, args);
    va_end(args);

    hostlog::AndroidLogRecord record;
    record.priority = prio;
    record.tag = tag != nullptr ? tag : "";
    if (echoing) {
        hostlog::detail::echo(threadtimeLines(prio, record.tag, message));
    }
    const int length = static_cast<int>(message.size());
    if (capturing) {
        record.message = std::move(message);
        hostlog::detail::recordAndroid(std::move(record));
    }
    return length;
}
