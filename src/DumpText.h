// Building dump texts by appending to one string, character for character what the stream
// operators print: a dump is made for nearly every log line, and a string stream per text costs
// more than the text.
//
// Threads: any; nothing is shared.
#ifndef KEL_DUMP_TEXT_H
#define KEL_DUMP_TEXT_H

#include <charconv>
#include <optional>
#include <string>
#include <type_traits>

#include "kel/ClientRequest.h"
#include "kel/ClientResponse.h"
#include "kel/ProfileParams.h"

namespace kel {

// The printed name, or the decimal number of a value without one (as operator<< prints them).
void appendText(std::string& out, TechType value);
void appendText(std::string& out, IPType value);
void appendText(std::string& out, AuthType value);
void appendText(std::string& out, ApnClass value);
void appendText(std::string& out, ApnTypes mask);
void appendText(std::string& out, FilterMatchType mask);
void appendText(std::string& out, ReqRespType value);
void appendText(std::string& out, Status value);

inline void appendText(std::string& out, bool value) {
    out += value ? "true" : "false";
}

inline void appendText(std::string& out, const std::string& value) {
    out += value;
}

inline void appendText(std::string& out, const char* value) {
    out += value;
}

// In decimal.
template <typename Int,
          std::enable_if_t<std::is_integral_v<Int> && !std::is_same_v<Int, bool>, int> = 0>
void appendText(std::string& out, Int value) {
    char digits[24];
    const std::to_chars_result end = std::to_chars(digits, digits + sizeof(digits), value);
    out.append(digits, end.ptr);
}

// The text appendText writes for value, as a string of its own.
template <typename T>
std::string textOf(T value) {
    std::string text;
    appendText(text, value);
    return text;
}

// label, the value and "," when the value is present; nothing otherwise.
template <typename T>
void appendField(std::string& out, const char* label, const std::optional<T>& value) {
    if (value.has_value()) {
        out += label;
        appendText(out, *value);
        out += ',';
    }
}

}  // namespace kel

#endif  // KEL_DUMP_TEXT_H
