// Client message services as load: publishers, counting subscribers, and idle sessions.

#include "load.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <thread>
#include <vector>

#include "cli.h"
#include "client_factory.h"
#include "process.h"

#include "connector/common/mutex.h"

namespace orvale::app {

namespace ms = connector::message_service;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::int64_t nowNanos() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

namespace {

// Idle sessions opened at once.
constexpr std::size_t kOpenAtOnce = 200;

// The "t" member of {"seq":N,"t":T}.
std::int64_t sentAt(const std::string& json) {
    const auto at = json.find("\"t\":");
    return at == std::string::npos ? 0 : std::stoll(json.substr(at + 4));
}

}  // namespace

std::string timedPayload(std::size_t seq) {
    std::string text;
    text.reserve(48);
    appendTimedPayload(text, seq);
    return text;
}

void expectDeliveries(std::size_t got, std::size_t expected, const std::string& from) {
    if (got < expected)
        throw Failure("only " + std::to_string(got) + " of " + std::to_string(expected) +
                      " deliveries arrived from " + from);
    if (got > expected)
        throw Failure(std::to_string(got) + " deliveries arrived from " + from + " for " +
                      std::to_string(expected) + " published: some came twice");
}

void appendTimedPayload(std::string& text, std::size_t seq) {
    char digits[24];
    text.append("{\"seq\":");
    text.append(digits, std::to_chars(digits, digits + sizeof digits, seq).ptr);
    text.append(",\"t\":");
    text.append(digits, std::to_chars(digits, digits + sizeof digits, nowNanos()).ptr);
    text.push_back('}');
}

bool Pace::behind(std::size_t published, std::size_t least) {
    if (least != slowest_) {
        slowest_ = least;
        moved_ = Clock::now();
    } else if (Clock::now() - moved_ > kStall) {
        throw Failure("a subscriber of " + url_ + " stopped at " + std::to_string(least) + " of " +
                      std::to_string(messages_) + " deliveries");
    }
    return published - std::min(published, least) >= kMostAhead;
}

namespace {

// Some servers (Faye) answer every message of a frame only once all of them are answered, so a
// subscribe sharing a frame with the first held /meta/connect waits as long as the connect.
// A moment's pause after connecting lets that connect leave alone.
std::shared_ptr<ms::MessageService> connected(std::shared_ptr<ms::MessageService> service) {
    std::this_thread::sleep_for(50ms);
    return service;
}

void disconnectAll(std::vector<std::shared_ptr<ms::MessageService>>& services) {
    std::vector<connector::Future<ms::DisconnectResult>> pending;
    pending.reserve(services.size());
    for (auto& service : services)
        pending.push_back(service->disconnect());
    for (auto& future : pending)
        future.waitFor(2s);
    services.clear();
}

}  // namespace

LoadRunner::LoadRunner(std::string url, std::size_t window, std::string publishUrl)
    : url_(std::move(url)),
      window_(window),
      publishUrl_(publishUrl.empty() ? url_ : std::move(publishUrl)) {}
LoadRunner::~LoadRunner() = default;

double LoadRunner::throughput(std::size_t subscribers, std::size_t messages) {
    // Declared first, so that they outlive the services whose callbacks count into them, even
    // when the run ends in a failure.
    std::atomic<std::size_t> received{0};
    std::vector<std::atomic<std::size_t>> each(subscribers);  // deliveries per subscriber
    std::atomic<std::int64_t> last{0};
    // A factory, so a context and a transport thread, per service: one shared thread would
    // have to decode every answer and every delivery of the run alone.
    std::vector<std::unique_ptr<ClientFactory>> factories;
    auto factory = [&]() -> ClientFactory& {
        factories.push_back(std::make_unique<ClientFactory>());
        return *factories.back();
    };
    const std::string tag = std::to_string(run_++);
    const std::string channel = "/bench/tp" + tag;
    std::vector<std::shared_ptr<ms::MessageService>> services;
    std::vector<std::shared_ptr<ms::Subscription>> subscriptions;
    const std::size_t expected = messages * subscribers;
    for (std::size_t i = 0; i < subscribers; ++i) {
        auto service = connected(factory().connect("tp" + tag + "-sub" + std::to_string(i), url_));
        auto subscribed = service->subscribe(channel, [&, i](const ms::JsonMessage&) {
            each[i].fetch_add(1, std::memory_order_relaxed);
            // The clock is read once, by the delivery that completes the run.
            if (received.fetch_add(1, std::memory_order_relaxed) + 1 == expected)
                last.store(nowNanos(), std::memory_order_relaxed);
        });
        subscriptions.push_back(await(subscribed, 10s, "cannot subscribe"));
        services.push_back(std::move(service));
    }
    auto publisher = connected(factory().connect("tp" + tag + "-pub", publishUrl_));
    std::vector<connector::Future<ms::PublishResult>> window(window_);
    std::vector<bool> used(window_, false);
    const std::int64_t start = nowNanos();
    // Answers come in order, many per frame. Waiting for a batch of them at once spares the
    // publishing thread a wake-up, and a core a context switch, for every single answer.
    const std::size_t batch = std::max<std::size_t>(1, window_ / 4);
    const std::string unanswered = "a publish was not answered";  // made once, not per message
    Pace pace(url_, messages);
    auto slowest = [&] {
        std::size_t least = messages;
        for (const auto& count : each)
            least = std::min(least, count.load());
        return least;
    };
    for (std::size_t i = 0; i < messages; ++i) {
        const std::size_t slot = i % window_;
        while (i % batch == 0 && pace.behind(i, slowest()))
            std::this_thread::sleep_for(100us);
        if (used[slot] && i % batch == 0)
            window[(slot + batch - 1) % window_].waitFor(kStall);
        if (used[slot])
            await(window[slot], kStall, unanswered);
        window[slot] = publisher->publish(channel, timedPayload(i));
        used[slot] = true;
    }
    std::size_t seen = 0;
    auto progress = Clock::now();
    while (received.load() < expected) {
        if (received.load() != seen) {
            seen = received.load();
            progress = Clock::now();
        } else if (Clock::now() - progress > kStall) {
            break;
        }
        std::this_thread::sleep_for(1ms);
    }
    const std::size_t got = received.load();
    // The delivery that completes the run reads the clock just after it counts.
    for (const auto deadline = Clock::now() + kStall;
         got >= expected && last.load() == 0 && Clock::now() < deadline;)
        std::this_thread::yield();
    const double seconds = static_cast<double>(last.load() - start) / 1e9;
    subscriptions.clear();
    services.push_back(publisher);
    disconnectAll(services);
    expectDeliveries(got, expected, url_);
    return seconds > 0 ? static_cast<double>(got) / seconds : 0;
}

Latency LoadRunner::latency(std::size_t rate, std::chrono::milliseconds duration) {
    ClientFactory subscriberFactory;
    ClientFactory publisherFactory;
    const std::string tag = std::to_string(run_++);
    const std::string channel = "/bench/lat" + tag;
    const std::size_t messages = static_cast<std::size_t>(rate * duration.count() / 1000);
    const std::size_t warmUp = messages / 10;
    connector::common::Mutex mutex;
    std::vector<std::int64_t> samples;  // guarded by mutex
    samples.reserve(messages);
    std::atomic<std::size_t> received{0};
    auto subscriber = connected(subscriberFactory.connect("lat" + tag + "-sub", url_));
    auto subscribed = subscriber->subscribe(channel, [&](const ms::JsonMessage& message) {
        const std::int64_t delay = nowNanos() - sentAt(message.getJson());
        if (received.fetch_add(1) >= warmUp) {
            connector::common::MutexLock lock(mutex);
            samples.push_back(delay);
        }
    });
    auto subscription = await(subscribed, 10s, "cannot subscribe");
    auto publisher = connected(publisherFactory.connect("lat" + tag + "-pub", publishUrl_));

    const auto interval = std::chrono::nanoseconds(1000000000 / rate);
    const auto start = Clock::now();
    for (std::size_t i = 0; i < messages; ++i) {
        std::this_thread::sleep_until(start + i * interval);
        publisher->publish(channel, timedPayload(i));
    }
    auto progress = Clock::now();
    std::size_t seen = 0;
    while (received.load() < messages && Clock::now() - progress < kStall) {
        if (received.load() != seen) {
            seen = received.load();
            progress = Clock::now();
        }
        std::this_thread::sleep_for(1ms);
    }
    subscription.reset();
    std::vector<std::shared_ptr<ms::MessageService>> services{subscriber, publisher};
    disconnectAll(services);
    std::vector<std::int64_t> sorted;
    {
        connector::common::MutexLock lock(mutex);
        sorted = samples;
    }
    if (sorted.empty())
        throw Failure("no message arrived from " + url_);
    std::sort(sorted.begin(), sorted.end());
    auto percentile = [&](double p) {
        const auto index = static_cast<std::size_t>(p * static_cast<double>(sorted.size() - 1));
        return static_cast<double>(sorted[index]) / 1000.0;
    };
    return Latency{percentile(0.5), percentile(0.99), sorted.size()};
}

double LoadRunner::memoryPerSession(std::size_t sessions, const ChildProcess& hub) {
    ClientFactory factory;
    const std::string tag = std::to_string(run_++);
    std::vector<std::shared_ptr<ms::MessageService>> services;
    services.reserve(sessions);
    // A first few sessions warm the hub up, so that what is measured is per session.
    for (std::size_t i = 0; i < 10; ++i)
        services.push_back(factory.connect("warm" + tag + "-" + std::to_string(i), url_));
    std::this_thread::sleep_for(500ms);
    const std::size_t before = hub.residentBytes();
    for (std::size_t opened = 0; opened < sessions;) {
        std::vector<connector::Future<std::shared_ptr<ms::MessageService>>> batch;
        for (std::size_t i = 0; i < kOpenAtOnce && opened < sessions; ++i, ++opened)
            batch.push_back(factory.start("idle" + tag + "-" + std::to_string(opened), url_));
        for (auto& future : batch)
            services.push_back(await(future, 30s, "cannot open an idle session"));
    }
    // Every client sends its connect right after its handshake; give the last ones time to land.
    std::this_thread::sleep_for(1s);
    const std::size_t after = hub.residentBytes();
    disconnectAll(services);
    return after > before ? static_cast<double>(after - before) / static_cast<double>(sessions)
                          : 0.0;
}

}  // namespace orvale::app
