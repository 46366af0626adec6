#include "common/channel_rules.h"

#include <gtest/gtest.h>

namespace connector::message_service {
namespace {

// Each rule with the texts it accepts and those it refuses.
TEST(ChannelRules, AcceptAndRefuse) {
    const struct {
        const char* name;
        bool (*check)(const std::string&);
        std::vector<const char*> accepted, refused;
    } rules[] = {
        {"name", isValidName, {"svc-1", "a_b", "ns:svc", "A9"}, {"a.b", "a/b", "a b", "ä", "a*"}},
        {"pattern",
         isValidChannelPattern,
         {"/a", "/a/b_c:1", "/a/*", "/a/**", "/*", "/**", "/a-b/c"},
         {"", "/", "a/b", "/a/", "//a", "/a*", "/a/***", "/a/*/b", "/a b", "/a/**/"}},
        {"publish",
         isValidPublishChannel,
         {"/a", "/a/b", "/x:1/y-2/z_3"},
         {"", "/", "a", "/a/", "//a", "/a//b", "/a/*", "/*", "/a b", "/a/**"}},
        {"shared publish", isValidSharedPublishChannel, {"/a b", "//x"}, {"/a/*", "/a/", "x"}},
        {"shared pattern",
         isValidSharedChannelPattern,
         {"/a b", "/a/*", "/a/**", "/a*", "/a**"},
         {"/a/*/b", "/*/", "/", "a/b", "/a/***", "/*a"}},
    };
    for (const auto& rule : rules) {
        for (const char* text : rule.accepted)
            EXPECT_TRUE(rule.check(text)) << rule.name << ": " << text;
        for (const char* text : rule.refused)
            EXPECT_FALSE(rule.check(text)) << rule.name << ": " << text;
    }
}

}  // namespace
}  // namespace connector::message_service
