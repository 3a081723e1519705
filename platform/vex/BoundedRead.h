// The one bounded reader for input files (the simulated modem's seed and state, every file kelctl
// reads): a header of its own, so that a device's kelctl, which links no host stand-in, has it too.
// Threads: any; it keeps no state.
#ifndef VEX_BOUNDED_READ_H
#define VEX_BOUNDED_READ_H

#include <errno.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <string>
#include <utility>

namespace vexwire {

// How a bounded read of an open descriptor ended; each caller words its own message.
enum class ReadEnd { kRead, kCannotStat, kNotRegular, kTooLarge, kCannotRead };

// Checks that fd is a regular file of at most maxBytes and, when text is not null, reads it whole,
// refusing it if it grew past the bound meanwhile. *errorNumber holds errno for kCannotStat and
// kCannotRead; *mode the file's type once it could be read.
inline ReadEnd readBounded(int fd, std::size_t maxBytes, std::string* text, int* errorNumber,
                           mode_t* mode) {
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        *errorNumber = errno;
        return ReadEnd::kCannotStat;
    }
    *mode = info.st_mode;
    if (!S_ISREG(info.st_mode)) {
        return ReadEnd::kNotRegular;
    }
    if (static_cast<unsigned long long>(info.st_size) > maxBytes) {
        return ReadEnd::kTooLarge;
    }
    if (text == nullptr) {
        return ReadEnd::kRead;
    }
    std::string out;
    char chunk[64 * 1024];
    for (;;) {
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            *errorNumber = errno;
            return ReadEnd::kCannotRead;
        }
        if (n == 0) {
            break;
        }
        // The file may have grown since it was checked.
        if (out.size() + static_cast<std::size_t>(n) > maxBytes) {
            return ReadEnd::kTooLarge;
        }
        out.append(chunk, static_cast<std::size_t>(n));
    }
    *text = std::move(out);
    return ReadEnd::kRead;
}

}  // namespace vexwire

#endif  // VEX_BOUNDED_READ_H
