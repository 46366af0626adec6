#pragma once
// Small text helpers the wire formats share.
//
// Thread safety: pure functions; any thread.

#include <string_view>

namespace connector::common {

// The value of a hexadecimal digit of either case, or -1.
inline int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// `text` without the spaces and tabs around it, as HTTP header values are read.
inline std::string_view trimBlanks(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

}  // namespace connector::common
