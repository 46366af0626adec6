#pragma once
// A Bayeux server that is one member of a cluster: an in-process server whose broadcast
// channels are shared, through NATS, with the servers of other processes.
//
// - A message published here goes to local subscribers as always and, once, to NATS on the
//   channel's subject; members with local subscribers for it inject it into their own server.
//   /meta and /service channels never leave the process.
// - Interest: the member holds one NATS subscription per distinct pattern its sessions subscribe
//   to, counted over sessions, so that NATS sends it only what someone here wants.
// - Subscribe and unsubscribe requests are also sent to the other members, whose servers announce
//   them to their sessions, so that subscription listeners hear the whole cluster.
// - Exactly once: NATS never echoes a member's publishes back; a message that reaches a member
//   through several of its subscriptions (a channel matching two patterns) is injected once, by
//   its publisher's sequence number. The publisher's threads number their messages before they
//   hand them to NATS, so numbers may arrive slightly out of order: a window of recent numbers
//   tells a repeat from a late one.
//
// Thread safety: as any BayeuxServer. `mutex_` guards the interest counts and the sequence
// numbers seen; NATS and the inner server are called without it.

#include <bitset>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>

#include "connector/bayeux/server.h"
#include "connector/common/mutex.h"
#include "nats_link.h"

namespace connector::bayeux::cluster {

class ClusteredServer final : public BayeuxServer {
  public:
    // Joins the cluster at `urls`; throws std::runtime_error when none of them can be reached.
    ClusteredServer(std::shared_ptr<BayeuxServer> inner, std::vector<std::string> urls);
    ~ClusteredServer() override;

    void registerSession(std::weak_ptr<BayeuxSession> session) override;
    void unregisterSession(const std::shared_ptr<BayeuxSession>& session) override;
    void acceptUnsubscribe(std::shared_ptr<const UnsubscribeRequest> request) override;
    void acceptSubscribe(std::shared_ptr<const SubscribeRequest> request) override;
    void acceptPublish(std::shared_ptr<const PublishRequest> request) override;

    std::optional<ClusterStats> clusterStats() const override;

  private:
    void onMessage(std::string_view subject, std::string_view payload);
    // Counts `pattern` for `clientId` up or down; returns the NATS subject whose subscription
    // must be made or dropped, or nothing.
    std::string countInterest(const std::string& clientId, const std::string& pattern, bool add);
    // Makes or drops the NATS subscription a local change calls for, and tells the others.
    void shareChange(const std::string& clientId, const std::string& pattern, bool subscribed);
    void announceToCluster(char kind, const std::string& clientId, const std::string& channel);

    const std::shared_ptr<BayeuxServer> inner_;
    // Names this member in what it sends; random, so restarts never look alike.
    const std::string origin_;
    std::unique_ptr<NatsLink> link_;
    std::atomic<std::uint64_t> sequence_{0};

    mutable common::Mutex mutex_;
    // Sessions subscribed here, per NATS subject of their pattern.
    std::map<std::string, std::size_t> interest_ ORVALE_GUARDED_BY(mutex_);
    // Each local session's patterns, to drop its interest when it goes unannounced.
    std::unordered_map<std::string, std::multiset<std::string>> patternsOf_
        ORVALE_GUARDED_BY(mutex_);
    // The sequence numbers lately injected from one other member.
    class Seen {
      public:
        // True the first time `sequence` is offered; false for a repeat, or for a number too
        // far behind the highest to tell.
        bool first(std::uint64_t sequence);

      private:
        static constexpr std::uint64_t kWindow = 1024;
        std::uint64_t highest_ = 0;
        std::bitset<kWindow> recent_;  // bit n % kWindow for each n seen in the window below
    };
    // Per other member, by origin; std::less<> finds one without making a string.
    std::map<std::string, Seen, std::less<>> seen_ ORVALE_GUARDED_BY(mutex_);
};

}  // namespace connector::bayeux::cluster
