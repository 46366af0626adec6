#include "common/channel_rules.h"

#include <gtest/gtest.h>

namespace connector::message_service {
namespace {

TEST(ChannelRules, ServiceNames) {
    for (const char* name : {"svc-1", "a_b", "ns:svc", "A9"})
        EXPECT_TRUE(isValidName(name)) << name;
    for (const char* name : {"a.b", "a/b", "a b", "ä", "a*"})
        EXPECT_FALSE(isValidName(name)) << name;
}

TEST(ChannelRules, SubscriptionPatterns) {
    for (const char* p : {"/a", "/a/b_c:1", "/a/*", "/a/**", "/*", "/**", "/a-b/c"})
        EXPECT_TRUE(isValidChannelPattern(p)) << p;
    for (const char* p :
         {"", "/", "a/b", "/a/", "//a", "/a*", "/a/***", "/a/*/b", "/a b", "/a/**/"})
        EXPECT_FALSE(isValidChannelPattern(p)) << p;
}

TEST(ChannelRules, PublishChannelsAreConcrete) {
    for (const char* c : {"/a", "/a/b", "/x:1/y-2/z_3"})
        EXPECT_TRUE(isValidPublishChannel(c)) << c;
    for (const char* c : {"", "/", "a", "/a/", "//a", "/a//b", "/a/*", "/*", "/a b", "/a/**"})
        EXPECT_FALSE(isValidPublishChannel(c)) << c;
}

TEST(ChannelRules, SharedServiceChecksAreLooser) {
    EXPECT_TRUE(isValidSharedPublishChannel("/a b"));
    EXPECT_TRUE(isValidSharedPublishChannel("//x"));
    EXPECT_FALSE(isValidSharedPublishChannel("/a/*"));
    EXPECT_FALSE(isValidSharedPublishChannel("/a/"));
    EXPECT_FALSE(isValidSharedPublishChannel("x"));

    for (const char* p : {"/a b", "/a/*", "/a/**", "/a*", "/a**"})
        EXPECT_TRUE(isValidSharedChannelPattern(p)) << p;
    for (const char* p : {"/a/*/b", "/*/", "/", "a/b", "/a/***", "/*a"})
        EXPECT_FALSE(isValidSharedChannelPattern(p)) << p;
}

TEST(ChannelRules, WireChannelIsPrefixed) {
    EXPECT_EQ(toWireChannel("/a/b"), "/orvale/a/b");
    EXPECT_EQ(toWireChannel("/x/**"), "/orvale/x/**");
}

}  // namespace
}  // namespace connector::message_service
