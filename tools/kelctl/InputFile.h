// Every file kelctl reads (a carrier database, a script, the embedded modem's seed and state) goes
// through here: it must be a regular file of at most kMaxInputFileBytes, so that /dev/zero, a
// FIFO or a directory is refused at once instead of being read forever or blocking kelctl.
//
// Plain functions: any thread.
#ifndef KELCTL_INPUT_FILE_H
#define KELCTL_INPUT_FILE_H

#include <cstdint>
#include <string>

namespace kelctl {

// A real carrier database is under 1 MiB; the bound leaves room for any honest input.
constexpr std::uint64_t kMaxInputFileBytes = 64ull * 1024 * 1024;

// Reads the whole of path. False with "PATH: reason" for a file that cannot be
// opened, is not a regular file or is larger than the bound.
bool readInputFile(const std::string& path, std::string* text, std::string* error);

// The same checks without reading.
bool checkInputFile(const std::string& path, std::string* error);

// Text from a file (and a message quoting it), made safe to print: printable ASCII and well-formed
// UTF-8 stay as they are, a backslash becomes "\\", every other byte "\xHH".
std::string escapeText(const std::string& text);
// What kelctl writes to a terminal: the same, except that line breaks and tabs stay and a
// backslash stays single (the message's own escapes are kept as they are).
std::string terminalText(const std::string& text);

}  // namespace kelctl

#endif  // KELCTL_INPUT_FILE_H
