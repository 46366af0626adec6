#pragma once
// Publishes counted by channel, for an operator who asks which channels are busiest.
//
// Counting is lock-free, since every publish passes here: a fixed table of slots, each claimed
// once by the first channel that hashes to it (or to a few neighbours) and counted with a
// relaxed atomic. The table never grows, so a flood of distinct channel names costs a bounded
// amount of memory: channels that find no slot, and names too long to keep, are counted
// together as untracked. Names stay until the tally is destroyed.
//
// Thread safety: count() and busiest() may be called from any thread at once.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace connector::bayeux::endpoint {

class ChannelTally {
  public:
    static constexpr std::size_t kSlots = 1024;  // a power of two
    static constexpr std::size_t kLongestName = 256;

    ChannelTally();
    ~ChannelTally();
    ChannelTally(const ChannelTally&) = delete;
    ChannelTally& operator=(const ChannelTally&) = delete;

    void count(std::string_view channel, std::uint64_t times = 1);

    struct Entry {
        std::string channel;
        std::uint64_t count = 0;
    };
    // The `n` channels with the most publishes, most first.
    std::vector<Entry> busiest(std::size_t n) const;
    std::uint64_t untracked() const { return untracked_.load(std::memory_order_relaxed); }

  private:
    struct Slot {
        std::atomic<std::uint64_t> hash{0};             // 0: free
        std::atomic<const std::string*> name{nullptr};  // set just after the hash is claimed
        std::atomic<std::uint64_t> count{0};
    };

    std::unique_ptr<Slot[]> slots_;
    std::atomic<std::uint64_t> untracked_{0};
};

}  // namespace connector::bayeux::endpoint
