// The strict JSON reader of the codec.

#include "json_reader.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "common/text.h"
#include "json_text.h"

namespace connector::bayeux::codec::json_reader {

namespace {

// Whether the eight bytes at `p` are all plain: no escape needed and all ASCII.
bool plain8(const unsigned char* p) {
    std::uint64_t word;
    const std::uint64_t flags = escapeFlags8(p, word);
    return ((flags | word) & 0x8080808080808080ULL) == 0;
}

// The bytes a string holds as they are, with no UTF-8 check: ASCII needing no escape.
constexpr auto kPlain = [] {
    std::array<bool, 256> table{};
    for (int c = 0; c < 0x80; ++c)
        table[c] = !kNeedsEscape[c];
    return table;
}();

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// The four hex digits at `p`, or -1.
long hex4(const char* p) {
    long value = 0;
    for (int i = 0; i < 4; ++i) {
        const int digit = common::hexValue(p[i]);
        if (digit < 0)
            return -1;
        value = value * 16 + digit;
    }
    return value;
}

void appendUtf8(std::string& out, unsigned long cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

// The length of the well-formed UTF-8 sequence starting with lead byte `b0` at `p` (which has
// `left` bytes), or 0 (RFC 3629: no overlong forms, no surrogates, nothing past U+10FFFF).
std::size_t utf8Length(const unsigned char* p, std::size_t left) {
    const unsigned char b0 = p[0];
    auto cont = [&](std::size_t i) { return i < left && (p[i] & 0xC0) == 0x80; };
    if (b0 >= 0xC2 && b0 <= 0xDF)
        return cont(1) ? 2 : 0;
    if (b0 >= 0xE0 && b0 <= 0xEF) {
        if (!cont(1) || !cont(2))
            return 0;
        if (b0 == 0xE0 && p[1] < 0xA0)
            return 0;  // overlong
        if (b0 == 0xED && p[1] >= 0xA0)
            return 0;  // a surrogate
        return 3;
    }
    if (b0 >= 0xF0 && b0 <= 0xF4) {
        if (!cont(1) || !cont(2) || !cont(3))
            return 0;
        if (b0 == 0xF0 && p[1] < 0x90)
            return 0;  // overlong
        if (b0 == 0xF4 && p[1] >= 0x90)
            return 0;  // past U+10FFFF
        return 4;
    }
    return 0;
}

}  // namespace

void Reader::fail(const char* reason) const {
    throw SyntaxError(std::string(reason) + " at offset " + std::to_string(pos_));
}

void Reader::failExpecting() const {
    fail(pos_ >= text_.size() ? "unexpected end" : "unexpected character");
}

Value Reader::value(std::size_t depth) {
    Value out;
    const char c = peek();
    const std::size_t start = pos_;
    switch (c) {
        case '"':
            string(out);
            return out;
        case '{':
            out.type = Type::Object;
            container(depth + 1, '}');
            break;
        case '[':
            out.type = Type::Array;
            container(depth + 1, ']');
            break;
        case 't':
            out.type = Type::Bool;
            literal("true");
            break;
        case 'f':
            out.type = Type::Bool;
            literal("false");
            break;
        case 'n':
            out.type = Type::Null;
            literal("null");
            break;
        default:
            out.type = Type::Number;
            number();
    }
    out.text = text_.substr(start, pos_ - start);
    return out;
}

void Reader::literal(std::string_view word) {
    if (text_.compare(pos_, word.size(), word) != 0)
        fail("invalid literal");
    pos_ += word.size();
}

void Reader::number() {
    const std::size_t start = pos_;
    if (pos_ < text_.size() && text_[pos_] == '-')
        ++pos_;
    if (pos_ >= text_.size())
        fail("unexpected end");
    if (!isDigit(text_[pos_]))
        fail(pos_ == start ? "unexpected character" : "invalid number");
    if (text_[pos_] == '0') {
        ++pos_;
    } else {
        while (pos_ < text_.size() && isDigit(text_[pos_]))
            ++pos_;
    }
    if (pos_ < text_.size() && text_[pos_] == '.') {
        ++pos_;
        if (pos_ >= text_.size() || !isDigit(text_[pos_]))
            fail("invalid number");
        while (pos_ < text_.size() && isDigit(text_[pos_]))
            ++pos_;
    }
    if (pos_ < text_.size() && (text_[pos_] == 'e' || text_[pos_] == 'E')) {
        ++pos_;
        if (pos_ < text_.size() && (text_[pos_] == '+' || text_[pos_] == '-'))
            ++pos_;
        if (pos_ >= text_.size() || !isDigit(text_[pos_]))
            fail("invalid number");
        // An exponent past 32 bits is refused rather than taken as infinity or zero.
        std::int64_t exponent = 0;
        while (pos_ < text_.size() && isDigit(text_[pos_])) {
            exponent = exponent * 10 + (text_[pos_] - '0');
            if (exponent > std::numeric_limits<std::int32_t>::max())
                fail("exponent too large");
            ++pos_;
        }
    }
}

void Reader::string(Value& out) {
    out.type = Type::String;
    ++pos_;  // the opening quote
    const std::size_t start = pos_;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text_.data());
    const std::size_t size = text_.size();
    for (;;) {
        // Plain ASCII is the common case: eight bytes at a time, then one table lookup per byte.
        while (pos_ + 8 <= size && plain8(bytes + pos_))
            pos_ += 8;
        while (pos_ < size && kPlain[bytes[pos_]])
            ++pos_;
        if (pos_ >= size)
            fail("unterminated string");
        const unsigned char c = bytes[pos_];
        if (c == '"')
            break;
        if (c < 0x20)
            fail("control character in string");
        if (c >= 0x80) {
            const std::size_t length = utf8Length(bytes + pos_, size - pos_);
            if (length == 0)
                fail("invalid UTF-8 in string");
            pos_ += length;
            continue;
        }
        // A backslash.
        out.escaped = true;
        if (pos_ + 1 >= size)
            fail("unterminated string");
        const char e = text_[pos_ + 1];
        if (e == '"' || e == '\\' || e == '/' || e == 'b' || e == 'f' || e == 'n' || e == 'r' ||
            e == 't') {
            pos_ += 2;
            continue;
        }
        if (e != 'u')
            fail("invalid escape");
        if (pos_ + 6 > size)
            fail("unterminated string");
        const long unit = hex4(text_.data() + pos_ + 2);
        if (unit < 0)
            fail("invalid \\u escape");
        pos_ += 6;
        if (unit >= 0xDC00 && unit <= 0xDFFF)
            fail("lone trailing surrogate");
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            if (pos_ + 6 > size || text_[pos_] != '\\' || text_[pos_ + 1] != 'u')
                fail("lone leading surrogate");
            const long trail = hex4(text_.data() + pos_ + 2);
            if (trail < 0xDC00 || trail > 0xDFFF)
                fail("lone leading surrogate");
            pos_ += 6;
        }
    }
    out.text = text_.substr(start, pos_ - start);
    ++pos_;  // the closing quote
}

