// Host stand-in for the modem diagnostics library: a session counter and msg_sprintf, which
// formats the descriptor's format with its arguments, echoes the line to standard error and
// records the call for LogCapture.
#include <diag/msg.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "HostLog.h"

namespace {

enum class Length { None, Char, Short, Long, LongLong, IntMax, Size, PtrDiff, LongDouble };

template <typename T>
std::string formatOne(const std::string& directive, T value) {
    int length = std::snprintf(nullptr, 0, directive.c_str(), value);
    if (length <= 0) {
        return std::string();
    }
    std::string text(static_cast<size_t>(length) + 1, '\0');
    std::snprintf(text.data(), text.size(), directive.c_str(), value);
    text.resize(static_cast<size_t>(length));
    return text;
}

// Reads the variadic arguments of a printf-style call by walking the format's conversions: the
// arguments carry no types of their own. Lives for one call, on the calling thread.
class ArgWalker {
  public:
    explicit ArgWalker(va_list args) { va_copy(ap, args); }
    ~ArgWalker() { va_end(ap); }
    ArgWalker(const ArgWalker&) = delete;
    ArgWalker& operator=(const ArgWalker&) = delete;

    // The formatted text; every consumed argument is appended to argTexts.
    std::string format(const char* fmt, std::vector<std::string>& argTexts) {
        std::string out;
        const char* p = fmt;
        while (*p != '\0') {
            if (*p != '%') {
                out += *p++;
                continue;
            }
            const char* start = p++;
            if (*p == '%') {
                out += '%';
                ++p;
                continue;
            }
            std::string directive = "%";
            while (*p != '\0' && std::strchr("-+ #0'", *p) != nullptr) {
                directive += *p++;
            }
            if (*p == '*') {
                ++p;
                directive += std::to_string(va_arg(ap, int));
            } else {
                while (*p >= '0' && *p <= '9') {
                    directive += *p++;
                }
            }
            if (*p == '.') {
                ++p;
                if (*p == '*') {
                    ++p;
                    int precision = va_arg(ap, int);
                    // A negative precision counts as none.
                    if (precision >= 0) {
                        directive += "." + std::to_string(precision);
                    }
                } else {
                    directive += '.';
                    while (*p >= '0' && *p <= '9') {
                        directive += *p++;
                    }
                }
            }
            Length length = readLength(p);
            char conversion = *p;
            if (conversion == '\0' || !convert(conversion, length, directive, out, argTexts)) {
                // Not a conversion: printed as written, and no argument is consumed.
                out.append(start, static_cast<size_t>(p - start) + (conversion != '\0' ? 1 : 0));
            }
            if (conversion != '\0') {
                ++p;
            }
        }
        return out;
    }

  private:
    static Length readLength(const char*& p) {
        switch (*p) {
            case 'h':
                ++p;
                if (*p == 'h') {
                    ++p;
                    return Length::Char;
                }
                return Length::Short;
            case 'l':
                ++p;
                if (*p == 'l') {
                    ++p;
                    return Length::LongLong;
                }
                return Length::Long;
            case 'q':
                ++p;
                return Length::LongLong;
            case 'j':
                ++p;
                return Length::IntMax;
            case 'z':
                ++p;
                return Length::Size;
            case 't':
                ++p;
                return Length::PtrDiff;
            case 'L':
                ++p;
                return Length::LongDouble;
            default:
                return Length::None;
        }
    }

    static const char* modifier(Length length) {
        switch (length) {
            case Length::None:
                return "";
            case Length::Char:
                return "hh";
            case Length::Short:
                return "h";
            case Length::Long:
                return "l";
            case Length::LongLong:
                return "ll";
            case Length::IntMax:
                return "j";
            case Length::Size:
                return "z";
            case Length::PtrDiff:
                return "t";
            case Length::LongDouble:
                return "L";
        }
        return "";
    }

    long long readSigned(Length length) {
        switch (length) {
            case Length::Long:
                return va_arg(ap, long);
            case Length::LongLong:
                return va_arg(ap, long long);
            case Length::IntMax:
                return static_cast<long long>(va_arg(ap, intmax_t));
            case Length::Size:
                return static_cast<long long>(va_arg(ap, ssize_t));
            case Length::PtrDiff:
                return static_cast<long long>(va_arg(ap, ptrdiff_t));
            case Length::Char:
                return static_cast<signed char>(va_arg(ap, int));
            case Length::Short:
                return static_cast<short>(va_arg(ap, int));
            case Length::None:
            case Length::LongDouble:
                return va_arg(ap, int);
        }
        return 0;
    }

