#pragma once
// What the rows of bench/client_load share: the phase and row figures, CPU clocks, and a
// countdown of deliveries that any thread may advance.

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>

#include "latency.h"
#include "subprocess.h"

namespace orvale::bench::client_load {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Bound on any one wait: a stalled server ends the run with a message, never a hang.
inline constexpr auto kStallBound = 20s;

inline double seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

using tools::ownCpuSeconds;
using tools::processCpuSeconds;

// One throughput phase of one client.
struct Phase {
    double rate = 0;        // deliveries per second, first publish to last delivery
    double clientCpu = 0;   // CPU seconds of the client over the phase
    double serverCpu = 0;   // CPU seconds of the server over the phase
    double wall = 0;        // seconds of the phase
    long messages = 0;      // published
    double longestGap = 0;  // seconds between two publish answers at most
};

struct Row {
    std::string label;
    Phase oneToOne, oneToFour;
    std::optional<Percentiles> latency;
};

// Counts arrivals from any thread; only the one that completes the count takes the lock.
class Countdown {
  public:
    explicit Countdown(long target) : target_(target) {}
    void arrive(long n = 1) {
        if (count_.fetch_add(n) + n != target_)
            return;
        std::lock_guard<std::mutex> lock(mutex_);
        finished_ = Clock::now();
        done_ = true;
        changed_.notify_all();
    }
    // The time of the last arrival, or nothing when the count was not reached within `bound`.
    std::optional<Clock::time_point> wait(Clock::duration bound) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_for(lock, bound, [&] { return done_; }))
            return std::nullopt;
        return finished_;
    }
    long count() const { return count_.load(); }

  private:
    const long target_;
    std::atomic<long> count_{0};
    std::mutex mutex_;  // guards done_ and finished_
    std::condition_variable changed_;
    bool done_ = false;
    Clock::time_point finished_;
};

// The bare client's rows: Bayeux frames written by hand over blocking Beast WebSockets.
namespace raw {
// Deliveries to `subscribers` of `messages` published on `channel`, at most `window` unanswered.
Phase throughput(const std::string& port, pid_t server, int subscribers, long messages, long window,
                 const std::string& channel);
// Publish -> receive with one message in flight.
Percentiles latency(const std::string& port, int rounds, int warmUp);
}  // namespace raw

}  // namespace orvale::bench::client_load
