// Numbers read from text (command lines, a control socket, seed files), for the tools and the
// simulated modem alike: the whole text must be the number, with no blank, no sign and no wrap.
// A header of its own, so that a device's kelctl, which links no host stand-in, has it too.
// Threads: any; it keeps no state.
#ifndef VEX_NUMBER_TEXT_H
#define VEX_NUMBER_TEXT_H

#include <charconv>
#include <string_view>
#include <system_error>

namespace vexwire {

// text, all of it, as a number in base; false for anything else or a value T cannot hold.
template <typename T>
bool parseWhole(std::string_view text, int base, T* value) {
    if (text.empty() || text[0] == '-') {  // from_chars takes a minus for a signed T
        return false;
    }
    T parsed{};
    const char* end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, parsed, base);
    if (failure != std::errc() || stop != end) {
        return false;
    }
    *value = parsed;
    return true;
}

// An unsigned number of at most max, written as C writes one: "0x1F" in hex, "017" in octal,
// otherwise in decimal.
template <typename T>
bool parseUnsignedC(std::string_view text, T max, T* value) {
    if (text.empty() || text[0] < '0' || text[0] > '9') {
        return false;
    }
    T parsed{};
    bool read = false;
    if (text.size() > 1 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        read = parseWhole(text.substr(2), 16, &parsed);
    } else if (text[0] == '0') {
        read = parseWhole(text, 8, &parsed);
    } else {
        read = parseWhole(text, 10, &parsed);
    }
    if (!read || parsed > max) {
        return false;
    }
    *value = parsed;
    return true;
}

}  // namespace vexwire

#endif  // VEX_NUMBER_TEXT_H
