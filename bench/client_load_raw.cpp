// The bare client's rows of bench/client_load: Bayeux frames written by hand over a blocking
// Beast WebSocket, the cheapest client there can be.

#include <algorithm>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

#include "client_load.h"

namespace orvale::bench::client_load {

namespace raw {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

long occurrences(std::string_view text, std::string_view what) {
    long n = 0;
    for (auto at = text.find(what); at != std::string_view::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

class Client {
  public:
    Client(const std::string& port, const std::string& path) : ws_(io_) {
        tcp::resolver resolver(io_);
        asio::connect(ws_.next_layer(), resolver.resolve("127.0.0.1", port));
        ws_.next_layer().set_option(tcp::no_delay(true));
        ws_.handshake("127.0.0.1:" + port, path);
        ws_.text(true);
    }

    void send(const std::string& frame) { ws_.write(asio::buffer(frame)); }

    // The next frame; a held connect coming back in it is answered with the next connect.
    std::string_view read() {
        buffer_.consume(buffer_.size());
        ws_.read(buffer_);
        const std::string_view frame(static_cast<const char*>(buffer_.data().data()),
                                     buffer_.size());
        if (!clientId_.empty() && frame.find("\"/meta/connect\"") != std::string_view::npos)
            sendConnect();
        return frame;
    }

    // Handshakes and sends the first connect, which makes the server push on this socket.
    void handshake() {
        send(R"([{"channel":"/meta/handshake","version":"1.0",)"
             R"("supportedConnectionTypes":["websocket"]}])");
        const std::string_view reply = read();
        const std::string_view key = "\"clientId\":\"";
        const auto at = reply.find(key);
        if (at == std::string_view::npos)
            throw std::runtime_error("handshake refused: " + std::string(reply));
        const auto start = at + key.size();
        clientId_ = std::string(reply.substr(start, reply.find('"', start) - start));
        sendConnect();
    }

    void subscribe(const std::string& channel) {
        send(R"([{"channel":"/meta/subscribe","clientId":")" + clientId_ + R"(","subscription":")" +
             channel + "\"}]");
        for (;;) {
            const std::string_view reply = read();
            if (reply.find("\"/meta/subscribe\"") == std::string_view::npos)
                continue;
            if (reply.find("\"successful\":true") == std::string_view::npos)
                throw std::runtime_error("subscribe refused: " + std::string(reply));
            return;
        }
    }

    // `count` publishes on `channel` in one frame.
    std::string publishFrame(const std::string& channel, long first, long count) const {
        std::string frame = "[";
        for (long i = 0; i < count; ++i) {
            if (i)
                frame += ',';
            frame += R"({"channel":")" + channel + R"(","clientId":")" + clientId_ +
                     R"(","data":{"n":)" + std::to_string(first + i) + "}}";
        }
        return frame + "]";
    }

    // Unblocks a read or write in progress on another thread, for the watchdog.
    void interrupt() {
        boost::system::error_code ignored;
        ws_.next_layer().shutdown(tcp::socket::shutdown_both, ignored);
    }

  private:
    void sendConnect() {
        send(R"([{"channel":"/meta/connect","connectionType":"websocket","clientId":")" +
             clientId_ + "\"}]");
    }

    asio::io_context io_;
    websocket::stream<tcp::socket> ws_;
    beast::flat_buffer buffer_;
    std::string clientId_;
};

// Interrupts the given clients if it is not dismissed within the stall bound, so that blocking
// reads on a stalled server end in an error rather than a hang.
class Watchdog {
  public:
    explicit Watchdog(std::vector<Client*> clients)
        : thread_([this, clients = std::move(clients)] {
              std::unique_lock<std::mutex> lock(mutex_);
              if (changed_.wait_for(lock, kStallBound, [&] { return dismissed_; }))
                  return;
              fired_ = true;
              lock.unlock();
              for (auto* client : clients)
                  client->interrupt();
          }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            dismissed_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    bool fired() {
        std::lock_guard<std::mutex> lock(mutex_);
        return fired_;
    }

  private:
    std::mutex mutex_;  // guards dismissed_ and fired_
    std::condition_variable changed_;
    bool dismissed_ = false;
    bool fired_ = false;
    std::thread thread_;  // last: starts once the members above exist
};

constexpr long kBatch = 50;  // publishes per frame

}  // namespace

