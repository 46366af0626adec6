#pragma once
// Which of one kind of repeated event to log: the first, and each that doubles the count, so
// that a flood of them, which a peer may cause at will, costs a few lines, each with the count
// so far.
//
// Thread safety: any thread.

#include <atomic>
#include <cstdint>

namespace connector::common {

class DoublingLog {
  public:
    // Counts one more event; the count so far when this one is to be logged, else 0.
    std::uint64_t next() {
        const std::uint64_t n = count_.fetch_add(1, std::memory_order_relaxed) + 1;
        return (n & (n - 1)) == 0 ? n : 0;
    }

  private:
    std::atomic<std::uint64_t> count_{0};
};

}  // namespace connector::common
