#pragma once
// A strict, single-pass JSON reader for decoding frames: it validates a value (grammar, string
// escapes and UTF-8, nesting depth) and hands back the source text of the members the decoder
// asks about, without building a tree. Building a tree of every frame cost more than everything
// else done with a delivered message, and most of its nodes were never looked at.
//
// What it accepts is exactly RFC 8259 JSON: no comments, no trailing commas, no lone UTF-16
// surrogates, no invalid UTF-8. Not thread-aware; one reader per call.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace connector::bayeux::codec::json_reader {

enum class Type : std::uint8_t { String, Number, Bool, Null, Object, Array };

// A value as it stands in the source: for a string, the text between the quotes, still escaped.
struct Value {
    Type type = Type::Null;
    std::string_view text;
    bool escaped = false;  // a string holding backslash escapes
};

struct Member {
    std::string_view key;  // between the quotes, still escaped
    bool keyEscaped = false;
    Value value;
};

// Where and why the text is not JSON; `what()` reads "<reason> at offset <n>".
struct SyntaxError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Reader {
  public:
    Reader(std::string_view text, std::size_t maxDepth) : text_(text), maxDepth_(maxDepth) {}

    // Whitespace is skipped; true at the end of the text.
    bool atEnd() {
        skipSpace();
        return pos_ >= text_.size();
    }
    // The next character after whitespace, or '\0' at the end.
    char peek() {
        skipSpace();
        return pos_ < text_.size() ? text_[pos_] : '\0';
    }
    // Consumes `c` after whitespace, or fails.
    void expect(char c) {
        if (peek() != c)
            failExpecting();
        ++pos_;
    }
    // Reads and validates any value; `depth` counts the containers it is nested in.
    Value value(std::size_t depth);
    // Reads an object, validating it, and sets `members` to its members in source order.
    void object(std::size_t depth, std::vector<Member>& members);
    std::size_t offset() const { return pos_; }

    [[noreturn]] void fail(const char* reason) const;

  private:
    // Inline, as it runs before every token; frames are mostly compact, so it rarely loops.
    void skipSpace() {
        while (pos_ < text_.size() && isSpace(text_[pos_]))
            ++pos_;
    }
    static bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
    [[noreturn]] void failExpecting() const;
    void string(Value& out);
    void number();
    void literal(std::string_view word);
    void container(std::size_t depth, char close);

    std::string_view text_;
    std::size_t pos_ = 0;
    const std::size_t maxDepth_;
};

// Whether `text` is one JSON value, nested at most `maxDepth` deep, with nothing but whitespace
// around it.
bool isJson(std::string_view text, std::size_t maxDepth);

// The unescaped text of a validated string value or key.
std::string unescape(std::string_view escaped);
inline std::string text(const Value& string) {
    return string.escaped ? unescape(string.text) : std::string(string.text);
}
// The value's source text, a string with its quotes.
inline std::string_view source(const Value& value) {
    return value.type == Type::String
               ? std::string_view(value.text.data() - 1, value.text.size() + 2)
               : value.text;
}
// Whether a member's key, unescaped, equals `name`.
bool keyIs(const Member& member, std::string_view name);

// A validated number: an integer when it is one and fits, else a double.
struct Number {
    enum class Kind : std::uint8_t { Int64, UInt64, Double } kind = Kind::Int64;
    std::int64_t i = 0;
    std::uint64_t u = 0;
    double d = 0;
};
Number number(std::string_view validated);

// The elements of a validated array, in order.
std::vector<Value> elements(std::string_view validatedArray);
// The members of a validated object, in order.
std::vector<Member> members(std::string_view validatedObject);

}  // namespace connector::bayeux::codec::json_reader
