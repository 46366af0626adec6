// The frames a client connection has yet to write.

#include "transport/outbound_frames.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

namespace connector::bayeux::transport {
namespace {

std::deque<std::string> takeAll(OutboundFrames& frames, std::size_t* messages = nullptr) {
    std::deque<std::string> out;
    std::vector<std::string> written;
    const std::size_t taken = frames.takeAll(out, written);
    if (messages)
        *messages = taken;
    return out;
}

// Messages share a frame in order; one that is alone closes the frame before it and opens none.
TEST(OutboundFrames, BatchesInOrderAndSetsTheLoneMessageApart) {
    OutboundFrames frames(1024);
    EXPECT_TRUE(frames.empty());
    frames.add("{\"a\":1}", false);
    frames.add("{\"b\":2}", false);
    frames.add("{\"connect\":3}", true);
    frames.add("{\"c\":4}", false);
    frames.add("{\"connect\":5}", true);
    frames.add("{\"connect\":6}", true);
    EXPECT_FALSE(frames.empty());
    std::size_t messages = 0;
    const auto out = takeAll(frames, &messages);
    EXPECT_EQ(out,
              (std::deque<std::string>{R"([{"a":1},{"b":2}])", R"([{"connect":3}])", R"([{"c":4}])",
                                       R"([{"connect":5}])", R"([{"connect":6}])"}));
    EXPECT_EQ(messages, 6u);
    EXPECT_TRUE(frames.empty());

    // What comes after a take starts afresh, the count too.
    frames.add("{\"d\":7}", false);
    EXPECT_EQ(takeAll(frames, &messages), std::deque<std::string>{R"([{"d":7}])"});
    EXPECT_EQ(messages, 1u);
}

// No frame passes the limit unless a single message does, and that one goes alone.
TEST(OutboundFrames, KeepsFramesWithinTheLimit) {
    const std::string small = "{\"n\":\"" + std::string(20, 'x') + "\"}";  // 28 bytes
    const std::string large = "{\"n\":\"" + std::string(100, 'y') + "\"}";
    const std::string pair = "[" + small + "," + small + "]";  // 59 bytes

    OutboundFrames exact(pair.size());
    exact.add(small, false);
    exact.add(small, false);
    exact.add(small, false);
    exact.add(large, false);
    exact.add(small, false);
    EXPECT_EQ(takeAll(exact), (std::deque<std::string>{pair, "[" + small + "]", "[" + large + "]",
                                                       "[" + small + "]"}));

    // One byte less and two no longer share a frame.
    OutboundFrames tight(pair.size() - 1);
    tight.add(small, false);
    tight.add(small, false);
    EXPECT_EQ(takeAll(tight), (std::deque<std::string>{"[" + small + "]", "[" + small + "]"}));
}

// Written buffers are reused, emptied, for the next frames; one past twice the frame limit is let
// go.
TEST(OutboundFrames, ReusesTheBuffersOfWrittenFrames) {
    constexpr std::size_t kLimit = 4096;
    OutboundFrames frames(kLimit);
    frames.add("{\"a\":1}", false);
    std::deque<std::string> out;
    std::vector<std::string> written;
    frames.takeAll(out, written);
    ASSERT_EQ(out.size(), 1u);
    const char* storage = out.front().data();
    written.push_back(std::move(out.front()));
    written.push_back(std::string(2 * kLimit + 1, 'z'));
    out.clear();
    frames.takeAll(out, written);
    EXPECT_TRUE(written.empty());
    EXPECT_TRUE(out.empty());

    frames.add("{\"b\":2}", false);
    frames.add("{\"c\":3}", true);  // the second frame finds no spare left
    frames.takeAll(out, written);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0], R"([{"b":2}])");
    EXPECT_EQ(out[0].data(), storage);
    EXPECT_EQ(out[1], R"([{"c":3}])");
    EXPECT_LE(out[1].capacity(), 2 * kLimit);
}

TEST(OutboundFrames, ClearDropsEverything) {
    OutboundFrames frames(1024);
    frames.add("{\"a\":1}", false);
    frames.add("{\"b\":2}", false);
    frames.clear();
    EXPECT_TRUE(frames.empty());
    frames.add("{\"c\":3}", false);
    std::size_t messages = 0;
    EXPECT_EQ(takeAll(frames, &messages), std::deque<std::string>{R"([{"c":3}])"});
    EXPECT_EQ(messages, 1u);
}

}  // namespace
}  // namespace connector::bayeux::transport