void Reader::container(std::size_t depth, char close) {
    if (depth > maxDepth_)
        fail("nested too deeply");
    ++pos_;  // the opening bracket
    if (peek() == close) {
        ++pos_;
        return;
    }
    for (;;) {
        if (close == '}') {
            if (peek() != '"')
                fail("expected a member name");
            Value key;
            string(key);
            expect(':');
        }
        value(depth);
        const char next = peek();
        if (next == ',') {
            ++pos_;
            continue;
        }
        if (next == close) {
            ++pos_;
            return;
        }
        fail(pos_ >= text_.size() ? "unexpected end" : "expected a comma or a closing bracket");
    }
}

void Reader::object(std::size_t depth, std::vector<Member>& members) {
    members.clear();
    if (depth + 1 > maxDepth_)
        fail("nested too deeply");
    expect('{');
    if (peek() == '}') {
        ++pos_;
        return;
    }
    for (;;) {
        if (peek() != '"')
            fail("expected a member name");
        Value key;
        string(key);
        expect(':');
        Member member;
        member.key = key.text;
        member.keyEscaped = key.escaped;
        member.value = value(depth + 1);
        members.push_back(member);
        const char next = peek();
        if (next == ',') {
            ++pos_;
            continue;
        }
        if (next == '}') {
            ++pos_;
            return;
        }
        fail(pos_ >= text_.size() ? "unexpected end" : "expected a comma or a closing bracket");
    }
}

