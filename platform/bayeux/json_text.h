#pragma once
// Small JSON text helpers shared by the codec, its reader and the transport. What parses JSON is
// in codec_decode.cpp and json_reader.cpp; here are only the inline helpers they share with the
// encoder.

#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace connector::bayeux::codec {

// The bytes that a JSON string cannot hold as they are: control characters, quotes and
// backslashes.
inline constexpr std::array<bool, 256> kNeedsEscape = [] {
    std::array<bool, 256> table{};
    for (int c = 0; c < 0x20; ++c)
        table[c] = true;
    table['"'] = table['\\'] = true;
    return table;
}();

// Of the eight bytes at `p` (read into `word`), those kNeedsEscape lists, each flagged by its
// high bit. A borrow may also flag a byte above a flagged one, but a zero result is exact.
inline std::uint64_t escapeFlags8(const unsigned char* p, std::uint64_t& word) {
    constexpr std::uint64_t ones = 0x0101010101010101ULL;
    constexpr std::uint64_t highs = 0x8080808080808080ULL;
    std::memcpy(&word, p, sizeof word);
    const std::uint64_t quote = word ^ (ones * '"');
    const std::uint64_t backslash = word ^ (ones * '\\');
    const std::uint64_t control = (word - ones * 0x20) & ~word;
    const std::uint64_t hasQuote = (quote - ones) & ~quote;
    const std::uint64_t hasBackslash = (backslash - ones) & ~backslash;
    return (control | hasQuote | hasBackslash) & highs;
}

// Appends `text` as a quoted, escaped JSON string.
void appendQuoted(std::string& out, std::string_view text);

// The JSON object text `ext` (empty meaning {}) with member `name` set to the JSON value text
// `value`, replacing a member of that name. An `ext` that is not an object is replaced whole.
std::string withExtMember(std::string_view ext, std::string_view name, std::string_view value);

// Appends `value` in decimal.
template <class Integer>
void appendInteger(std::string& out, Integer value) {
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

}  // namespace connector::bayeux::codec
