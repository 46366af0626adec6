// Channel names and patterns: what one scan finds in a text, and which channels a pattern covers.

#include "connector/bayeux/channel.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using connector::bayeux::ChannelName;
using Wildcard = ChannelName::Wildcard;
using Kind = ChannelName::Kind;

namespace {

std::vector<std::string> segmentsOf(ChannelName::Segments segments) {
    std::vector<std::string> out;
    for (std::string_view segment : segments)
        out.emplace_back(segment);
    return out;
}

}  // namespace

TEST(ChannelName, ParsesWhatEveryUserAsksAndPatternsCoverTheirLevels) {
    const struct {
        const char* text;
        bool valid;
        Wildcard wildcard;
        Kind kind;
        const char* base;
        std::vector<std::string> segments;
    } cases[] = {
        {"/a", true, Wildcard::none, Kind::broadcast, "/a", {"a"}},
        {"/a/b_c:1", true, Wildcard::none, Kind::broadcast, "/a/b_c:1", {"a", "b_c:1"}},
        {"/a/*", true, Wildcard::one, Kind::broadcast, "/a", {"a", "*"}},
        {"/a/**", true, Wildcard::any, Kind::broadcast, "/a", {"a", "**"}},
        {"/*", true, Wildcard::one, Kind::broadcast, "", {"*"}},
        {"/**", true, Wildcard::any, Kind::broadcast, "", {"**"}},
        {"/meta", true, Wildcard::none, Kind::meta, "/meta", {"meta"}},
        {"/meta/connect", true, Wildcard::none, Kind::meta, "/meta/connect", {"meta", "connect"}},
        {"/metadata", true, Wildcard::none, Kind::broadcast, "/metadata", {"metadata"}},
        {"/service/x", true, Wildcard::none, Kind::service, "/service/x", {"service", "x"}},
        {"/service/**", true, Wildcard::any, Kind::service, "/service", {"service", "**"}},
        {"/services", true, Wildcard::none, Kind::broadcast, "/services", {"services"}},
        // Not well formed, yet still read segment by segment.
        {"", false, Wildcard::none, Kind::broadcast, "", {}},
        {"/", false, Wildcard::none, Kind::broadcast, "/", {""}},
        {"a/b", false, Wildcard::none, Kind::broadcast, "a/b", {}},
        {"/a/", false, Wildcard::none, Kind::broadcast, "/a/", {"a", ""}},
        {"//a", false, Wildcard::none, Kind::broadcast, "//a", {"", "a"}},
        {"/a*", false, Wildcard::none, Kind::broadcast, "/a*", {"a*"}},
        {"/a/***", false, Wildcard::none, Kind::broadcast, "/a/***", {"a", "***"}},
        {"/a/*/b", false, Wildcard::none, Kind::broadcast, "/a/*/b", {"a", "*", "b"}},
        {"/a/*b", false, Wildcard::none, Kind::broadcast, "/a/*b", {"a", "*b"}},
    };
    for (const auto& c : cases) {
        const ChannelName name(c.text);
        EXPECT_EQ(name.isValid(), c.valid) << c.text;
        EXPECT_EQ(name.wildcard(), c.wildcard) << c.text;
        EXPECT_EQ(name.kind(), c.kind) << c.text;
        EXPECT_EQ(name.base(), c.base) << c.text;
        EXPECT_EQ(segmentsOf(name.segments()), c.segments) << c.text;
    }
    EXPECT_EQ(segmentsOf(ChannelName("/a/b/**").baseSegments()),
              (std::vector<std::string>{"a", "b"}));

    // A pattern covers one level or any depth below its base.
    const struct {
        const char* pattern;
        const char* channel;
        bool matches;
    } patterns[] = {
        {"/a/b", "/a/c", false},
        {"/a/*", "/a/b", true},
        {"/a/*", "/a/b/c", false},
        {"/a/*", "/a", false},
        {"/a/*", "/ab", false},
        {"/a/**", "/a/b/c", true},
        {"/a/**", "/a", false},
        {"/a/**", "/ab/c", false},
        {"/*", "/a/b", false},
        {"/a/*/c", "/a/b/c", false},
        {"/a/*/c", "/a/*/c", true},
        {"/a*", "/ab", false},
        {"/a/**", "/a/*", true},
        // Texts that are not well formed compare as they stand.
        {"/a/*", "/a/", true},
        {"/a/**", "/a//b", true},
        {"*", "x", true},
        {"*", "/x", false},
        {"**", "/x", true},
        {"/a", "", false},
    };
    for (const auto& c : patterns)
        EXPECT_EQ(ChannelName(c.pattern).matches(c.channel), c.matches)
            << c.pattern << " over " << c.channel;
}
