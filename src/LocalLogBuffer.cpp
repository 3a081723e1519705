#include "LocalLogBuffer.h"

#include <android/log.h>
#include <diag/msg.h>
#include <sys/time.h>
#include <sys/types.h>

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>

namespace kel {
namespace {

// The formatting buffer: one byte more than the limit given to vsnprintf, so a message is cut to
// 511 characters and the buffer always stays terminated.
constexpr size_t kLogBufferSize = 513;
constexpr size_t kLogLimit = 512;
constexpr size_t kLogMaxLength = kLogLimit - 1;

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

// The first kLogMaxLength characters of a message, written into a buffer of kLogBufferSize.
class BoundedText {
  public:
    explicit BoundedText(char* buffer) : out(buffer) {}

    bool full() const { return used == kLogMaxLength; }
    size_t length() const { return used; }
    void put(char c) {
        if (used < kLogMaxLength) {
            out[used++] = c;
        }
    }
    void put(const char* text, size_t size) {
        const size_t taken = std::min(size, kLogMaxLength - used);
        std::memcpy(out + used, text, taken);
        used += taken;
    }
    template <typename Int>
    void putNumber(Int value, int base = 10) {
        char digits[24];
        const std::to_chars_result end =
            std::to_chars(digits, digits + sizeof(digits), value, base);
        put(digits, static_cast<size_t>(end.ptr - digits));
    }

  private:
    char* out;
    size_t used = 0;
};

enum class Length { None, Long, LongLong, Size };

// One conversion of the common forms, as printf writes it; false for any other form (flags,
// width, precision, other conversions, a null string), which printf itself must then format.
bool convert(BoundedText& text, Length length, char conversion, va_list& args) {
    switch (conversion) {
        case 'd':
        case 'i':
            switch (length) {
                case Length::None:
                    text.putNumber(va_arg(args, int));
                    return true;
                case Length::Long:
                    text.putNumber(va_arg(args, long));
                    return true;
                case Length::LongLong:
                    text.putNumber(va_arg(args, long long));
                    return true;
                case Length::Size:
                    text.putNumber(va_arg(args, ssize_t));
                    return true;
            }
            return false;
        case 'u':
            switch (length) {
                case Length::None:
                    text.putNumber(va_arg(args, unsigned int));
                    return true;
                case Length::Long:
                    text.putNumber(va_arg(args, unsigned long));
                    return true;
                case Length::LongLong:
                    text.putNumber(va_arg(args, unsigned long long));
                    return true;
                case Length::Size:
                    text.putNumber(va_arg(args, size_t));
                    return true;
            }
            return false;
        case 's': {
            const char* value = length == Length::None ? va_arg(args, const char*) : nullptr;
            if (value == nullptr) {
                return false;
            }
            text.put(value, strnlen(value, kLogMaxLength));
            return true;
        }
        case 'c':
            if (length != Length::None) {
                return false;
            }
            text.put(static_cast<char>(static_cast<unsigned char>(va_arg(args, int))));
            return true;
        case 'p': {
            const void* value = length == Length::None ? va_arg(args, const void*) : nullptr;
            if (value == nullptr) {
                return false;
            }
            text.put("0x", 2);
            text.putNumber(reinterpret_cast<std::uintptr_t>(value), 16);
            return true;
        }
        default:
            return false;
    }
}

// Formats the common forms without printf's general machinery; false, with args partly read, as
// soon as a form is not one of them.
bool formatCommon(BoundedText& text, const char* format, va_list& args) {
    const char* p = format;
    while (*p != '\0' && !text.full()) {
        const char* plain = p;
        while (*p != '\0' && *p != '%') {
            ++p;
        }
        text.put(plain, static_cast<size_t>(p - plain));
        if (*p == '\0') {
            break;
        }
        ++p;
        if (*p == '%') {
            text.put('%');
            ++p;
            continue;
        }
        Length length = Length::None;
        if (*p == 'l') {
            ++p;
            length = Length::Long;
            if (*p == 'l') {
                ++p;
                length = Length::LongLong;
            }
        } else if (*p == 'z') {
            ++p;
            length = Length::Size;
        }
        if (!convert(text, length, *p, args)) {
            return false;
        }
        ++p;
    }
    return true;
}

}  // namespace

size_t formatLogMessage(char* buffer, const char* format, va_list args) {
    buffer[0] = '\0';
    if (format == nullptr) {
        return 0;
    }
    // The direct path reads a copy, so that vsnprintf can start over with the arguments.
    va_list common;
    va_copy(common, args);
    BoundedText text(buffer);
    const bool done = formatCommon(text, format, common);
    va_end(common);
    size_t length = text.length();
    if (done) {
        buffer[length] = '\0';
    } else {
        // Not zero-filled: vsnprintf terminates what it writes, and a failed format leaves the
        // terminator placed here.
        buffer[0] = '\0';
        std::vsnprintf(buffer, kLogLimit, format, args);
        length = kLogMaxLength;
    }
    // Up to the first NUL: a "%c" of 0 ends the message there.
    return strnlen(buffer, length);
}

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
    setLogWriter(nullptr);
}

void LogWrapper::setLogWriter(std::unique_ptr<LogWriter> writer) {
    std::lock_guard<std::mutex> lock(replaceMutex);
    current.store(writer.get());
    // Calls that join the new generation read the new writer; those of the old one may still
    // write through the previous one until they are done.
    const unsigned old = generation.fetch_add(1);
    while (writing[old % 2].load() != 0) {
        std::this_thread::yield();
    }
    logWriter.swap(writer);
    // writer, now the previous one, is destroyed here.
}

void LogWrapper::log(LogLevel level, const char* tag, const char* format, ...) {
    char buffer[kLogBufferSize];
    va_list args;
    va_start(args, format);
    std::string message(buffer, formatLogMessage(buffer, format, args));
    va_end(args);
    const bool kept = keptInHistory(level);
    // Counted in the generation that is current once counted, so a replacement that started
    // meanwhile either waits for this call or is seen by it.
    unsigned joined = generation.load();
    writing[joined % 2].fetch_add(1);
    while (generation.load() != joined) {
        writing[joined % 2].fetch_sub(1);
        joined = generation.load();
        writing[joined % 2].fetch_add(1);
    }
    if (LogWriter* writer = current.load()) {
        // The history needs the text after the writer has had it; otherwise it is handed over.
        writer->write(level, tag != nullptr ? tag : "", kept ? message : std::move(message));
    }
    writing[joined % 2].fetch_sub(1);
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
