#pragma once
// The in-process Bayeux server and the sessions that take part in it.
//
// Sessions register by weak reference. Subscribe and unsubscribe requests name their session by
// client id; each is recorded in the channel tree at once and then announced to every registered
// session (but a hub's own sessions of remote clients, which have no use for them). A published
// message is matched at once against the tree and queued for each matching session; deliveries run
// on the server's own threads, never under its locks, in publication order for each (publisher,
// subscriber) pair.
//
// Thread safety: a BayeuxServer may be called from any thread at once, also from inside a
// session's deliver. It calls a session's deliver on its delivery threads, never under a lock.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "connector/bayeux/messages.h"

namespace connector::bayeux {

class BayeuxSession {
  public:
    virtual ~BayeuxSession() = default;
    virtual std::shared_ptr<common::ContextState> getContext() = 0;
    virtual std::string getId() = 0;
    virtual void deliver(const std::shared_ptr<const UnsubscribeRequest>& request) = 0;
    virtual void deliver(const std::shared_ptr<const SubscribeRequest>& request) = 0;
    // `channels` lists each of this session's patterns that matched the published channel once.
    virtual void deliver(const std::vector<std::string>& channels,
                         const std::shared_ptr<const PublishRequest>& request) = 0;
};

// A cluster member's link to the others, since it joined.
struct ClusterStats {
    bool connected = false;       // false while the link is down and reconnecting
    std::uint64_t published = 0;  // channels' messages sent to the other members
    std::uint64_t received = 0;   // what NATS delivered from the others
    // Sent while the link was down, beyond its reconnect buffer, or larger than NATS accepts.
    std::uint64_t lost = 0;
    std::uint64_t reconnects = 0;  // outages the link came back from
    std::size_t members = 0;       // other members heard from lately
    // What NATS dropped of the others' messages because this member read them too slowly; its
    // unit is `received`'s.
    std::uint64_t dropped = 0;
};

class BayeuxServer {
  public:
    virtual ~BayeuxServer() = default;
    // The link of a server that is a member of a cluster; nothing for one that is not.
    virtual std::optional<ClusterStats> clusterStats() const { return std::nullopt; }
    virtual void registerSession(std::weak_ptr<BayeuxSession> session) = 0;
    // Drops the session and every subscription it still holds, without announcing them.
    virtual void unregisterSession(const std::shared_ptr<BayeuxSession>& session) = 0;
    virtual void acceptUnsubscribe(std::shared_ptr<const UnsubscribeRequest> request) = 0;
    virtual void acceptSubscribe(std::shared_ptr<const SubscribeRequest> request) = 0;
    virtual void acceptPublish(std::shared_ptr<const PublishRequest> request) = 0;
    // Whether the subscriptions accepted so far may still be unknown where messages for them
    // are published: a cluster member's others learn of a new one a moment later. When so, it
    // returns true and calls `done` once they all know it, or once a member has been waited for
    // too long; `done` runs on a thread of the server's, under none of its locks. A server alone
    // returns false and never calls `done`. A client answered only after `done` misses none of
    // the messages published after its answer, wherever they are published.
    virtual bool whenSubscriptionsShared(std::function<void()> done) {
        (void)done;
        return false;
    }
};

struct BayeuxServerOptions {
    // Delivery threads; 0 picks one per core, at most 4.
    std::size_t threads = 0;
    // NATS servers (nats://host:port) of a cluster to join: the broadcast channels of every
    // server in the cluster are then shared, as if they were one server. Empty: none.
    std::vector<std::string> clusterUrls{};
};

// A server delivering on threads of its own. Destroying it delivers what was accepted for live
// sessions, then stops and joins its threads. Throws std::runtime_error when a cluster is named
// and none of its servers can be reached.
std::shared_ptr<BayeuxServer> makeBayeuxServer(BayeuxServerOptions options = {});

}  // namespace connector::bayeux
