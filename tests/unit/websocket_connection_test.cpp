// A WebSocket connection of the transport and its frames, against a Boost.Beast server in the
// test: batching what is queued, splitting bursts, pacing, the frame limit, undecodable frames.

#include <gtest/gtest.h>

#include "websocket_peers.h"

namespace connector::bayeux::transport_test {
namespace {

struct StalledClient {
    TestServer server{ServerOptions{/*readAtOnce=*/false}};
    Client client = connectClient(server.url());
    std::shared_ptr<ServerSession> session = server.nextSession();

    // Generous for the waits on it: an instrumented -O0 build takes seconds to move 32 MiB.
    static constexpr auto kBigWait = std::chrono::seconds(30);
    static const std::string& big() {
        static const std::string text = "\"" + std::string(std::size_t{32} << 20, 'x') + "\"";
        return text;
    }
    bool stall() {
        if (!session)
            return false;
        client.send(publish("/big", big()));
        return waitUntil([&] { return session->unread() > 0; });
    }
};

TEST(WebSocketConnection, BatchesWhatIsQueuedDuringAWrite) {
    StalledClient stalled;
    ASSERT_TRUE(stalled.stall());
    auto& client = stalled.client;
    auto& session = stalled.session;
    const std::string& big = StalledClient::big();
    for (int i = 0; i < 5; ++i)
        client.send(publish("/queued/" + std::to_string(i)));
    // A meta connect goes alone: a server answers a frame only once a held connect returns.
    client.send(std::make_unique<ConnectRequest>("websocket"));
    client.send(publish("/after/connect"));
    session->startReading();

    ASSERT_TRUE(waitUntil([&] { return session->frames().size() >= 4; }, StalledClient::kBigWait));
    const auto frames = session->frames();
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_EQ(frames[0].size(), big.size() + std::string(R"([{"channel":"/big","data":}])").size());
    auto second = codec::decodeFromClient(frames[1]);
    ASSERT_EQ(second.messages.size(), 5u);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(second.messages[i]->bayeuxChannel(), "/queued/" + std::to_string(i));
    EXPECT_EQ(frames[2], R"([{"channel":"/meta/connect","connectionType":"websocket"}])");
    EXPECT_EQ(frames[3], R"([{"channel":"/after/connect","data":1}])");
}

TEST(WebSocketConnection, SplitsALargeBurstIntoBoundedFrames) {
    StalledClient stalled;
    ASSERT_TRUE(stalled.stall());
    auto& client = stalled.client;
    auto& session = stalled.session;
    const std::string& big = StalledClient::big();
    constexpr int kBurst = 5000;  // about 400 KiB of JSON
    const std::string data = "\"" + std::string(60, 'd') + "\"";
    for (int i = 0; i < kBurst; ++i)
        client.send(publish("/burst/" + std::to_string(i), data));
    client.send(publish("/big2", big));
    session->startReading();

    ASSERT_TRUE(waitUntil(
        [&] {
            const auto frames = session->frames();
            return frames.size() > 1 && frames.back().size() > (std::size_t{32} << 20);
        },
        StalledClient::kBigWait));
    const auto frames = session->frames();
    ASSERT_GE(frames.size(), 3u);
    std::size_t seen = 0;
    bool secondBig = false;
    for (std::size_t f = 1; f < frames.size(); ++f) {
        auto decoded = codec::decodeFromClient(frames[f]);
        EXPECT_TRUE(decoded.errors.empty());
        if (decoded.messages.size() == 1 && decoded.messages[0]->bayeuxChannel() == "/big2") {
            secondBig = true;
            continue;
        }
        EXPECT_LE(frames[f].size(), std::size_t{64} * 1024);
        for (const auto& message : decoded.messages) {
            EXPECT_EQ(message->bayeuxChannel(), "/burst/" + std::to_string(seen));
            ++seen;
        }
    }
    EXPECT_EQ(seen, std::size_t{kBurst});
    EXPECT_TRUE(secondBig);
    EXPECT_GT(frames.size(), 5u);  // the burst did not go out as one frame
}

TEST(WebSocketConnection, PacedReadsLoseNothingAndNeverStrandALoneFrame) {
    WebSocketTransportOptions options;
    options.readPacingUs = 2000;
    TestServer server;
    Client client = connectClient(server.url(), options);
    auto session = server.nextSession();
    ASSERT_TRUE(session);

    // One frame every 100 us: fast enough to be paced, slow enough that the client empties the
    // socket on every read before pacing starts.
    constexpr int kStream = 2000;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kStream; ++i) {
        std::this_thread::sleep_until(start + i * 100us);
        session->send(R"([{"channel":"/s","data":)" + std::to_string(i) + "}]");
        if (i == kStream / 2)
            session->send(R"([{"channel":"/big","data":")" + std::string(200000, 'x') + "\"}]");
    }
    ASSERT_TRUE(waitUntil([&] { return client.collector->count() == kStream + 1; }));
    const auto received = client.collector->encoded();
    for (int i = 0, n = 0; i < kStream + 1; ++i) {
        if (received[i].find("/big") != std::string::npos)
            continue;
        EXPECT_EQ(received[i], R"([{"channel":"/s","data":)" + std::to_string(n++) + "}]");
    }

