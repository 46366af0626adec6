#pragma once
// Publishes counted by channel, for an operator who asks which channels are busiest.
//
// The tally keeps at most kSlots channels, so a flood of distinct channel names costs a bounded
// amount of memory. When a shard is full, a channel it does not hold takes the place of the one
// counted least, and inherits that count, so that newcomers can still climb into view: a
// channel that carries more than 1/kPerShard of its shard's publishes is always shown, and a
// shown count exceeds the truth by at most its `overcount`. Names longer than kLongestName
// are counted together as untracked.
//
// Thread safety: count() and busiest() may be called from any thread at once. Channels are
// spread over kShards shards by hash, each guarded by its own mutex, so that the hub's I/O
// threads rarely meet; no lock is held while anything outside the tally runs.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "connector/common/mutex.h"

namespace connector::bayeux::endpoint {

class ChannelTally {
  public:
    static constexpr std::size_t kShards = 16;
    static constexpr std::size_t kPerShard = 64;
    static constexpr std::size_t kSlots = kShards * kPerShard;
    static constexpr std::size_t kLongestName = 256;

    ChannelTally();
    ~ChannelTally();
    ChannelTally(const ChannelTally&) = delete;
    ChannelTally& operator=(const ChannelTally&) = delete;

    void count(std::string_view channel, std::uint64_t times = 1);

    struct Entry {
        std::string channel;
        std::uint64_t count = 0;
        // How much of `count` may belong to the channels this one displaced.
        std::uint64_t overcount = 0;
    };
    // The `n` channels with the most publishes, most first.
    std::vector<Entry> busiest(std::size_t n) const;
    std::uint64_t untracked() const { return untracked_.load(std::memory_order_relaxed); }

  private:
    struct Shard {
        mutable common::Mutex mutex;
        std::size_t used ORVALE_GUARDED_BY(mutex) = 0;
        // Beside the entries, so that a lookup scans one small array.
        std::uint64_t hashes[kPerShard] ORVALE_GUARDED_BY(mutex) = {};
        Entry entries[kPerShard] ORVALE_GUARDED_BY(mutex);
    };

    std::unique_ptr<Shard[]> shards_;
    std::atomic<std::uint64_t> untracked_{0};
};

}  // namespace connector::bayeux::endpoint
