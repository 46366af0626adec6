#pragma once
// A cumulative histogram of whole-number observations (nanoseconds, queue lengths) over fixed
// upper bounds, readable while it is being written.
//
// Writers add with relaxed atomics; a writer with many observations at once (every delivery of
// one frame, say) tallies them in a Batch first and adds the batch in one step, so the shared
// counters are touched once per bucket used, not once per observation. A reader sees recent
// values that need not agree with each other exactly; the exposition makes its buckets
// cumulative itself. Any thread may observe and read.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace connector::bayeux::endpoint {

template <std::size_t N>
class Histogram {
  public:
    using Bounds = std::array<std::uint64_t, N>;

    // Observations tallied by one writer before they are added.
    class Batch {
      public:
        explicit Batch(const Histogram& histogram) : bounds_(histogram.bounds_) {}
        void observe(std::uint64_t value) {
            ++buckets_[bucketOf(bounds_, value)];
            ++count_;
            sum_ += value;
        }
        bool empty() const { return count_ == 0; }

      private:
        friend class Histogram;
        const Bounds& bounds_;
        std::array<std::uint64_t, N + 1> buckets_{};
        std::uint64_t count_ = 0;
        std::uint64_t sum_ = 0;
    };

    explicit Histogram(const Bounds& bounds) : bounds_(bounds) {}

    void observe(std::uint64_t value) {
        buckets_[bucketOf(bounds_, value)].fetch_add(1, std::memory_order_relaxed);
        count_.fetch_add(1, std::memory_order_relaxed);
        sum_.fetch_add(value, std::memory_order_relaxed);
    }

    void add(const Batch& batch) {
        if (batch.empty())
            return;
        for (std::size_t i = 0; i <= N; ++i)
            if (batch.buckets_[i] != 0)
                buckets_[i].fetch_add(batch.buckets_[i], std::memory_order_relaxed);
        count_.fetch_add(batch.count_, std::memory_order_relaxed);
        sum_.fetch_add(batch.sum_, std::memory_order_relaxed);
    }

    const Bounds& bounds() const { return bounds_; }
    // Observations at most bounds()[i] and above the bound before; index N counts the rest.
    std::uint64_t bucket(std::size_t i) const {
        return buckets_[i].load(std::memory_order_relaxed);
    }
    std::uint64_t count() const { return count_.load(std::memory_order_relaxed); }
    std::uint64_t sum() const { return sum_.load(std::memory_order_relaxed); }

  private:
    static std::size_t bucketOf(const Bounds& bounds, std::uint64_t value) {
        std::size_t i = 0;
        while (i < N && value > bounds[i])
            ++i;
        return i;
    }

    const Bounds bounds_;
    std::array<std::atomic<std::uint64_t>, N + 1> buckets_{};
    std::atomic<std::uint64_t> count_{0};
    std::atomic<std::uint64_t> sum_{0};
};

}  // namespace connector::bayeux::endpoint
