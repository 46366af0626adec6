#pragma once
// The load of `orvale bench --cluster` made by bare clients: Bayeux frames written and counted
// by hand over one WebSocket each, so that on a shared machine the cores go to the servers
// under test rather than to their clients decoding every message into objects.
//
// Thread safety: one run at a time, from one thread; each subscriber reads on a thread of its
// own for the length of a run.

#include <cstddef>
#include <string>

namespace orvale::app {

class BareLoad {
  public:
    // Subscribers connect to `url`, the publisher to `publishUrl`; `window`: publishes that
    // may be unanswered at once.
    BareLoad(std::string url, std::string publishUrl, std::size_t window);

    // One publisher sends `messages` in frames of up to kBatch as fast as the window allows;
    // returns deliveries per second over all `subscribers`, from the first publish to the last
    // delivery. Failure when a delivery is missing or nothing arrives for seconds.
    double throughput(std::size_t subscribers, std::size_t messages);

    static constexpr std::size_t kBatch = 32;

  private:
    std::string url_, publishUrl_;
    std::size_t window_;
    std::size_t run_ = 0;  // makes channels unique across runs
};

}  // namespace orvale::app
