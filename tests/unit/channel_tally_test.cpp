// Publishes counted by channel: exact under concurrency, bounded under a flood of names, and
// still showing what became busy after the flood.

#include "endpoint/channel_tally.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace connector::bayeux::endpoint {
namespace {

TEST(ChannelTallyTest, CountsEachChannelOnceUnderRacesAndBoundsAFloodOfNames) {
    ChannelTally tally;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&tally, t] {
            for (int round = 0; round < 200; ++round)
                for (int c = 0; c < 50; ++c) {
                    const int channel = (c + t * 7) % 50;  // each thread in its own order
                    tally.count("/room/" + std::to_string(channel), channel < 5 ? 2 : 1);
                }
        });
    for (auto& thread : threads)
        thread.join();
    const auto busiest = tally.busiest(100);
    ASSERT_EQ(busiest.size(), 50u);  // one slot for each channel, none split between two
    std::uint64_t total = 0;
    for (const auto& entry : busiest) {
        const bool doubled = std::stoi(entry.channel.substr(6)) < 5;
        EXPECT_EQ(entry.count, doubled ? 1600u : 800u) << entry.channel;
        total += entry.count;
    }
    EXPECT_EQ(busiest.front().count, 1600u);
    EXPECT_EQ(total + tally.untracked(), 4u * 200 * 55);
    EXPECT_EQ(busiest.front().overcount, 0u);
}

// A flood of names must neither grow the tally nor hide, for good, a channel that becomes busy
// after it.
TEST(ChannelTallyTest, AChannelBusyAfterAFloodOfNamesStillShows) {
    ChannelTally tally;
    tally.count(std::string(ChannelTally::kLongestName + 1, 'x'));
    EXPECT_EQ(tally.untracked(), 1u);
    for (int c = 0; c < 20000; ++c)
        tally.count("/flood/" + std::to_string(c));
    EXPECT_EQ(tally.busiest(100000).size(), ChannelTally::kSlots);
    for (int i = 0; i < 500; ++i)
        tally.count("/late", 2);
    const auto top = tally.busiest(1);
    ASSERT_EQ(top.size(), 1u);
    EXPECT_EQ(top.front().channel, "/late");
    // The late channel's true count lies within what is shown.
    EXPECT_LE(top.front().count - top.front().overcount, 1000u);
    EXPECT_GE(top.front().count, 1000u);
    EXPECT_LE(top.front().overcount, 20000u / ChannelTally::kPerShard + 1);
}

}  // namespace
}  // namespace connector::bayeux::endpoint
