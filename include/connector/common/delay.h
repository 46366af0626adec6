#pragma once
// One-shot timers on one timer thread per process.
//
// Thread safety: delay() may be called from any thread, callbacks included; callbacks run on the
// timer thread. A Canceller is used by one thread at a time.

#include <cstdint>
#include <functional>

namespace connector::common {

class TickManager {
  public:
    // Cancels its timer when destroyed or when cancel() is called. Once cancel() returns the
    // callback will not start, and a callback already running has finished.
    class Canceller {
      public:
        Canceller() = default;
        Canceller(std::uint32_t slot, std::uint64_t generation)
            : slot_(slot), generation_(generation) {}
        Canceller(Canceller&& other) noexcept;
        Canceller& operator=(Canceller&& other) noexcept;
        Canceller(const Canceller&) = delete;
        Canceller& operator=(const Canceller&) = delete;
        ~Canceller() { cancel(); }

        // True when this call stopped the timer before it fired.
        bool cancel();

      private:
        std::uint32_t slot_ = 0;
        std::uint64_t generation_ = 0;  // 0: nothing to cancel
    };
};

// Calls `fn` with the scheduled time (milliseconds since the timer started) after `delayMs`
// milliseconds, on the timer thread, with no timer lock held.
TickManager::Canceller delay(std::function<void(std::int64_t)> fn, std::int64_t delayMs);

}  // namespace connector::common
