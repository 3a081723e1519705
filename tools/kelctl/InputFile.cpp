#include "InputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "BoundedRead.h"  // the platform's bounded reader (platform/vex)
#include "UniqueFd.h"     // the platform's descriptor holder (platform/vex)

namespace kelctl {
namespace {

using vexwire::UniqueFd;

std::string kindOf(mode_t mode) {
    if (S_ISDIR(mode)) {
        return "a directory";
    }
    if (S_ISFIFO(mode)) {
        return "a FIFO";
    }
    if (S_ISCHR(mode) || S_ISBLK(mode)) {
        return "a device";
    }
    if (S_ISSOCK(mode)) {
        return "a socket";
    }
    return "not a regular file";
}

std::string sizeLimitText() {
    return std::to_string(kMaxInputFileBytes / (1024 * 1024)) + " MiB";
}

// Opens path without blocking (a FIFO with no writer would), checks what it is and, when text is
// not null, reads it. False with the reason in *error otherwise.
bool openAndRead(const std::string& path, std::string* text, std::string* error) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd) {
        *error = path + ": cannot read: " + std::strerror(errno);
        return false;
    }
    int errorNumber = 0;
    mode_t mode = 0;
    switch (vexwire::readBounded(fd.get(), kMaxInputFileBytes, text, &errorNumber, &mode)) {
        case vexwire::ReadEnd::kRead:
            return true;
        case vexwire::ReadEnd::kNotRegular:
            *error = path + ": " + kindOf(mode) + ", not a regular file";
            break;
        case vexwire::ReadEnd::kTooLarge:
            *error = path + ": larger than " + sizeLimitText();
            break;
        case vexwire::ReadEnd::kCannotStat:
        case vexwire::ReadEnd::kCannotRead:
            *error = path + ": cannot read: " + std::strerror(errorNumber);
            break;
    }
    return false;
}

// The length of the well-formed UTF-8 sequence at text[at] (a multi-byte one, without C1
// controls), or 0.
std::size_t utf8Length(const std::string& text, std::size_t at) {
    const auto byte = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    std::size_t length = 0;
    unsigned int minimum = 0;
    unsigned int code = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        minimum = 0xA0;  // U+0080..U+009F are control characters
        code = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        minimum = 0x800;
        code = lead & 0x0Fu;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        minimum = 0x10000;
        code = lead & 0x07u;
    } else {
        return 0;
    }
    if (at + length > text.size()) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0u) != 0x80u) {
            return 0;
        }
        code = (code << 6) | (byte(at + i) & 0x3Fu);
    }
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    return code < minimum || code > 0x10FFFF || surrogate ? 0 : length;
}

}  // namespace

bool checkInputFile(const std::string& path, std::string* error) {
    return openAndRead(path, nullptr, error);
}

bool readInputFile(const std::string& path, std::string* text, std::string* error) {
    return openAndRead(path, text, error);
}

namespace {

// Layout keeps line breaks and tabs and leaves backslashes alone: a whole message, already
// escaped where it quotes outside text, is passed once more so that nothing raw gets through.
std::string escapeBytes(const std::string& text, bool layout) {
    std::string out;
    out.reserve(text.size());
    std::size_t at = 0;
    while (at < text.size()) {
        const auto c = static_cast<unsigned char>(text[at]);
        if (c == '\\' && !layout) {
            out += "\\\\";
        } else if ((c >= 0x20 && c < 0x7F) || (layout && (c == '\n' || c == '\t'))) {
            out += static_cast<char>(c);
        } else if (const std::size_t length = c >= 0x80 ? utf8Length(text, at) : 0; length > 0) {
            out.append(text, at, length);
            at += length;
            continue;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\x%02x", c);
            out += escaped;
        }
        ++at;
    }
    return out;
}

}  // namespace

std::string escapeText(const std::string& text) {
    return escapeBytes(text, false);
}

std::string terminalText(const std::string& text) {
    return escapeBytes(text, true);
}

}  // namespace kelctl
