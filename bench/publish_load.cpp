// End-to-end load of the in-process path: server service publish -> Bayeux server -> server
// service callback, beside bare baselines measured in the same run on the same machine:
// a mutex + condition-variable queue between two threads, and a condition-variable ping-pong.
// Prints one table; nothing here asserts a figure.

#include <algorithm>
#include <atomic>
#include <boost/log/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "allocation_counter.h"
#include "connector/message_service.h"
#include "latency.h"

namespace {

using namespace connector;
using namespace connector::message_service;
using orvale::bench::Percentiles;
using orvale::bench::percentiles;
using orvale::bench::publishToCallbackMicros;
using Clock = std::chrono::steady_clock;

double seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

// Discards records; stands for a host's sink so that enabled log lines are really built.
class NullBackend
    : public boost::log::sinks::basic_sink_backend<boost::log::sinks::concurrent_feeding> {
  public:
    void consume(const boost::log::record_view&) {}
};

// Bare baseline: items/s through a mutex + condition-variable queue between two threads.
double bareQueueRate(long items) {
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<long> queue;
    bool waiting = false;
    long received = 0;
    const auto start = Clock::now();
    std::thread consumer([&] {
        std::deque<long> batch;
        while (received < items) {
            {
                std::unique_lock<std::mutex> lock(mutex);
                waiting = true;
                ready.wait(lock, [&] { return !queue.empty(); });
                waiting = false;
                batch.swap(queue);
            }
            received += static_cast<long>(batch.size());
            batch.clear();
        }
    });
    for (long i = 0; i < items; ++i) {
        std::lock_guard<std::mutex> lock(mutex);
        queue.push_back(i);
        if (waiting)
            ready.notify_one();
    }
    consumer.join();
    return items / seconds(Clock::now() - start);
}

// Bare baseline: one-way handoff latency of a condition-variable ping-pong, in microseconds.
Percentiles barePingPong(int rounds) {
    std::mutex mutex;
    std::condition_variable cv;
    int turn = 0;  // 0: main thread's turn to send, 1: in flight
    Clock::time_point sent;
    std::vector<double> samples;
    samples.reserve(rounds);
    std::thread echo([&] {
        for (int i = 0; i < rounds; ++i) {
            std::unique_lock<std::mutex> lock(mutex);
            cv.wait(lock, [&] { return turn == 1; });
            samples.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
            turn = 0;
            cv.notify_all();
        }
    });
    for (int i = 0; i < rounds; ++i) {
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [&] { return turn == 0; });
        sent = Clock::now();
        turn = 1;
        cv.notify_all();
    }
    echo.join();
    return percentiles(samples);
}

struct Setup {
    std::shared_ptr<bayeux::BayeuxServer> server = bayeux::makeBayeuxServer();
    std::shared_ptr<MessageServiceFactoryServerDelegate> delegate =
        std::make_shared<MessageServiceFactoryServerDelegate>(server);
    std::shared_ptr<MessageService> service(const std::string& name) {
        return delegate->createMessageService(name, {}).get();
    }
};

// Deliveries per second with `publishers` threads (one service each) and `subscribers` services.
double throughput(int publishers, int subscribers, long perPublisher, long* allocationsPerMessage) {
    Setup setup;
    std::atomic<long> delivered{0};
    std::vector<std::shared_ptr<MessageService>> subs;
    std::vector<std::shared_ptr<Subscription>> handles;
    for (int s = 0; s < subscribers; ++s) {
        subs.push_back(setup.service("sub" + std::to_string(s)));
        handles.push_back(subs.back()
                              ->subscribe("/b", [&](const JsonMessage&) { delivered.fetch_add(1); })
                              .get());
    }
    std::vector<std::shared_ptr<MessageService>> pubs;
    for (int p = 0; p < publishers; ++p)
        pubs.push_back(setup.service("pub" + std::to_string(p)));
    const long expected = perPublisher * publishers * subscribers;
    const std::string payload = "{\"n\":12345}";

    if (allocationsPerMessage)
        orvale::bench::startCountingAllocations();
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int p = 0; p < publishers; ++p)
        threads.emplace_back([&, p] {
            for (long i = 0; i < perPublisher; ++i)
                pubs[p]->publish("/b", std::string(payload));
        });
    for (auto& t : threads)
        t.join();
    while (delivered.load() < expected)
        std::this_thread::yield();
    const double elapsed = seconds(Clock::now() - start);
    if (allocationsPerMessage) {
        // The payload's own std::string is one allocation per publish; it is not counted.
        const long messages = perPublisher * publishers;
        const auto counted = static_cast<long>(orvale::bench::stopCountingAllocations());
        *allocationsPerMessage = counted / messages - 1;
    }
    return expected / elapsed;
}

// Publish -> callback latency, one message in flight at a time, in microseconds.
Percentiles latency(int rounds) {
    Setup setup;
    auto pub = setup.service("pub");
    auto sub = setup.service("sub");
    return percentiles(
        publishToCallbackMicros(*pub, *sub, "/lat", rounds, std::chrono::seconds(20)));
}

void run(const char* label, long messages, int rounds) {
    long allocs = 0;
    const double oneToOne = throughput(1, 1, messages, &allocs);
    const double oneToFour = throughput(1, 4, messages / 4, nullptr);
    const double fourToFour = throughput(4, 4, messages / 8, nullptr);
    const auto lat = latency(rounds);
    std::printf("%-28s %12.0f %12.0f %12.0f %9.1f %9.1f %8ld\n", label, oneToOne, oneToFour,
                fourToFour, lat.p50, lat.p99, allocs);
}

}  // namespace

int main(int argc, char** argv) {
    const long messages = argc > 1 ? std::atol(argv[1]) : 1000000;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 20000;
    std::printf("%-28s %12s %12s %12s %9s %9s %8s\n", "deliveries/s, latency us", "1->1", "1->4",
                "4->4", "p50", "p99", "allocs");
    const double queue = bareQueueRate(messages * 4);
    const auto pingPong = barePingPong(rounds);
    std::printf("%-28s %12.0f %12s %12s %9.1f %9.1f %8s\n", "bare cv queue / ping-pong", queue, "-",
                "-", pingPong.p50, pingPong.p99, "-");

    foundation::log::setEnabledMask(foundation::log::warning | foundation::log::error);
    run("orvale, routine log off", messages, rounds);

    auto sink = boost::make_shared<boost::log::sinks::synchronous_sink<NullBackend>>();
    boost::log::core::get()->add_sink(sink);
    foundation::log::setEnabledMask(foundation::log::trace | foundation::log::warning |
                                    foundation::log::error);
    run("orvale, routine log on", messages / 10, rounds / 4);
    boost::log::core::get()->remove_sink(sink);
    return 0;
}
