#include "endpoint/io_turns.h"

#include <gtest/gtest.h>

#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <vector>

#include "server/deferred_wakes.h"

namespace {

namespace asio = boost::asio;
using connector::bayeux::DeferredWakes;

int turnsEnded = 0;

// Three queued handlers, the first of which makes a socket ready, then the read: each notes how
// many turns had ended when it ran. A turn takes what is ready, the socket included, up to its
// bound, and ends (running its hooks) before the thread would wait.
TEST(IoTurnsTest, HandlersReadyTogetherShareATurnUpToTheBound) {
    const std::pair<std::size_t, std::vector<int>> cases[] = {
        {128, {0, 0, 0, 0}}, {2, {0, 0, 1, 1}}, {1, {0, 1, 2, 3}}};
    for (const auto& [bound, expected] : cases) {
        asio::io_context io;
        asio::local::stream_protocol::socket writer(io), reader(io);
        asio::local::connect_pair(writer, reader);
        turnsEnded = 0;
        std::vector<int> turns;
        auto note = [&] {
            ASSERT_TRUE(DeferredWakes::active());
            DeferredWakes::atEnd([] { ++turnsEnded; });
            turns.push_back(turnsEnded);
        };
        char byte = 0;
        reader.async_read_some(asio::buffer(&byte, 1), [&](auto, std::size_t) { note(); });
        asio::post(io, [&] { asio::write(writer, asio::buffer("x", 1)), note(); });
        asio::post(io, note);
        asio::post(io, note);
        connector::bayeux::endpoint::runInTurns(io, bound);
        EXPECT_EQ(turns, expected) << bound;
        EXPECT_EQ(turnsEnded, expected.back() + 1) << bound;
    }
}

}  // namespace
