#pragma once
// What the rows of bench/client_load share: the phase and row figures, CPU clocks, and a
// countdown of deliveries that any thread may advance.

#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>

#include "latency.h"

namespace orvale::bench::client_load {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Bound on any one wait: a stalled server ends the run with a message, never a hang.
inline constexpr auto kStallBound = 20s;

inline double seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

// User + system CPU seconds of this process, every thread.
inline double ownCpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    auto toSeconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return toSeconds(usage.ru_utime) + toSeconds(usage.ru_stime);
}

// User + system CPU seconds another process has used so far, from /proc/<pid>/stat.
inline double processCpuSeconds(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(file)), {});
    // The command name is parenthesised and may hold spaces; utime and stime are the 14th and
    // 15th fields, the 12th and 13th after it.
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;
    long user = 0, system = 0;
    fields >> user >> system;
    return static_cast<double>(user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

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
