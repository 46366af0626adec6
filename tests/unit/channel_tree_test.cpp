#include "channel_tree.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace {

using connector::bayeux::detail::ChannelNode;
using connector::bayeux::detail::ChannelTree;
using connector::bayeux::detail::Match;
using connector::bayeux::detail::SessionRecord;

using Retired = std::vector<std::unique_ptr<ChannelNode>>;

struct ChannelTreeTest : ::testing::Test {
    SessionRecord& record(const std::string& id) {
        auto& slot = records_[id];
        if (!slot)
            slot = std::make_unique<SessionRecord>(
                std::weak_ptr<connector::bayeux::BayeuxSession>(), nullptr, id, 0);
        return *slot;
    }

    // "id pattern" for each match, sorted.
    std::multiset<std::string> matches(const std::string& channel) const {
        std::vector<Match> out;
        tree_.match(channel, out);
        std::multiset<std::string> pairs;
        for (const Match& m : out)
            pairs.insert(m.record->id + " " + *m.pattern);
        return pairs;
    }

    ChannelTree tree_;
    std::map<std::string, std::unique_ptr<SessionRecord>> records_;
};

TEST_F(ChannelTreeTest, HoldsAreCountedAndNodesPrunedWhenUnusedOrRemovedAll) {
    auto& s = record("s");
    Retired retired;
    ASSERT_TRUE(tree_.subscribe(s, "/a/b/c"));
    ASSERT_TRUE(tree_.subscribe(s, "/a/b/c"));
    ASSERT_TRUE(tree_.subscribe(s, "/a/x"));
    EXPECT_EQ(tree_.nodeCount(), 5u);  // root, a, b, c, x

    EXPECT_TRUE(tree_.unsubscribe(s, "/a/b/c", retired));
    EXPECT_EQ(matches("/a/b/c").size(), 1u) << "held twice, released once";
    EXPECT_TRUE(retired.empty());
    EXPECT_TRUE(tree_.unsubscribe(s, "/a/b/c", retired));
    EXPECT_TRUE(matches("/a/b/c").empty());
    EXPECT_FALSE(tree_.unsubscribe(s, "/a/b/c", retired)) << "nothing left to release";
    EXPECT_EQ(retired.size(), 2u) << "c and b; a still leads to x";
    EXPECT_EQ(tree_.nodeCount(), 3u);
    // Retired nodes still hold their pattern texts for deliveries queued before.
    EXPECT_EQ(retired.front()->slots->exact.text, "/a/b/c");

    EXPECT_FALSE(tree_.unsubscribe(s, "/never", retired));
    EXPECT_FALSE(tree_.unsubscribe(record("other"), "/a/x", retired));
    EXPECT_FALSE(tree_.subscribe(s, "no/slash"));
    EXPECT_TRUE(tree_.unsubscribe(s, "/a/x", retired));

    // removeAll releases every hold of a session and keeps the other sessions intact.
    std::vector<SessionRecord*> many;
    for (int i = 0; i < 6; ++i) {
        many.push_back(&record("m" + std::to_string(i)));
        tree_.subscribe(*many.back(), "/shared/**");
    }
    tree_.subscribe(s, "/shared/**");
    tree_.subscribe(s, "/own/deep/channel");
    tree_.subscribe(s, "/own/*");
    tree_.subscribe(s, "/**");
    retired.clear();
    tree_.removeAll(s, retired);
    EXPECT_TRUE(s.held.empty());
    EXPECT_EQ(tree_.nodeCount(), 2u);  // root and "shared"
    EXPECT_EQ(retired.size(), 3u);     // own, deep, channel
    EXPECT_EQ(matches("/shared/x").size(), 6u);
    // Removing from the middle of a slot keeps the positions of the others right.
    tree_.removeAll(*many[2], retired);
    tree_.removeAll(*many[0], retired);
    Retired more;
    for (int i : {5, 1, 3, 4})
        EXPECT_TRUE(tree_.unsubscribe(*many[i], "/shared/**", more));
    EXPECT_TRUE(matches("/shared/x").empty());
    EXPECT_EQ(tree_.nodeCount(), 1u);
}

}  // namespace
