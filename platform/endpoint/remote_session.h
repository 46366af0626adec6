#pragma once
// One remote Bayeux client as a session of the in-process server.
//
// The session outlives any one connection: a client may handshake over long-polling and go on
// over a WebSocket, so the session only keeps weak references to the link its deliveries go to
// (the WebSocket that sent its latest connect) and to the link holding its connect.
//
// Deliveries from the server are queued here, on the publishing thread (see QueueingSession),
// bounded both in number and in bytes (the size each takes in a frame); when a slow client lets
// the queue fill, the oldest messages are dropped to make room (counted, with one warning per
// episode), and the next answer to a connect tells the client how many it lost. A WebSocket link
// is woken once and takes everything queued when its socket is free, so one frame carries many
// messages; a long-polling client gets them with its held connect.
//
// The server is called (acceptSubscribe, acceptUnsubscribe, unregisterSession) in the order the
// changes were recorded, never under the lock: changes are queued under `mutex_` and run by
// runServerCalls() on whichever thread finds nobody else running them.
//
// Under `mutex_` the session only posts to links (Link's calls never block); it calls no
// listener, promise or server, so that none of them can wait on the session.
//
// A session is bound to its owner: the WebSocket connection it was handshaken over, if any, and
// the browser id (cookie) of the client that made it. Both are fixed at the handshake, so
// admits() reads them without the lock.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "../server/queueing_session.h"
#include "connector/bayeux/server.h"
#include "connector/common/mutex.h"
#include "gauges.h"
#include "link.h"

