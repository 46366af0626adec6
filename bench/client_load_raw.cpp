// The bare client's rows of bench/client_load: Bayeux frames written by hand over a blocking
// Beast WebSocket, the cheapest client there can be.

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

#include "client_load.h"
#include "raw_client.h"

namespace orvale::bench::client_load {

namespace raw {

using tools::occurrences;

namespace {

// A bare client on an io_context of its own, so that each may block on its own thread; every
// read is bounded, so a stalled server ends the run with an error rather than a hang.
class Client {
  public:
    explicit Client(const std::string& port) : client_(io_, {"127.0.0.1", port, "/bayeux"}) {
        if (auto refused = client_.handshake(kStallBound))
            throw std::runtime_error("handshake refused: " + *refused);
    }

    void send(const std::string& frame) {
        if (!client_.send(frame, kStallBound))
            throw std::runtime_error("a frame could not be sent");
    }
    // The next frame; a held connect coming back in it is answered with the next connect.
    std::string_view read() {
        if (auto frame = client_.next(kStallBound))
            return *frame;
        throw std::runtime_error("no frame within the stall bound");
    }
    // Makes the server push on this socket.
    void connect() { client_.sendConnect(); }
    void subscribe(const std::string& channel) {
        if (!client_.subscribeAndConnect(channel, kStallBound))
            throw std::runtime_error("subscribe refused");
    }

    // `count` publishes on `channel` in one frame.
    std::string publishFrame(const std::string& channel, long first, long count) const {
        std::string frame = "[";
        for (long i = 0; i < count; ++i)
            frame += (i ? "," : "") +
                     client_.publishMessage(channel, "{\"n\":" + std::to_string(first + i) + "}");
        return frame + "]";
    }

  private:
    boost::asio::io_context io_;
    tools::RawClient client_;
};

constexpr long kBatch = 50;  // publishes per frame

}  // namespace

Phase throughput(const std::string& port, pid_t server, int subscribers, long messages, long window,
                 const std::string& channel) {
    std::vector<std::unique_ptr<Client>> subs;
    for (int s = 0; s < subscribers; ++s) {
        subs.push_back(std::make_unique<Client>(port));
        subs.back()->subscribe(channel);
    }
    Client publisher(port);
    publisher.connect();

    Countdown delivered(messages * subscribers);
    std::atomic<bool> failed{false};
    const double cpuBefore = ownCpuSeconds();
    const double serverBefore = processCpuSeconds(server);
    const auto start = Clock::now();
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
    for (auto& reader : readers)
        reader.join();
    if (!finished || failed || !error.empty())
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
    Client subscriber(port);
    subscriber.subscribe("/raw/latency");
    Client publisher(port);
    publisher.connect();
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
