// The frames a client connection has yet to write.

#include "transport/outbound_frames.h"

#include <gtest/gtest.h>

namespace connector::bayeux::transport {
namespace {

using Frames = std::deque<std::string>;

// Adds each message (alone when it starts with '!'), takes everything and counts the messages.
Frames cycle(OutboundFrames& frames, const std::vector<std::string>& messages,
             std::size_t expectedCount) {
    for (const auto& m : messages)
        frames.add(m[0] == '!' ? m.substr(1) : m, m[0] == '!');
    Frames out;
    std::vector<std::string> written;
    EXPECT_EQ(frames.takeAll(out, written), expectedCount);
    EXPECT_TRUE(frames.empty());
    return out;
}

// Messages share a frame in order; one that is alone closes the frame before it; no frame passes
// the limits (bytes, messages) unless a single message does, and that one goes alone.
TEST(OutboundFrames, BatchesInOrderWithinTheLimitAndSetsLoneMessagesApart) {
    OutboundFrames frames(1024);
    EXPECT_EQ(cycle(frames, {"{\"a\":1}", "{\"b\":2}", "!{\"c\":3}", "{\"d\":4}", "!5", "!6"}, 6),
              (Frames{R"([{"a":1},{"b":2}])", R"([{"c":3}])", R"([{"d":4}])", "[5]", "[6]"}));
    EXPECT_EQ(cycle(frames, {"7"}, 1), Frames{"[7]"});  // a take starts afresh, the count too
    const std::string small = "{\"n\":\"" + std::string(20, 'x') + "\"}";
    const std::string large = "{\"n\":\"" + std::string(100, 'y') + "\"}";
    const std::string pair = "[" + small + "," + small + "]";
    OutboundFrames exact(pair.size());
    EXPECT_EQ(cycle(exact, {small, small, small, large, small}, 5),
              (Frames{pair, "[" + small + "]", "[" + large + "]", "[" + small + "]"}));
    OutboundFrames tight(pair.size() - 1);  // one byte less and two no longer share a frame
    EXPECT_EQ(cycle(tight, {small, small}, 2), (Frames{"[" + small + "]", "[" + small + "]"}));
    OutboundFrames counted(1024, 2);  // nor a frame its count of messages
    EXPECT_EQ(cycle(counted, {"1", "2", "3", "4", "5"}, 5), (Frames{"[1,2]", "[3,4]", "[5]"}));
    // Written buffers are kept for the next frames, but none past twice the limit.
    OutboundFrames kept(4096);
    std::vector<std::string> written{std::string(2 * 4096 + 1, 'z')};
    Frames out;
    kept.takeAll(out, written);
    EXPECT_TRUE(written.empty());
    EXPECT_LE(cycle(kept, {"1"}, 1)[0].capacity(), 2 * 4096u);
}

}  // namespace
}  // namespace connector::bayeux::transport
