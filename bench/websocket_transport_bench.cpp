// Benchmarks of the WebSocket transport against a Boost.Beast echo server on loopback, beside a
// bare synchronous Beast client talking to the same server: the transport's own cost is the
// difference.

#include <benchmark/benchmark.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <condition_variable>
#include <thread>

#include "connector/bayeux/messages.h"
#include "connector/bayeux/websocket_transport.h"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using namespace connector;
using namespace connector::bayeux;

// Sends every frame it receives straight back; one thread per connection.
class EchoServer {
  public:
    EchoServer() : acceptor_(io_, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0)) {
        port_ = acceptor_.local_endpoint().port();
        thread_ = std::thread([this] {
            for (;;) {
                tcp::socket socket(io_);
                beast::error_code ec;
                acceptor_.accept(socket, ec);
                if (ec || stopping_)
                    return;
                sessions_.emplace_back([s = std::move(socket)]() mutable { echo(std::move(s)); });
            }
        });
    }
    ~EchoServer() {
        stopping_ = true;
        // Wakes the accept loop with one last connection.
        tcp::socket poke(io_);
        beast::error_code ec;
        poke.connect(acceptor_.local_endpoint(), ec);
        thread_.join();
        poke.close(ec);
        for (auto& session : sessions_)
            session.join();
    }
    std::string url() const { return "ws://127.0.0.1:" + std::to_string(port_) + "/bayeux"; }
    unsigned short port() const { return port_; }

  private:
    static void echo(tcp::socket socket) {
        beast::error_code ec;
        // Without it, Nagle's algorithm and delayed acknowledgements stall back-to-back echoes.
        socket.set_option(tcp::no_delay(true), ec);
        websocket::stream<tcp::socket> ws(std::move(socket));
        ws.accept(ec);
        beast::flat_buffer buffer;
        while (!ec) {
            ws.read(buffer, ec);
            if (ec)
                break;
            ws.text(true);
            ws.write(buffer.data(), ec);
            buffer.consume(buffer.size());
        }
    }

    asio::io_context io_;
    tcp::acceptor acceptor_;
    unsigned short port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::vector<std::thread> sessions_;  // accept thread only, then the destructor
};

// Counts the messages that come back.
class Counter : public reactive_streams::Subscriber<MessagePtr> {
  public:
    void onSubscribe(std::shared_ptr<reactive_streams::Subscription> s) override {
        s->request(UINT64_MAX);
    }
    void onNext(MessagePtr&& element) override {
        std::size_t n = 1;
        if (auto* container = dynamic_cast<BayeuxContainer*>(element.get()))
            n = container->messages().size();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            received_ += n;
        }
        arrived_.notify_all();
    }
    void onComplete() override {}
    void onError(std::exception_ptr) override {}
    Future<bool> done() override { return makeReadyFuture<bool>(true); }

    void waitFor(std::size_t total) {
        std::unique_lock<std::mutex> lock(mutex_);
        arrived_.wait(lock, [&] { return received_ >= total; });
    }

  private:
    std::mutex mutex_;  // guards received_
    std::condition_variable arrived_;
    std::size_t received_ = 0;
};

class NoUpstream : public reactive_streams::Subscription {
  public:
    void request(std::uint64_t) override {}
    void cancel() override {}
};

struct Open {
    std::shared_ptr<Context> context = std::make_shared<Context>();
    std::shared_ptr<reactive_streams::Subscriber<MessagePtr>> outbound;
    std::shared_ptr<reactive_streams::Publisher<MessagePtr>> inbound;
    std::shared_ptr<Counter> counter = std::make_shared<Counter>();

    explicit Open(const std::string& url) {
        context->registerService(webSocketTransportAddress(), makeWebSocketTransport());
        auto response =
            context->deliver(webSocketTransportAddress(), std::make_unique<ConnectTransport>(url))
                .get();
        auto& open = dynamic_cast<ConnectTransportResponse&>(*response);
        outbound = open.getOutbound();
        inbound = open.getInbound();
        inbound->subscribe(counter);
        outbound->onSubscribe(std::make_shared<NoUpstream>());
    }
};

MessagePtr publish() {
    return std::make_unique<PublishRequest>("/orvale/bench",
                                            std::string(R"({"n":1,"text":"hello"})"));
}

void BM_TransportRoundTrip(benchmark::State& state) {
    EchoServer server;
    Open client(server.url());
    std::size_t sent = 0;
    for (auto _ : state) {
        client.outbound->onNext(publish());
        client.counter->waitFor(++sent);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TransportRoundTrip)->UseRealTime();

// Messages handed over in a burst: the transport batches what queues during a write.
void BM_TransportBurst(benchmark::State& state) {
    EchoServer server;
    Open client(server.url());
    const auto burst = static_cast<std::size_t>(state.range(0));
    std::size_t sent = 0;
    for (auto _ : state) {
        for (std::size_t i = 0; i < burst; ++i)
            client.outbound->onNext(publish());
        sent += burst;
        client.counter->waitFor(sent);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_TransportBurst)->Arg(1000)->UseRealTime();

// Baseline: a synchronous Beast client writing a frame and reading the echo.
void BM_BareBeastRoundTrip(benchmark::State& state) {
    EchoServer server;
    asio::io_context io;
    websocket::stream<tcp::socket> ws(io);
    ws.next_layer().connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), server.port()));
    ws.next_layer().set_option(tcp::no_delay(true));
    ws.handshake("127.0.0.1", "/bayeux");
    ws.text(true);
    const std::string frame = R"([{"channel":"/orvale/bench","data":{"n":1,"text":"hello"}}])";
    beast::flat_buffer buffer;
    for (auto _ : state) {
        ws.write(asio::buffer(frame));
        ws.read(buffer);
        buffer.consume(buffer.size());
    }
    ws.close(websocket::close_code::normal);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareBeastRoundTrip)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
