#pragma once
// The live sessions of each client address, for maxSessionsPerAddress. Every connection from an
// address shares one count, and the sessions made over any of them count themselves out of it
// when they end, as they do out of their connection's count; so a session made over
// long-polling still counts after its connection has closed.
//
// Thread safety: of() may be called from any thread; mutex_ guards the map.

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>

#include "connector/common/mutex.h"
#include "link.h"

namespace connector::bayeux::endpoint {

class AddressSessions {
  public:
    // The count shared by the connections and sessions of `address`.
    std::shared_ptr<ConnectionSessions> of(const std::string& address) {
        common::MutexLock lock(mutex_);
        std::weak_ptr<ConnectionSessions>& entry = counts_[address];
        std::shared_ptr<ConnectionSessions> count = entry.lock();
        if (!count) {
            count = std::make_shared<ConnectionSessions>();
            entry = count;
            pruneLocked();
        }
        return count;
    }

  private:
    // Drops the addresses that nothing holds any more once the map has doubled since it was last
    // pruned, so that it stays within twice the addresses in use.
    void pruneLocked() ORVALE_REQUIRES(mutex_) {
        if (counts_.size() < 2 * kept_)
            return;
        for (auto it = counts_.begin(); it != counts_.end();)
            it = it->second.expired() ? counts_.erase(it) : std::next(it);
        kept_ = std::max<std::size_t>(counts_.size(), kLeastKept);
    }

    static constexpr std::size_t kLeastKept = 64;

    common::Mutex mutex_;
    std::unordered_map<std::string, std::weak_ptr<ConnectionSessions>> counts_
        ORVALE_GUARDED_BY(mutex_);
    std::size_t kept_ ORVALE_GUARDED_BY(mutex_) = kLeastKept;
};

}  // namespace connector::bayeux::endpoint
