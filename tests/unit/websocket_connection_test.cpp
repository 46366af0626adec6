// A WebSocket connection's frames against a Boost.Beast server: batching, splitting bursts,
// pacing, the frame limit, undecodable frames.

#include <gtest/gtest.h>

#include "websocket_peers.h"

namespace connector::bayeux::transport_test {
namespace {

// The channels of the messages a frame holds.
std::vector<std::string> channels(const std::string& frame) {
    auto d = codec::decodeFromClient(frame);
    EXPECT_TRUE(d.errors.empty());
    std::vector<std::string> out;
    for (const auto& message : d.messages)
        out.push_back(message->bayeuxChannel());
    return out;
}

// What is queued during a write goes out once, in order, in frames a server accepts; a connect
// goes alone (a frame is answered only once its held connect returns), as does a too-large message.
TEST(WebSocketConnection, BatchesInBoundedFramesLosingNothingAndClosesOnAFrameTooLarge) {
    TestServer server(/*readAtOnce=*/false);
    Client client(server);
    auto session = client.session;
    // Larger than the socket buffers: stays in flight while the server reads nothing.
    const std::string big = "\"" + std::string(std::size_t{32} << 20, 'x') + "\"";
    client.send(publish("/big", big));
    ASSERT_TRUE(waitUntil([&] { return session->unread() > 0; }));
    for (int i = 0; i < 5; ++i)
        client.send(publish("/queued/" + std::to_string(i)));
    client.send(std::make_unique<ConnectRequest>("websocket"));
    constexpr int kBurst = 5000;  // about 400 KiB of JSON
    const std::string data = "\"" + std::string(60, 'd') + "\"";
    for (int i = 0; i < kBurst; ++i)
        client.send(publish("/burst/" + std::to_string(i), data));
    client.send(publish("/big2", big));
    session->startReading();

    // Generous: an instrumented -O0 build takes seconds to move 32 MiB.
    ASSERT_TRUE(waitUntil(
        [&] {
            const auto frames = session->frames();
            return frames.size() > 1 && frames.back().size() > big.size();
        },
        30s));
    const auto frames = session->frames();
    ASSERT_GT(frames.size(), 8u) << "the burst went out in several frames";
    EXPECT_EQ(frames[0].size(), big.size() + std::string(R"([{"channel":"/big","data":}])").size());
    EXPECT_EQ(channels(frames[1]), (std::vector<std::string>{"/queued/0", "/queued/1", "/queued/2",
                                                             "/queued/3", "/queued/4"}));
    EXPECT_EQ(frames[2], R"([{"channel":"/meta/connect","connectionType":"websocket"}])");
    int seen = 0;
    for (std::size_t f = 3; f + 1 < frames.size(); ++f) {
        EXPECT_LE(frames[f].size(), std::size_t{64} * 1024);
        for (const auto& channel : channels(frames[f]))
            EXPECT_EQ(channel, "/burst/" + std::to_string(seen++));
    }
    EXPECT_EQ(seen, kBurst);
    EXPECT_EQ(channels(frames.back()), std::vector<std::string>{"/big2"});

    // What cannot be decoded is logged and dropped, by frame or by element, and so are outbound
    // messages that are not Bayeux messages; a frame past the limit closes the connection.
    orvale::test::LogCapture logs;
    WebSocketTransportOptions options;
    options.maxFrameBytes = 1024;
    Client limited(server, options);
    auto peer = limited.session;
    peer->startReading();
    auto done = limited.inbound->done();

    peer->send("this is not JSON");
    peer->send(R"([{"channel":"/good","data":1},7,{"channel":"/meta/connect"}])");
    peer->send(R"([{"channel":"/after","data":2}])");
    ASSERT_TRUE(waitUntil([&] { return limited.collector->count() == 2; }));
    EXPECT_EQ(limited.collector->received(),
              (std::vector<std::string>{R"([{"channel":"/good","data":1}])",
                                        R"([{"channel":"/after","data":2}])"}));
    const auto lines = logs.find("Dropped what could not be decoded from " + server.url());
    ASSERT_EQ(lines.size(), 3u);
    for (const auto& line : lines) {
        EXPECT_EQ(line.channel, "connector::bayeux::transport");
        EXPECT_EQ(line.severity, 512);
    }
    EXPECT_NE(lines[0].message.find("invalid JSON"), std::string::npos);
    EXPECT_NE(lines[1].message.find("message 1: not an object"), std::string::npos);
    EXPECT_FALSE(limited.completed());

    struct Foreign : Message {};
    limited.send(std::make_unique<Foreign>());
    limited.send(publish("/still/open"));
    ASSERT_TRUE(waitUntil([&] { return peer->frames().size() == 1; }));
    EXPECT_EQ(peer->frames()[0], R"([{"channel":"/still/open","data":1}])");
    EXPECT_EQ(logs.count("Dropped an outbound"), 1u);

    peer->send(R"([{"channel":"/big","data":")" + std::string(2048, 'x') + "\"}]");
    ASSERT_TRUE(waitUntil([&] { return limited.completed() && peer->closed(); }));
    EXPECT_EQ(limited.collector->count(), 2u);
    EXPECT_EQ(peer->closeCode(), static_cast<int>(websocket::close_code::too_big));
    EXPECT_EQ(logs.count("A frame from " + server.url() + " is larger than 1024 bytes"), 1u);
    ASSERT_TRUE(done.waitFor(5s));
    EXPECT_FALSE(done.get());
    EXPECT_TRUE(waitUntil([&] { return limited.upstream->cancelled.load(); }));