std::string unescape(std::string_view escaped) {
    std::string out;
    out.reserve(escaped.size());
    for (std::size_t i = 0; i < escaped.size(); ++i) {
        const char c = escaped[i];
        if (c != '\\') {
            out.push_back(c);
            continue;
        }
        const char e = escaped[++i];
        switch (e) {
            case 'b':
                out.push_back('\b');
                break;
            case 'f':
                out.push_back('\f');
                break;
            case 'n':
                out.push_back('\n');
                break;
            case 'r':
                out.push_back('\r');
                break;
            case 't':
                out.push_back('\t');
                break;
            case 'u': {
                unsigned long cp = static_cast<unsigned long>(hex4(escaped.data() + i + 1));
                i += 4;
                if (cp >= 0xD800 && cp <= 0xDBFF) {
                    const unsigned long trail =
                        static_cast<unsigned long>(hex4(escaped.data() + i + 3));
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (trail - 0xDC00);
                    i += 6;
                }
                appendUtf8(out, cp);
                break;
            }
            default:  // '"', '\\', '/'
                out.push_back(e);
        }
    }
    return out;
}

bool keyIs(const Member& member, std::string_view name) {
    return member.keyEscaped ? unescape(member.key) == name : member.key == name;
}

Number number(std::string_view text) {
    Number out;
    const bool integral = text.find_first_of(".eE") == std::string_view::npos;
    if (integral) {
        const char* end = text.data() + text.size();
        if (text.front() == '-') {
            std::int64_t value = 0;
            if (std::from_chars(text.data(), end, value).ec == std::errc()) {
                out.kind = Number::Kind::Int64;
                out.i = value;
                return out;
            }
        } else {
            std::uint64_t value = 0;
            if (std::from_chars(text.data(), end, value).ec == std::errc()) {
                if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                    out.kind = Number::Kind::Int64;
                    out.i = static_cast<std::int64_t>(value);
                } else {
                    out.kind = Number::Kind::UInt64;
                    out.u = value;
                }
                return out;
            }
        }
    }
    out.kind = Number::Kind::Double;
    // strtod needs a terminator; out-of-range values become infinities or zeroes, as intended.
    out.d = std::strtod(std::string(text).c_str(), nullptr);
    return out;
}

bool isJson(std::string_view text, std::size_t maxDepth) {
    try {
        Reader reader(text, maxDepth);
        reader.value(0);
        return reader.atEnd();
    } catch (const SyntaxError&) {
        return false;
    }
}

std::vector<Value> elements(std::string_view validatedArray) {
    std::vector<Value> out;
    Reader reader(validatedArray, std::numeric_limits<std::size_t>::max());
    reader.expect('[');
    if (reader.peek() == ']')
        return out;
    for (;;) {
        out.push_back(reader.value(1));
        if (reader.peek() != ',')
            return out;
        reader.expect(',');
    }
}

std::vector<Member> members(std::string_view validatedObject) {
    std::vector<Member> out;
    Reader(validatedObject, std::numeric_limits<std::size_t>::max()).object(0, out);
    return out;
}

}  // namespace connector::bayeux::codec::json_reader
