// What the hub counts for its operator: subscriptions and channels, sessions by transport.

#include <algorithm>

#include "hub.h"

namespace connector::bayeux::endpoint {

void Hub::countSubscriptions(const std::vector<std::string>& channels, bool added) {
    if (channels.empty())
        return;
    // A session closed while one of its subscriptions is being made may count that one out
    // before it is counted in: counts go below zero for that moment, and channels are those
    // with a positive count.
    const std::int64_t step = added ? 1 : -1;
    common::MutexLock lock(channelsMutex_);
    for (const std::string& channel : channels) {
        subscriptions_ += step;
        auto it = subscribers_.try_emplace(channel, 0).first;
        const std::int64_t before = it->second;
        it->second += step;
        if (before <= 0 && it->second > 0)
            ++channels_;
        else if (before > 0 && it->second <= 0)
            --channels_;
        if (it->second == 0)
            subscribers_.erase(it);
    }
}

HubFigures Hub::figures() const {
    HubFigures figures;
    {
        common::MutexLock counting(countMutex_);
        const auto now = Clock::now();
        // A probe polling /readyz, or many scrapers, must not walk every session each time.
        if (now - transportCount_.at >= std::chrono::seconds(1)) {
            TransportCount count{now};
            common::ReaderLock lock(mutex_);
            for (const auto& entry : sessions_)
                ++(entry.second->overWebSocket() ? count.webSocket : count.longPolling);
            transportCount_ = count;
        }
        figures.webSocketSessions = transportCount_.webSocket;
        figures.longPollingSessions = transportCount_.longPolling;
    }
    {
        common::ReaderLock lock(mutex_);
        figures.accepting = accepting_ && sessions_.size() < options_.maxSessions;
    }
    {
        common::MutexLock lock(channelsMutex_);
        figures.subscriptions = static_cast<std::size_t>(std::max<std::int64_t>(subscriptions_, 0));
        figures.channels = channels_;
    }
    figures.cluster = server_->clusterStats();
    return figures;
}

std::size_t Hub::sessionCount() const {
    common::ReaderLock lock(mutex_);
    return sessions_.size();
}

}  // namespace connector::bayeux::endpoint