Phase throughput(const std::string& port, pid_t server, int subscribers, long messages, long window,
                 const std::string& channel) {
    std::vector<std::unique_ptr<Client>> subs;
    for (int s = 0; s < subscribers; ++s) {
        subs.push_back(std::make_unique<Client>(port, "/bayeux"));
        subs.back()->handshake();
        subs.back()->subscribe(channel);
    }
    Client publisher(port, "/bayeux");
    publisher.handshake();
    std::vector<Client*> all{&publisher};
    for (auto& sub : subs)
        all.push_back(sub.get());

    Countdown delivered(messages * subscribers);
    std::atomic<bool> failed{false};
    const double cpuBefore = ownCpuSeconds();
    const double serverBefore = processCpuSeconds(server);
    const auto start = Clock::now();
    Watchdog watchdog(all);
    std::vector<std::thread> readers;
    for (auto& sub : subs)
        readers.emplace_back([&, client = sub.get()] {
            try {
                for (long got = 0; got < messages;) {
                    const long n = occurrences(client->read(), "\"data\"");
                    got += n;
                    delivered.arrive(n);
                }
            } catch (const std::exception&) {
                failed = true;
            }
        });
    const std::string quoted = "\"" + channel + "\"";
    std::string error;
    double longestGap = 0;
    try {
        long sent = 0, answered = 0;
        auto lastAnswer = start;
        while (answered < messages) {
            while (sent < messages && sent - answered + kBatch <= window) {
                const long count = std::min(kBatch, messages - sent);
                publisher.send(publisher.publishFrame(channel, sent, count));
                sent += count;
            }
            const long count = occurrences(publisher.read(), quoted);
            if (count > 0) {
                const auto now = Clock::now();
                longestGap = std::max(longestGap, seconds(now - lastAnswer));
                lastAnswer = now;
            }
            answered += count;
        }
    } catch (const std::exception& e) {
        error = e.what();
    }
    const auto finished = delivered.wait(kStallBound);
    const double cpuAfter = ownCpuSeconds();
    const double serverAfter = processCpuSeconds(server);
    if (!finished)
        for (auto* client : all)
            client->interrupt();
    for (auto& reader : readers)
        reader.join();
    if (!finished || failed || !error.empty() || watchdog.fired())
        throw std::runtime_error("raw client: " + std::to_string(delivered.count()) + " of " +
                                 std::to_string(messages * subscribers) + " delivered " + error);
    return {messages * subscribers / seconds(*finished - start),
            cpuAfter - cpuBefore,
            serverAfter - serverBefore,
            seconds(*finished - start),
            messages,
            longestGap};
}

// Publish -> receive with one message in flight: the publish goes out, the subscriber's socket
// is read until the delivery, then the publisher's until the answer.
Percentiles latency(const std::string& port, int rounds, int warmUp) {
    Client subscriber(port, "/bayeux");
    subscriber.handshake();
    subscriber.subscribe("/raw/latency");
    Client publisher(port, "/bayeux");
    publisher.handshake();
    Watchdog watchdog({&subscriber, &publisher});
    std::vector<double> samples;
    for (int i = 0; i < rounds + warmUp; ++i) {
        const std::string frame = publisher.publishFrame("/raw/latency", i, 1);
        const auto sent = Clock::now();
        publisher.send(frame);
        while (occurrences(subscriber.read(), "\"data\"") == 0) {
        }
        if (i >= warmUp)
            samples.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
        while (occurrences(publisher.read(), "\"/raw/latency\"") == 0) {
        }
    }
    return percentiles(samples);
}

}  // namespace raw

}  // namespace orvale::bench::client_load