    // A fast stream goes out in frames of many messages, losing nothing, with write pacing (wide
    // enough that even a slow build holds frames) or not; the frame held last still leaves once
    // the stream stops, and so does a lone message after it.
    for (const std::size_t pacing : {4000, 0}) {
        WebSocketTransportOptions paced;
        paced.writePacingUs = pacing;
        TestServer fastServer;
        Client fast(fastServer, paced);
        auto sink = fast.session;
        constexpr std::size_t kStream = 20000;
        for (std::size_t i = 0; i < kStream; ++i)
            fast.send(publish("/fast", std::to_string(i)));
        std::vector<std::string> data;
        auto received = [&] {
            data.clear();
            for (const auto& frame : sink->frames())
                for (const auto& message : codec::decodeFromClient(frame).messages)
                    data.push_back(static_cast<const PublishRequest&>(*message).getJson());
            return data.size();
        };
        ASSERT_TRUE(waitUntil([&] { return received() == kStream; })) << pacing;
        for (std::size_t i = 0; i < kStream; ++i)
            ASSERT_EQ(data[i], std::to_string(i)) << pacing;
        EXPECT_LT(sink->frames().size(), kStream);
        fast.send(publish("/late", "1"));
        ASSERT_TRUE(waitUntil([&] { return received() == kStream + 1; })) << pacing;
    }

    // A server that reads nothing, so answers no ping, is cut off after the idle bound; and a
    // close asked for while a write to it is stuck ends the connection all the same.
    TestServer deaf(/*readAtOnce=*/false);
    WebSocketTransportOptions idle;
    idle.idleTimeoutMs = 300;
    Client silent(deaf, idle);
    EXPECT_TRUE(waitUntil([&] { return silent.completed(); }));
    idle.idleTimeoutMs = 0;
    Client stuck(deaf, idle);
    stuck.send(publish("/big", "\"" + std::string(std::size_t{32} << 20, 'x') + "\""));
    ASSERT_TRUE(waitUntil([&] { return stuck.session->unread() > 0; }));
    stuck.outbound->onComplete();
    EXPECT_TRUE(waitUntil([&] { return stuck.completed(); }));
}

}  // namespace
}  // namespace connector::bayeux::transport_test
