// Helpers of the profile line format that the daemon's control command shares with the modem.
#ifndef VEXSIM_PROFILE_TEXT_H
#define VEXSIM_PROFILE_TEXT_H

#include <string>
#include <vector>

namespace vexsim {

// A value as it is written after "key=": quoted and escaped when it holds blanks, quotes,
// backslashes, '#' or control characters, or is empty.
std::string quoteValue(const std::string& value);
// Splits one line into words as the profile parser does (quotes and escapes resolved).
bool splitProfileWords(const std::string& line, std::vector<std::string>* words,
                       std::string* error);

}  // namespace vexsim

#endif  // VEXSIM_PROFILE_TEXT_H
