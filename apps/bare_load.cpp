// Bare clients as load: a publisher that writes frames of publishes and counts their answers,
// and subscribers that count deliveries by a key each message holds once.

#include "bare_load.h"

#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "cli.h"
#include "load.h"
#include "raw_client.h"

namespace orvale::app {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using tools::occurrences;
using tools::RawClient;

namespace {

// A subscriber reading on a thread of its own. Messages of the run carry "seq"; the probes
// that show the subscription has reached every server carry "probe" instead.
class Subscriber {
  public:
    Subscriber(const std::string& url, const std::string& channel, std::size_t expected)
        : client_(io_, tools::parseHubUrl(url)), expected_(expected) {
        // A server may forget a client it has just made (Faye over Redis now and then answers
        // 401::Unknown client); a client handshakes again then, as the peers' own clients do.
        for (int attempt = 1; !subscribed(channel); ++attempt)
            if (attempt == 3)
                throw Failure("a subscriber could not subscribe to " + channel);
        client_.drainAsync([this](std::string_view frame) { onFrame(frame); });
        // The blocking calls above ran the io_context out of work, which stops it.
        io_.restart();
        thread_ = std::thread([this] { io_.run(); });
    }
    ~Subscriber() {
        boost::asio::post(io_, [this] {
            client_.sendAsync(client_.disconnectFrame(), [this] { client_.close(); });
        });
        thread_.join();
    }

    bool probed() const { return probed_.load(); }
    std::size_t delivered() const { return delivered_.load(); }
    std::int64_t last() const { return last_.load(); }

  private:
    bool subscribed(const std::string& channel) {
        if (auto refused = client_.handshake(kStall))
            throw Failure("a subscriber was refused: " + refused->substr(0, 200));
        return client_.subscribeAndConnect(channel, kStall);
    }

    void onFrame(std::string_view frame) {
        if (!probed_.load(std::memory_order_relaxed) && frame.find("\"probe\"") != frame.npos)
            probed_.store(true);
        // The clock is read once, by the frame that completes the run, and stored before the
        // count that shows the run complete (this thread alone counts).
        const std::size_t before = delivered_.load();
        const std::size_t count = before + static_cast<std::size_t>(occurrences(frame, "\"seq\":"));
        if (count == expected_ && count != before)
            last_.store(nowNanos());
        delivered_.store(count);
        if (occurrences(frame, "\"/meta/connect\"") > 0)
            client_.sendAsync(client_.connectFrame());
    }

    boost::asio::io_context io_;
    RawClient client_;  // used on thread_ once it runs
    const std::size_t expected_;
    std::atomic<bool> probed_{false};
    std::atomic<std::size_t> delivered_{0};
    std::atomic<std::int64_t> last_{0};
    std::thread thread_;
};

// Reads the publisher's answers; how many publishes they accept. A refusal ends the run.
std::size_t answers(RawClient& publisher) {
    const auto frame = publisher.read(kStall);
    if (!frame)
        throw Failure("a publish was not answered");
    if (occurrences(*frame, "\"successful\":false") > 0)
        throw Failure("a publish was refused: " + std::string(frame->substr(0, 200)));
    return static_cast<std::size_t>(occurrences(*frame, "\"successful\":true"));
}

}  // namespace

BareLoad::BareLoad(std::string url, std::string publishUrl, std::size_t window)
    : url_(std::move(url)), publishUrl_(std::move(publishUrl)), window_(window) {}

double BareLoad::throughput(std::size_t subscribers, std::size_t messages) {
    const std::string channel = "/bench/bare" + std::to_string(run_++);
    std::vector<std::unique_ptr<Subscriber>> readers;
    for (std::size_t i = 0; i < subscribers; ++i)
        readers.push_back(std::make_unique<Subscriber>(url_, channel, messages));
    boost::asio::io_context io;
    RawClient publisher(io, tools::parseHubUrl(publishUrl_));
    if (auto refused = publisher.handshake(kStall))
        throw Failure("the publisher was refused: " + refused->substr(0, 200));

    // A subscription made on one server may take a moment to reach the publisher's.
    const std::string probe = "[" + publisher.publishMessage(channel, "\"probe\"") + "]";
    for (const auto deadline = Clock::now() + kStall;
         !std::all_of(readers.begin(), readers.end(), [](auto& r) { return r->probed(); });) {
        if (Clock::now() > deadline)
            throw Failure("a subscription to " + channel + " did not reach " + publishUrl_);
        if (!publisher.send(probe) || answers(publisher) != 1)
            throw Failure("a probe was not answered");
        std::this_thread::sleep_for(10ms);
    }

    Pace pace(url_, messages);
    auto behind = [&](std::size_t published) {
        std::size_t least = messages;
        for (const auto& reader : readers)
            least = std::min(least, reader->delivered());
        return pace.behind(published, least);
    };

    std::string frame, payload;
    std::size_t sent = 0, answered = 0;
    const std::int64_t start = nowNanos();
    while (answered < messages) {
        const std::size_t room = std::min(window_ - (sent - answered), messages - sent);
        if (room == 0) {
            answered += answers(publisher);
            continue;
        }
        if (behind(sent)) {
            if (sent > answered)
                answered += answers(publisher);
            else
                std::this_thread::sleep_for(100us);
            continue;
        }
        frame = "[";
        for (std::size_t k = 0, n = std::min(room, kBatch); k < n; ++k, ++sent) {
            if (k > 0)
                frame.push_back(',');
            payload.clear();
            appendTimedPayload(payload, sent);
            publisher.appendPublish(frame, channel, payload);
        }
        frame.push_back(']');
        if (!publisher.send(frame))
            throw Failure("a frame of publishes could not be written");
    }

    publisher.sendDisconnect();

    const std::size_t expected = messages * subscribers;
    auto total = [&] {
        std::size_t sum = 0;
        for (const auto& reader : readers)
            sum += reader->delivered();
        return sum;
    };
    std::size_t seen = 0;
    for (auto progress = Clock::now(); total() < expected; std::this_thread::sleep_for(1ms)) {
        if (total() != seen) {
            seen = total();
            progress = Clock::now();
        } else if (Clock::now() - progress > kStall) {
            break;
        }
    }
    // Each subscriber's clock stops when its count reaches the run's exactly.
    expectDeliveries(total(), expected, url_);
    std::int64_t last = 0;
    for (const auto& reader : readers)
        last = std::max(last, reader->last());
    const double seconds = static_cast<double>(last - start) / 1e9;
    return seconds > 0 ? static_cast<double>(expected) / seconds : 0;
}

}  // namespace orvale::app
