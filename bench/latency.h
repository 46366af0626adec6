#pragma once
// Latency measurement shared by the load benchmarks: percentiles of samples, and publish ->
// callback rounds between two message services with one message in flight.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "connector/message_service.h"

namespace orvale::bench {

struct Percentiles {
    double p50 = 0, p99 = 0;
};

inline Percentiles percentiles(std::vector<double> samples) {
    if (samples.empty())
        return {};
    std::sort(samples.begin(), samples.end());
    return {samples[samples.size() / 2], samples[samples.size() * 99 / 100]};
}

// Subscribes `subscriber` to `channel`, then `rounds` times publishes from `publisher` and waits
// for the callback; returns the microseconds of each round. A subscription or a round taking
// longer than `bound` throws, so a stalled peer ends the run instead of hanging it.
inline std::vector<double> publishToCallbackMicros(
    connector::message_service::MessageService& publisher,
    connector::message_service::MessageService& subscriber, const std::string& channel, int rounds,
    std::chrono::steady_clock::duration bound) {
    using Clock = std::chrono::steady_clock;
    std::mutex mutex;
    std::condition_variable cv;
    bool arrived = false;  // guarded by mutex, like sent and samples
    Clock::time_point sent;
    std::vector<double> samples;
    samples.reserve(static_cast<std::size_t>(std::max(rounds, 0)));
    auto subscribed =
        subscriber.subscribe(channel, [&](const connector::message_service::JsonMessage&) {
            const auto now = Clock::now();
            std::lock_guard<std::mutex> lock(mutex);
            samples.push_back(std::chrono::duration<double, std::micro>(now - sent).count());
            arrived = true;
            cv.notify_one();
        });
    if (!subscribed.waitFor(std::chrono::duration_cast<std::chrono::milliseconds>(bound)))
        throw std::runtime_error("latency: subscribing to " + channel + " timed out");
    const auto handle = subscribed.get();
    for (int i = 0; i < rounds; ++i) {
        std::unique_lock<std::mutex> lock(mutex);
        arrived = false;
        sent = Clock::now();
        lock.unlock();
        publisher.publish(channel, "1");
        lock.lock();
        if (!cv.wait_for(lock, bound, [&] { return arrived; }))
            throw std::runtime_error("latency: no delivery on " + channel + " in a round");
    }
    std::lock_guard<std::mutex> lock(mutex);
    return samples;
}

}  // namespace orvale::bench
