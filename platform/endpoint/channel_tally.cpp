// Publishes counted by channel in a bounded table that lets a newly busy channel displace the
// least counted one.

#include "channel_tally.h"

#include <algorithm>
#include <functional>

namespace connector::bayeux::endpoint {

ChannelTally::ChannelTally() : shards_(std::make_unique<Shard[]>(kShards)) {}

ChannelTally::~ChannelTally() = default;

void ChannelTally::count(std::string_view channel, std::uint64_t times) {
    if (channel.size() > kLongestName) {
        untracked_.fetch_add(times, std::memory_order_relaxed);
        return;
    }
    const std::uint64_t hash = std::hash<std::string_view>()(channel);
    Shard& shard = shards_[hash % kShards];
    common::MutexLock lock(shard.mutex);
    for (std::size_t i = 0; i < shard.used; ++i)
        if (shard.hashes[i] == hash && shard.entries[i].channel == channel) {
            shard.entries[i].count += times;
            return;
        }
    std::size_t slot = shard.used;
    std::uint64_t inherited = 0;
    if (slot < kPerShard) {
        ++shard.used;
    } else {
        slot = 0;
        for (std::size_t i = 1; i < kPerShard; ++i)
            if (shard.entries[i].count < shard.entries[slot].count)
                slot = i;
        inherited = shard.entries[slot].count;
    }
    shard.hashes[slot] = hash;
    Entry& entry = shard.entries[slot];
    entry.channel.assign(channel);
    entry.count = inherited + times;
    entry.overcount = inherited;
}

std::vector<ChannelTally::Entry> ChannelTally::busiest(std::size_t n) const {
    std::vector<Entry> entries;
    for (std::size_t s = 0; s < kShards; ++s) {
        const Shard& shard = shards_[s];
        common::MutexLock lock(shard.mutex);
        entries.insert(entries.end(), shard.entries, shard.entries + shard.used);
    }
    const std::size_t keep = std::min(n, entries.size());
    std::partial_sort(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(keep),
                      entries.end(), [](const Entry& a, const Entry& b) {
                          return a.count != b.count ? a.count > b.count : a.channel < b.channel;
                      });
    entries.resize(keep);
    return entries;
}

}  // namespace connector::bayeux::endpoint
