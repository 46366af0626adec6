// Benchmarks of the Bayeux endpoint: the hub's own cost per publish and per delivery, without
// any client library in the way.
//
// - HandlePublishFrame: one publish frame through the hub's frame handling (decoding, the server's
//   matching, the reply), with no subscriber.
// - EncodeDeliveries: deliveries written into one outgoing frame.
// - DeliverOverWebSocket/N: messages published on the in-process server reach N raw WebSocket
//   subscribers over loopback; items are deliveries, so items/s is the hub's delivery rate.

#include <benchmark/benchmark.h>

#include <atomic>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <string_view>
#include <thread>

#include "connector/bayeux/endpoint.h"
#include "hub.h"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using namespace connector::bayeux;
using tcp = asio::ip::tcp;

// A Link that is never written to: the frames handled here hold no connects, and its server
// is no cluster member.
class NoLink final : public endpoint::Link {
  public:
    void deliveriesReady(std::shared_ptr<endpoint::RemoteSession>) override {}
    void connectReleased(std::shared_ptr<endpoint::RemoteSession>,
                         endpoint::ConnectRelease) override {}
    void subscriptionsShared() override {}
};

std::string clientIdOf(const std::string& reply) {
    const auto at = reply.find("\"clientId\":\"");
    if (at == std::string::npos)
        return {};
    const auto start = at + 12;
    return reply.substr(start, reply.find('"', start) - start);
}

void HandlePublishFrame(benchmark::State& state) {
    auto server = makeBayeuxServer(BayeuxServerOptions{1});
    endpoint::Hub hub(server, EndpointOptions{});
    std::shared_ptr<endpoint::Link> link = std::make_shared<NoLink>();
    endpoint::FrameBuilder out;
    const endpoint::Sender sender = hub.sender(endpoint::Transport::WebSocket);
    hub.handleFrame(R"([{"channel":"/meta/handshake","id":"1","version":"1.0"}])", link, sender,
                    out);
    const std::string id = clientIdOf(out.close());
    const std::string frame = R"([{"channel":"/orvale/bench/a","clientId":")" + id +
                              R"(","id":"42","data":{"seq":1,"t":1234567890123}}])";
    for (auto _ : state) {
        hub.handleFrame(frame, link, sender, out);
        benchmark::DoNotOptimize(out.bytes());
        out.close();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(HandlePublishFrame);

void EncodeDeliveries(benchmark::State& state) {
    PublishRequest request;
    request.setChannel("/orvale/bench/a");
    request.setJson(R"({"seq":1,"t":1234567890123})");
    endpoint::FrameBuilder out;
    std::string spare;
    for (auto _ : state) {
        for (int i = 0; i < 100; ++i)
            endpoint::appendDelivery(out, request);
        spare = out.close(std::move(spare));
        benchmark::DoNotOptimize(spare.data());
    }
    state.SetItemsProcessed(state.iterations() * 100);
}
BENCHMARK(EncodeDeliveries);

// A raw WebSocket subscriber on a thread of its own, counting deliveries.
class Subscriber {
  public:
    Subscriber(std::uint16_t port, const std::string& channel) : ws_(io_) {
        tcp::resolver resolver(io_);
        asio::connect(ws_.next_layer(), resolver.resolve("127.0.0.1", std::to_string(port)));
        ws_.handshake("127.0.0.1", "/bayeux");
        ws_.text(true);
        const std::string id = call(R"([{"channel":"/meta/handshake","id":"1","version":"1.0"}])");
        call(R"([{"channel":"/meta/subscribe","id":"2","clientId":")" + clientIdOf(id) +
             R"(","subscription":")" + channel + "\"}]");
        call(R"([{"channel":"/meta/connect","id":"3","clientId":")" + clientIdOf(id) +
             R"(","connectionType":"websocket","advice":{"timeout":0}}])");
        reader_ = std::thread([this] { read(); });
    }
    ~Subscriber() { reader_.join(); }
    std::size_t count() const { return count_.load(std::memory_order_acquire); }

  private:
    std::string call(const std::string& frame) {
        ws_.write(asio::buffer(frame));
        beast::flat_buffer buffer;
        ws_.read(buffer);
        return beast::buffers_to_string(buffer.data());
    }

    void read() {
        beast::flat_buffer buffer;
        beast::error_code ec;
        while (true) {
            ws_.read(buffer, ec);
            if (ec)
                return;
            const std::string_view frame(static_cast<const char*>(buffer.data().data()),
                                         buffer.size());
            std::size_t found = 0;
            for (auto at = frame.find("\"data\""); at != std::string_view::npos;
                 at = frame.find("\"data\"", at + 6))
                ++found;
            count_.fetch_add(found, std::memory_order_release);
            buffer.consume(buffer.size());
        }
    }

    asio::io_context io_;
    websocket::stream<tcp::socket> ws_;
    std::thread reader_;
    std::atomic<std::size_t> count_{0};
};

void DeliverOverWebSocket(benchmark::State& state) {
    const auto subscribers = static_cast<std::size_t>(state.range(0));
    constexpr std::size_t kBatch = 1000;
    auto server = makeBayeuxServer();
    auto hub = startBayeuxEndpoint(server, EndpointOptions{});
    std::vector<std::unique_ptr<Subscriber>> clients;
    for (std::size_t i = 0; i < subscribers; ++i)
        clients.push_back(std::make_unique<Subscriber>(hub->port(), "/orvale/bench/fan"));
    std::size_t sent = 0;
    for (auto _ : state) {
        for (std::size_t i = 0; i < kBatch; ++i) {
            auto request = std::make_shared<PublishRequest>();
            request->setChannel("/orvale/bench/fan");
            request->setJson(R"({"seq":1,"t":1234567890123})");
            server->acceptPublish(std::move(request));
        }
        sent += kBatch;
        for (const auto& client : clients)
            while (client->count() < sent)
                std::this_thread::yield();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(sent * subscribers));
    hub->stop();
}
BENCHMARK(DeliverOverWebSocket)->Arg(1)->Arg(4)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