    unsigned long long readUnsigned(Length length) {
        switch (length) {
            case Length::Long:
                return va_arg(ap, unsigned long);
            case Length::LongLong:
                return va_arg(ap, unsigned long long);
            case Length::IntMax:
                return static_cast<unsigned long long>(va_arg(ap, uintmax_t));
            case Length::Size:
                return va_arg(ap, size_t);
            case Length::PtrDiff:
                return static_cast<unsigned long long>(va_arg(ap, ptrdiff_t));
            case Length::Char:
                return static_cast<unsigned char>(va_arg(ap, unsigned int));
            case Length::Short:
                return static_cast<unsigned short>(va_arg(ap, unsigned int));
            case Length::None:
            case Length::LongDouble:
                return va_arg(ap, unsigned int);
        }
        return 0;
    }

    // Formats one conversion; false when the character is not a conversion.
    bool convert(char conversion, Length length, std::string directive, std::string& out,
                 std::vector<std::string>& argTexts) {
        switch (conversion) {
            case 'd':
            case 'i': {
                long long value = readSigned(length);
                out += formatOne(directive + "ll" + conversion, value);
                argTexts.push_back(std::to_string(value));
                return true;
            }
            case 'u':
            case 'o':
            case 'x':
            case 'X': {
                unsigned long long value = readUnsigned(length);
                out += formatOne(directive + "ll" + conversion, value);
                argTexts.push_back(std::to_string(value));
                return true;
            }
            case 'c': {
                int value = va_arg(ap, int);
                out += formatOne(directive + 'c', value);
                argTexts.push_back(std::string(1, static_cast<char>(value)));
                return true;
            }
            case 's':
                return convertString(length, directive, out, argTexts);
            case 'p': {
                void* value = va_arg(ap, void*);
                std::string text = formatOne(directive + 'p', value);
                out += text;
                argTexts.push_back(formatOne("%p", value));
                return true;
            }
            case 'f':
            case 'F':
            case 'e':
            case 'E':
            case 'g':
            case 'G':
            case 'a':
            case 'A': {
                long double value =
                    length == Length::LongDouble ? va_arg(ap, long double) : va_arg(ap, double);
                out += formatOne(directive + 'L' + conversion, value);
                argTexts.push_back(formatOne("%Lg", value));
                return true;
            }
            case '%':
                out += '%';
                return true;
            case 'n':
                // The argument is consumed but never written through: a log line has no business
                // storing into the caller's memory.
                va_arg(ap, void*);
                argTexts.push_back(std::string(modifier(length)) + "n");
                return true;
            default:
                return false;
        }
    }

    bool convertString(Length length, const std::string& directive, std::string& out,
                       std::vector<std::string>& argTexts) {
        if (length == Length::Long) {
            const wchar_t* value = va_arg(ap, const wchar_t*);
            std::string text = value != nullptr ? formatOne(directive + "ls", value) : "(null)";
            out += text;
            argTexts.push_back(value != nullptr ? formatOne("%ls", value) : "(null)");
            return true;
        }
        const char* value = va_arg(ap, const char*);
        // glibc prints "(null)" too, but passing a null %s on is undefined behaviour.
        const char* shown = value != nullptr ? value : "(null)";
        out += formatOne(directive + 's', shown);
        argTexts.push_back(shown);
        return true;
    }

    va_list ap;
};

}  // namespace

extern "C" int Diag_LSM_Init(uint8_t* /*pIEnv*/) {
    hostlog::detail::noteDiagInit();
    if (hostlog::detail::echoing()) {
        hostlog::detail::echo(hostlog::detail::lineHead() + " diag: session opened\n");
    }
    return 1;
}

extern "C" int Diag_LSM_DeInit(void) {
    hostlog::detail::noteDiagDeInit();
    if (hostlog::detail::echoing()) {
        hostlog::detail::echo(hostlog::detail::lineHead() + " diag: session closed\n");
    }
    return 1;
}

extern "C" void msg_sprintf(const msg_const_type* const_blk, ...) {
    const bool echoing = hostlog::detail::echoing();
    const bool capturing = hostlog::detail::capturing();
    // Nobody sees the line: the arguments are not even read.
    if (const_blk == nullptr || (!echoing && !capturing)) {
        return;
    }
    hostlog::DiagRecord record;
    record.line = const_blk->desc.line;
    record.ssId = const_blk->desc.ss_id;
    record.mask = const_blk->desc.ss_mask;
    record.format = const_blk->fmt != nullptr ? const_blk->fmt : "";
    record.fileName = const_blk->fname != nullptr ? const_blk->fname : "";

    va_list args;
    va_start(args, const_blk);
    {
        ArgWalker walker(args);
        record.text = walker.format(record.format.c_str(), record.args);
    }
    va_end(args);

    if (echoing) {
        char head[64];
        std::snprintf(head, sizeof(head), " diag ss=%u mask=0x%02x ",
                      static_cast<unsigned>(record.ssId), static_cast<unsigned>(record.mask));
        hostlog::detail::echo(hostlog::detail::lineHead() + head + record.fileName + ":" +
                              std::to_string(record.line) + " " + record.text + "\n");
    }
    if (capturing) {
        hostlog::detail::recordDiag(std::move(record));
    }
}
