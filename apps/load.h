#pragma once
// The load of `orvale bench`, made by client message services against any Bayeux endpoint:
// deliveries per second with one publisher and one or four subscribers, latency at a fixed
// publication rate, and the hub's memory per idle session.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace orvale::app {

class ChildProcess;

struct Latency {
    double p50Micros = 0;
    double p99Micros = 0;
    std::size_t samples = 0;
};

// A load run gives up once nothing has arrived for this long.
inline constexpr std::chrono::seconds kStall{10};
// How far a publisher may run ahead of its slowest subscriber: a server drops the oldest
// messages of a session that falls too far behind (orvale at 10,000 by default), and a run
// measures deliveries, not drops.
inline constexpr std::size_t kMostAhead = 5000;

// Keeps a publisher at most kMostAhead ahead of its slowest subscriber, and fails the run once
// that subscriber has not moved for kStall. Used by the thread that publishes.
class Pace {
  public:
    // `url` and `messages` name the run in the failure.
    Pace(std::string url, std::size_t messages) : url_(std::move(url)), messages_(messages) {}
    // True while `published` is kMostAhead ahead of `least`, the slowest subscriber's count.
    bool behind(std::size_t published, std::size_t least);

  private:
    std::string url_;
    std::size_t messages_;
    std::size_t slowest_ = 0;
    std::chrono::steady_clock::time_point moved_ = std::chrono::steady_clock::now();
};

// The steady clock in nanoseconds, as the payloads carry it.
std::int64_t nowNanos();
// {"seq":N,"t":T}, T the steady clock in nanoseconds, written in place: this runs for every
// message of a run, on the cores the servers under test share.
std::string timedPayload(std::size_t seq);
// The same, appended to `out`.
void appendTimedPayload(std::string& out, std::size_t seq);
// A Failure unless `got` deliveries from `from` are the `expected` ones: fewer were lost, more
// came twice.
void expectDeliveries(std::size_t got, std::size_t expected, const std::string& from);

class LoadRunner {
  public:
    // `window`: publishes that may be unanswered at once in a throughput run. The client
    // service matches each answer against its pending requests one by one, so a deep window
    // costs the load more than the hub. Publishers connect to `publishUrl` when one is given,
    // so that their messages cross to the subscribers' hub.
    LoadRunner(std::string url, std::size_t window, std::string publishUrl = {});
    ~LoadRunner();

    // One publisher sends `messages` as fast as the window of unanswered publishes allows;
    // returns deliveries per second over all `subscribers`, from the first publish to the last
    // delivery.
    double throughput(std::size_t subscribers, std::size_t messages);
    // One publisher at `rate` messages per second for `duration`, one subscriber; the first
    // tenth of the run warms up and is not counted.
    Latency latency(std::size_t rate, std::chrono::milliseconds duration);
    // Opens `sessions` idle client services, each with its connect held by the hub, and returns
    // the growth of `hub`'s resident memory divided by `sessions`.
    double memoryPerSession(std::size_t sessions, const ChildProcess& hub);

  private:
    std::string url_;
    std::size_t window_;
    std::string publishUrl_;
    std::size_t run_ = 0;  // makes service names unique across runs
};

}  // namespace orvale::app
