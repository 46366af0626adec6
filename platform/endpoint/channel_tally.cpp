// Publishes counted by channel in a fixed table of lock-free slots.

#include "channel_tally.h"

#include <algorithm>
#include <functional>

namespace connector::bayeux::endpoint {

namespace {

// Slots tried after the one a channel hashes to.
constexpr std::size_t kProbes = 8;

}  // namespace

ChannelTally::ChannelTally() : slots_(std::make_unique<Slot[]>(kSlots)) {}

ChannelTally::~ChannelTally() {
    for (std::size_t i = 0; i < kSlots; ++i)
        delete slots_[i].name.load(std::memory_order_relaxed);
}

void ChannelTally::count(std::string_view channel, std::uint64_t times) {
    if (channel.size() > kLongestName) {
        untracked_.fetch_add(times, std::memory_order_relaxed);
        return;
    }
    // Never 0, which marks a free slot.
    const std::uint64_t hash = std::hash<std::string_view>()(channel) | 1;
    for (std::size_t probe = 0; probe <= kProbes; ++probe) {
        Slot& slot = slots_[(hash + probe) & (kSlots - 1)];
        std::uint64_t seen = slot.hash.load(std::memory_order_acquire);
        if (seen == 0 && slot.hash.compare_exchange_strong(seen, hash, std::memory_order_acq_rel)) {
            slot.name.store(new std::string(channel), std::memory_order_release);
            seen = hash;
        }
        if (seen != hash)
            continue;
        // A slot claimed a moment ago may not show its name yet: the claimant's channel is
        // almost surely this one, since the hashes agree.
        const std::string* name = slot.name.load(std::memory_order_acquire);
        if (name == nullptr || *name == channel) {
            slot.count.fetch_add(times, std::memory_order_relaxed);
            return;
        }
    }
    untracked_.fetch_add(times, std::memory_order_relaxed);
}

std::vector<ChannelTally::Entry> ChannelTally::busiest(std::size_t n) const {
    std::vector<Entry> entries;
    for (std::size_t i = 0; i < kSlots; ++i) {
        const std::string* name = slots_[i].name.load(std::memory_order_acquire);
        const std::uint64_t count = slots_[i].count.load(std::memory_order_relaxed);
        if (name != nullptr && count != 0)
            entries.push_back(Entry{*name, count});
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
