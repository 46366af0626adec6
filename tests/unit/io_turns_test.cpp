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
using connector::bayeux::endpoint::runInTurns;

int turnsEnded = 0;
void countTurn() {
    ++turnsEnded;
}

// Three queued handlers, the first of which makes a socket ready, and the read that is then
// ready without waiting: each handler notes how many turns had ended when it ran. A turn takes
// what is ready, sockets included, up to its bound, and ends (running its hooks) before the
// thread would wait.
TEST(IoTurnsTest, HandlersReadyTogetherShareATurnUpToTheBound) {
    const struct {
        std::size_t bound;
        std::vector<int> turns;  // for the three handlers and the read, in the order they ran
    } cases[] = {{128, {0, 0, 0, 0}}, {2, {0, 0, 1, 1}}, {1, {0, 1, 2, 3}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bound);
        asio::io_context io;
        asio::local::stream_protocol::socket writer(io), reader(io);
        asio::local::connect_pair(writer, reader);
        turnsEnded = 0;
        std::vector<int> turns;
        auto note = [&] {
            ASSERT_TRUE(DeferredWakes::active());
            DeferredWakes::atEnd(&countTurn);
            turns.push_back(turnsEnded);
        };
        char byte = 0;
        reader.async_read_some(asio::buffer(&byte, 1), [&](auto ec, std::size_t) {
            ASSERT_FALSE(ec);
            note();
        });
        asio::post(io, [&] {
            asio::write(writer, asio::buffer("x", 1));
            note();
        });
        asio::post(io, note);
        asio::post(io, note);
        runInTurns(io, c.bound);
        EXPECT_EQ(turns, c.turns);
        EXPECT_EQ(turnsEnded, c.turns.back() + 1);
        EXPECT_FALSE(DeferredWakes::active());
    }
}

}  // namespace
