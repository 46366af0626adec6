#pragma once
// The pause before the listener accepts again after a failed accept. Out of descriptors, an
// accept fails at once every time it is tried, so the pause doubles with each failure in a row,
// up to a cap; one success ends the episode and the next failure starts from the shortest pause
// again. The listener logs only an episode's first failure and its end.
//
// Used on the listener's thread only.

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace connector::bayeux::endpoint {

class AcceptBackoff {
  public:
    static constexpr std::chrono::milliseconds kFirst{10};
    static constexpr std::chrono::milliseconds kMost{2000};

    // Records a failure; returns the pause before the next accept.
    std::chrono::milliseconds failed() {
        ++failures_;
        const std::chrono::milliseconds pause = next_;
        next_ = std::min(next_ * 2, kMost);
        return pause;
    }

    // Records a success; returns how many failures in a row it ends (0: none).
    std::uint64_t succeeded() {
        next_ = kFirst;
        const std::uint64_t ended = failures_;
        failures_ = 0;
        return ended;
    }

    std::uint64_t failures() const { return failures_; }

  private:
    std::chrono::milliseconds next_ = kFirst;
    std::uint64_t failures_ = 0;
};

}  // namespace connector::bayeux::endpoint