namespace connector::bayeux::endpoint {

using Clock = std::chrono::steady_clock;
using Delivery = std::shared_ptr<const PublishRequest>;

struct QueueBounds {
    std::size_t messages = 1;
    std::size_t bytes = 1;
    std::shared_ptr<Gauges> gauges;  // counts what every session drops; may be null
};

class RemoteSession final : public BayeuxSession,
                            public QueueingSession,
                            public std::enable_shared_from_this<RemoteSession> {
  public:
    struct Owner {
        std::uint64_t connection = 0;  // the WebSocket it was handshaken over; 0: none
        std::string browser;           // the browser id of the client that made it
        // The count of the connection it was handshaken over, which it leaves when it ends.
        std::shared_ptr<ConnectionSessions> madeBy;
        // With maxSessionsPerAddress: its client's address, whose count in
        // Gauges::sessionsByAddress it leaves the same way.
        std::string address;
    };

    // The registration with the server is the first queued server call.
    RemoteSession(std::string id, Owner owner, QueueBounds bounds, Clock::time_point now);

    // BayeuxSession
    std::shared_ptr<common::ContextState> getContext() override;
    std::string getId() override { return id_; }
    void deliver(const std::shared_ptr<const UnsubscribeRequest>&) override {}
    void deliver(const std::shared_ptr<const SubscribeRequest>&) override {}
    void deliver(const std::vector<std::string>&,
                 const std::shared_ptr<const PublishRequest>& request) override {
        queuePublish(request);
    }

    // QueueingSession: the server calls this on the publishing thread.
    void queuePublish(const std::shared_ptr<const PublishRequest>& request) override;
    bool hearsSubscriptions() const override { return false; }

    const std::string& id() const { return id_; }

    // Whether a request that came over `connection`, carrying the issued browser ids `browser`
    // and `otherBrowser` (either may be empty), may act for this session.
    bool admits(std::uint64_t connection, std::string_view browser,
                std::string_view otherBrowser = {}) const;
    // Whether it was handshaken over a WebSocket, and is bound to it.
    bool boundToConnection() const { return owner_.connection != 0; }
    // True the first time only: a WebSocket without the session's cookie is closed for the
    // client to come back with it once; after that it is refused, so that a client that keeps no
    // cookies handshakes again instead of coming back for ever.
    bool firstCloseForCookie() { return !closedForCookie_.exchange(true); }

    enum class ConnectAnswer { Now, Held, Closed };
    // A /meta/connect with message id `id` arrived over `link`. A WebSocket link becomes the
    // target of deliveries; a long-polling one stops any WebSocket target. An older held
    // connect is answered (Replaced). The new one is held until `holdFor` passes unless
    // `holdFor` is zero or, over long-polling, deliveries are already waiting (Now). `token`
    // receives the number the link will see again in connectReleased.
    ConnectAnswer connect(const std::shared_ptr<Link>& link, bool webSocket, std::string id,
                          std::chrono::milliseconds holdFor, Clock::time_point now,
                          std::uint64_t& token);

    // Moves the queued deliveries into `out`. A WebSocket link gets them only while it is the
    // session's target; `answeringConnect` takes them for a long-polling connect answer.
    void takeDeliveries(const std::shared_ptr<Link>& link, bool answeringConnect,
                        std::vector<Delivery>& out);

    // Full: the session already holds `most` subscriptions, and this one is not among them.
    enum class Change { Done, Unchanged, Closed, Full };
    // Record a subscription change and queue the server call that makes it.
    Change subscribe(const std::string& channel, std::size_t most);
    Change unsubscribe(const std::string& channel);

    // What close() took away: the messages still queued and the subscriptions.
    struct Ending {
        std::size_t discarded = 0;
        std::vector<std::string> subscriptions;
    };
    // Ends the session: answers a held connect (for `reason`), drops the queue and queues one
    // unsubscribe per subscription, then the unregistration. False when already ended; else
    // `ending`, when given, learns what went.
    bool close(ReleaseReason reason = ReleaseReason::Ended, Ending* ending = nullptr);
    bool closed() const;

    // Runs the queued server calls in order unless another thread is running them.
    void runServerCalls(BayeuxServer& server);

    enum class Expiry { None, Idle, NeverConnected };
    // Answers a held connect whose time is up or whose link is gone. Says whether the session has
    // expired: it holds no connect and has had none for `sessionTimeout`, or never had one and
    // was made `connectGrace` ago.
    Expiry sweep(Clock::time_point now, std::chrono::milliseconds sessionTimeout,
                 std::chrono::milliseconds connectGrace);

    // Messages dropped because the queue was full, since the session began.
    std::uint64_t droppedCount() const;
    // Messages dropped since the previous call: what the next connect answer reports.
    std::uint64_t takeUnreportedDrops();
    std::size_t queuedCount() const;
    // Whether its latest connect (or, before one, its handshake) came over a WebSocket.
    bool overWebSocket() const { return overWebSocket_.load(std::memory_order_relaxed); }

  private:
    struct Held {
        std::weak_ptr<Link> link;
        // A long-polling request has no read pending while it waits: the session keeps it.
        std::shared_ptr<Link> keep;
        std::string id;
        std::uint64_t token = 0;
        Clock::time_point deadline;
        bool webSocket = false;
    };
    enum class Call { Register, Subscribe, Unsubscribe, Unregister };

    // Answers the held connect, if any. Returns the reference that kept its link, for the
    // caller to drop once the lock is released.
    [[nodiscard]] std::shared_ptr<Link> releaseLocked(ReleaseReason reason, Clock::time_point now)
        ORVALE_REQUIRES(mutex_);
    void wakeLocked() ORVALE_REQUIRES(mutex_);
    std::size_t sizeLocked() const ORVALE_REQUIRES(mutex_) { return queue_.size() - head_; }

    const std::string id_;
    const Owner owner_;
    const std::size_t maxQueue_;
    const std::size_t maxQueueBytes_;
    const std::shared_ptr<Gauges> gauges_;
    std::atomic<bool> overWebSocket_;
    std::atomic<bool> closedForCookie_{false};

    mutable common::Mutex mutex_;
    bool closed_ ORVALE_GUARDED_BY(mutex_) = false;
    // Waiting deliveries from index head_ on.
    std::vector<Delivery> queue_ ORVALE_GUARDED_BY(mutex_);
    std::size_t head_ ORVALE_GUARDED_BY(mutex_) = 0;
    std::size_t queuedBytes_ ORVALE_GUARDED_BY(mutex_) = 0;
    std::uint64_t dropped_ ORVALE_GUARDED_BY(mutex_) = 0;
    std::uint64_t unreportedDrops_ ORVALE_GUARDED_BY(mutex_) = 0;
    // The queue overflowed since it was last emptied.
    bool dropping_ ORVALE_GUARDED_BY(mutex_) = false;
    std::weak_ptr<Link> target_ ORVALE_GUARDED_BY(mutex_);  // the WebSocket deliveries go to
    // target_ has been woken and has not taken the queue yet.
    bool wakePosted_ ORVALE_GUARDED_BY(mutex_) = false;
    std::optional<Held> held_ ORVALE_GUARDED_BY(mutex_);
    std::uint64_t nextToken_ ORVALE_GUARDED_BY(mutex_) = 0;
    // The last connect received or answered; the handshake until the first connect.
    Clock::time_point lastConnect_ ORVALE_GUARDED_BY(mutex_);
    bool connected_ ORVALE_GUARDED_BY(mutex_) = false;  // a connect has arrived
    std::set<std::string> subscriptions_ ORVALE_GUARDED_BY(mutex_);
    // Server calls not yet made.
    std::vector<std::pair<Call, std::string>> calls_ ORVALE_GUARDED_BY(mutex_);
    bool callsRunning_ ORVALE_GUARDED_BY(mutex_) = false;
    // Made on first use.
    std::shared_ptr<common::ContextState> context_ ORVALE_GUARDED_BY(mutex_);
};

}  // namespace connector::bayeux::endpoint