    // The stream stopped; a paced read finds nothing, then one lone frame arrives.
    std::this_thread::sleep_for(20ms);
    session->send(R"([{"channel":"/late","data":1}])");
    ASSERT_TRUE(waitUntil([&] { return client.collector->count() == kStream + 2; }));
}

TEST(WebSocketConnection, AFastStreamLosesNothingAndItsLastFrameLeaves) {
    for (const std::size_t pacing : {std::size_t{200}, std::size_t{0}}) {
        SCOPED_TRACE("writePacingUs " + std::to_string(pacing));
        WebSocketTransportOptions options;
        options.writePacingUs = pacing;
        TestServer server;
        Client client = connectClient(server.url(), options);
        auto session = server.nextSession();
        ASSERT_TRUE(session);

        constexpr int kStream = 20000;
        for (int i = 0; i < kStream; ++i)
            client.send(publish("/fast", std::to_string(i)));
        auto received = [&] {
            std::vector<std::string> data;
            for (const auto& frame : session->frames())
                for (const auto& message : codec::decodeFromClient(frame).messages)
                    data.push_back(static_cast<const PublishRequest&>(*message).getJson());
            return data;
        };
        ASSERT_TRUE(waitUntil([&] { return received().size() == kStream; }));
        const auto data = received();
        for (int i = 0; i < kStream; ++i)
            ASSERT_EQ(data[i], std::to_string(i));
        EXPECT_LT(session->frames().size(), std::size_t{kStream});

        client.send(publish("/late", "1"));
        ASSERT_TRUE(waitUntil([&] { return received().size() == kStream + 1; }));
    }
}

TEST(WebSocketConnection, FrameLargerThanTheLimitClosesTheConnection) {
    orvale::test::LogCapture logs;
    TestServer server;
    WebSocketTransportOptions options;
    options.maxFrameBytes = 1024;
    Client client = connectClient(server.url(), options);
    auto session = server.nextSession();
    ASSERT_TRUE(session);
    auto done = client.inbound->done();

    session->send(R"([{"channel":"/ok","data":1}])");
    session->send(R"([{"channel":"/big","data":")" + std::string(2048, 'x') + "\"}]");
    ASSERT_TRUE(waitUntil([&] { return client.collector->completed_.load(); }));
    EXPECT_EQ(client.collector->count(), 1u);
    ASSERT_TRUE(waitUntil([&] { return session->closed(); }));
    EXPECT_EQ(session->closeCode(), static_cast<int>(websocket::close_code::too_big));
    EXPECT_EQ(logs.count("A frame from " + server.url() + " is larger than 1024 bytes"), 1u);
    ASSERT_TRUE(done.waitFor(5s));
    EXPECT_FALSE(done.get());
    EXPECT_TRUE(waitUntil([&] { return client.upstream->cancelled.load(); }));
}

TEST(WebSocketConnection, UndecodableFramesAreLoggedAndDropped) {
    orvale::test::LogCapture logs;
    TestServer server;
    Client client = connectClient(server.url());
    auto session = server.nextSession();
    ASSERT_TRUE(session);

    session->send("this is not JSON");
    session->send(R"([{"channel":"/good","data":1},7,{"channel":"/meta/connect"}])");
    session->send(R"([{"channel":"/after","data":2}])");
    ASSERT_TRUE(waitUntil([&] { return client.collector->count() == 2; }));
    EXPECT_EQ(client.collector->encoded(),
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
    EXPECT_FALSE(client.collector->completed_.load());

    // Messages that are not Bayeux messages are dropped on the way out too.
    struct Foreign : Message {};
    client.send(std::make_unique<Foreign>());
    client.send(publish("/still/open"));
    ASSERT_TRUE(waitUntil([&] { return session->frames().size() == 1; }));
    EXPECT_EQ(session->frames()[0], R"([{"channel":"/still/open","data":1}])");
    EXPECT_EQ(logs.count("Dropped an outbound"), 1u);
}

}  // namespace
}  // namespace connector::bayeux::transport_test
