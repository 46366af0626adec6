// The codec's JSON reader must take exactly what a strict JSON parser takes, and read strings
// and numbers to the same values; Boost.JSON is the reference here.

#include "bayeux/json_reader.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <string>
#include <vector>

namespace connector::bayeux::codec::json_reader {
namespace {

bool boostAccepts(const std::string& text) {
    boost::json::parse_options options;
    options.max_depth = 64;
    boost::json::error_code ec;
    boost::json::parse(text, ec, {}, options);
    return !ec;
}

bool readerAccepts(const std::string& text) {
    try {
        Reader reader(text, 64);
        reader.value(0);
        return reader.atEnd();
    } catch (const SyntaxError&) {
        return false;
    }
}

TEST(JsonReader, AcceptsWhatAStrictParserAcceptsAndKeepsTheSourceTextAndKinds) {
    std::vector<std::string> texts = {
        "", " ", "{}", "[]", " [ ] ", "[1,]", "[,1]", "{\"a\":1,}", "{\"a\" 1}", "{a:1}",
        "{\"a\":1}x", "[1 2]", "[\"a\"\"b\"]", "true", "tru", "nulll", "falsey",
        "[true,false,null]",
        // numbers
        "-", "01", "-01", "1.", ".5", "1e", "1e+", "1E-7", "-0", "-0.0e0", "1.5e300", "1e400",
        "18446744073709551615", "18446744073709551616", "-9223372036854775809", "+1", "0x10",
        "1e2147483647", "1e2147483648", "1e-2147483648",
        // strings: escapes and control characters
        "\"\\u00e9\"", "\"\\u00E9\"", "\"\\u00g9\"", "\"\\x\"", "\"\\\"", "\"a\tb\"", "\"a\\tb\"",
        "\"\\/\"", "\"abc", std::string("\"a\0b\"", 5),
        R"("a\"b\\c\/d\b\f\n\r\t\u0001\u00e9\u20ac\ud83d\ude00 plain \u00C9")",
        // UTF-16 surrogates
        "\"\\ud83d\\ude00\"", "\"\\ud83d\"", "\"\\ude00\"", "\"\\ud83dx\"", "\"\\ud83d\\u0041\"",
        "\"\\ud83d\\ud83d\"",
        // UTF-8
        "\"\xc3\xa9\"", "\"\xc3\"", "\"\xc0\x80\"", "\"\xe0\x80\x80\"", "\"\xed\xa0\x80\"",
        "\"\xef\xbf\xbf\"", "\"\xf0\x9f\x98\x80\"", "\"\xf0\x8f\xbf\xbf\"", "\"\xf4\x90\x80\x80\"",
        "\"\xf4\x8f\xbf\xbf\"", "\"\xff\"", "\"\x80\"", "\xc3\xa9",
        // nesting
        std::string(64, '[') + std::string(64, ']'), std::string(65, '[') + std::string(65, ']'),
        std::string(63, '[') + "{\"a\":1}" + std::string(63, ']'),
        std::string(64, '[') + "{\"a\":1}" + std::string(64, ']')};
    // Strings are scanned eight bytes at a time: every kind of byte that ends the plain run is
    // tried at every offset within and across those words.
    for (const std::string special : {"\x1f", "\x01", "\x7f", " ", "\\\"", "\\\\", "\\n", "\\u00e9",
                                      "\xc3\xa9", "\xc3", "\xff", "\xed\xa0\x80", "\""})
        for (std::size_t at = 0; at < 20; ++at)
            texts.push_back("\"" + std::string(20, 'a').insert(at, special) + "\"");
    for (const auto& text : texts) {
        ASSERT_EQ(readerAccepts(text), boostAccepts(text)) << ::testing::PrintToString(text);
        // Accepted strings read to the text the parser reads.
        if (text[0] == '"' && boostAccepts(text)) {
            const auto parsed = boost::json::parse(text);
            const auto& expected = parsed.as_string();
            EXPECT_EQ(json_reader::text(Reader(text, 64).value(0)),
                      std::string(expected.data(), expected.size()));
        }
    }

    // Members and elements come in source order with their text.
    std::vector<Member> found;
    Reader(R"( { "a" : [1, {"x":null}] , "\u0062":"s", "a":-1.5e2 } )", 64).object(0, found);
    ASSERT_EQ(found.size(), 3u);
    const std::pair<Type, std::string> expected[] = {
        {Type::Array, R"([1, {"x":null}])"}, {Type::String, "s"}, {Type::Number, "-1.5e2"}};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(std::make_pair(found[i].value.type, std::string(found[i].value.text)),
                  expected[i]);
    EXPECT_EQ(found[2].key, "a");
    EXPECT_TRUE(keyIs(found[0], "a") && keyIs(found[1], "b"));  // the second one escaped
    EXPECT_FALSE(keyIs(found[0], "b") || keyIs(found[1], "\\u0062"));
    const auto inner = elements(found[0].value.text);
    ASSERT_EQ(inner.size(), 2u);
    EXPECT_EQ(inner[0].text, "1");
    EXPECT_EQ(members(inner[1].text).at(0).value.type, Type::Null);

    // Numbers keep the kind a parser gives them.
    for (const std::string text :
         {"0", "-0", "42", "-42", "9223372036854775807", "9223372036854775808",
          "18446744073709551615", "18446744073709551616", "-9223372036854775808",
          "-9223372036854775809", "1.5", "1e3", "-2.5E-3", "1e400"}) {
        const auto reference = boost::json::parse(text);
        const Number n = number(text);
        const boost::json::value read = n.kind == Number::Kind::Int64    ? boost::json::value(n.i)
                                        : n.kind == Number::Kind::UInt64 ? boost::json::value(n.u)
                                                                         : boost::json::value(n.d);
        EXPECT_EQ(read.kind(), reference.kind()) << text;
        EXPECT_EQ(read, reference) << text;
    }
}

}  // namespace
}  // namespace connector::bayeux::codec::json_reader
