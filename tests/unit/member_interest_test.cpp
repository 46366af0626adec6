// What a cluster member knows of the others' patterns, and when it publishes everything.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "cluster/member_interest.h"

namespace connector::bayeux::cluster {
namespace {

using namespace std::chrono_literals;
using Clock = MemberInterest::Clock;

// A channel is wanted when another member's pattern matches it, or while in doubt.
TEST(MemberInterest, MatchingSetsReplaceChangesAndDoubt) {
    const struct {
        const char* pattern;
        const char* channel;
        bool wanted;
    } cases[] = {
        {"/a/b", "/a/b", true},      {"/a/b", "/a/bc", false},   {"/a/*", "/a/b", true},
        {"/a/*", "/a/b/c", false},   {"/a/*", "/a", false},      {"/a/**", "/a/b/c", true},
        {"/a/**", "/a", false},      {"/a/**", "/ab/c", false},  {"/**", "/x", true},
        {"/a/b/**", "/a/b/c", true}, {"/a/b/*", "/a/b/c", true}, {"/b/*", "/a/b/c", false},
    };
    const auto now = Clock::now();
    for (const auto& c : cases) {
        MemberInterest matching;
        matching.add("m", c.pattern, now);
        EXPECT_EQ(matching.wanted(c.channel), c.wanted) << c.pattern << " " << c.channel;
    }
    MemberInterest interest;
    EXPECT_FALSE(interest.wanted("/a"));
    interest.doubtUntil(now + 1s);
    EXPECT_TRUE(interest.wanted("/a"));
    interest.settle(now);
    EXPECT_TRUE(interest.wanted("/a"));
    interest.settle(now + 1s);
    EXPECT_FALSE(interest.wanted("/a"));

    // Two members want /a; one set in two parts replaces what was known of its member, once it
    // is complete.
    interest.add("m", "/a", now);
    interest.replace("n", {"/a", "/b"}, false, now);
    interest.replace("n", {"/c"}, true, now);
    interest.replace("m", {"/d"}, false, now - 1min);
    interest.remove("n", "/a");
    EXPECT_TRUE(interest.wanted("/a"));
    interest.complete("m");
    EXPECT_FALSE(interest.wanted("/a"));
    interest.add("n", "/a", now);
    for (const char* channel : {"/a", "/b", "/c", "/d"})
        EXPECT_TRUE(interest.wanted(channel)) << channel;
    interest.remove("n", "/a");
    interest.remove("n", "/unknown");
    EXPECT_FALSE(interest.wanted("/a"));
    // m was last heard a minute ago: it expires, n stays until it says goodbye.
    EXPECT_EQ(interest.expire(now - 1s), std::vector<std::string>{"m"});
    EXPECT_EQ(interest.members(), std::vector<std::string>{"n"});
    EXPECT_FALSE(interest.wanted("/d"));
    EXPECT_TRUE(interest.wanted("/b"));
    interest.forget("n");
    EXPECT_TRUE(interest.members().empty());
    EXPECT_FALSE(interest.wanted("/b"));
}

// Every member tells its whole set again now and then, in parts when it is large. Taking it in
// changes only what differs, so a channel wanted before and after never reads as unwanted
// meanwhile (a publisher would drop its messages), and a set told unchanged leaves the version
// that publishers cache answers by.
TEST(MemberInterest, ASetToldAgainNeverLeavesItsChannelsUnwanted) {
    MemberInterest interest;
    const auto now = Clock::now();
    interest.replace("n", {"/a", "/b"}, false, now);
    interest.complete("n");
    const auto version = interest.version();
    std::atomic<bool> told{false};
    std::thread member([&] {
        for (int i = 0; i < 20000; ++i) {
            interest.replace("n", {"/a"}, false, now);
            interest.replace("n", {"/b"}, true, now);
            interest.complete("n");
        }
        told = true;
    });
    std::size_t unwanted = 0;
    while (!told)
        unwanted += !interest.wanted("/a") + !interest.wanted("/b");
    member.join();
    EXPECT_EQ(unwanted, 0u);
    EXPECT_EQ(interest.version(), version);
    interest.replace("n", {"/a"}, false, now);
    EXPECT_TRUE(interest.wanted("/b"));
    interest.complete("n");
    EXPECT_FALSE(interest.wanted("/b"));
}

}  // namespace
}  // namespace connector::bayeux::cluster
