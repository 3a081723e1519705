// The simulated modem's seed and state files, read and written so that nobody else on the machine
// can make the modem follow a symbolic link, block on a device or a FIFO, or read without end.
// Threads: any; the functions keep no state.
#ifndef VEXSIM_SAFE_FILE_H
#define VEXSIM_SAFE_FILE_H

#include <cstddef>
#include <string>

namespace vexsim {

// The largest seed or state file read: far above what the largest modem's tables write.
constexpr size_t kMaxProfileFileBytes = 16 * 1024 * 1024;

// Reads path when it is a regular file of at most maxBytes; with followLink false, a symbolic link
// at path is refused. False with "PATH: reason" in *error.
bool readRegularFile(const std::string& path, bool followLink, size_t maxBytes, std::string* text,
                     std::string* error);

// Replaces path with text: writes a temporary file created exclusively (never through a symbolic
// link) in the same directory with mode 0600, syncs it, renames it over path and syncs the
// directory. A symbolic link or anything but a regular file at path is refused and left alone.
// False with "PATH: reason" in *error; path is then unchanged.
bool replaceFile(const std::string& path, const std::string& text, std::string* error);

}  // namespace vexsim

#endif  // VEXSIM_SAFE_FILE_H
