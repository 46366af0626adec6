#pragma once
// The Bayeux side of the endpoint, free of sockets: the registry of remote sessions and the
// handling of each frame a client sends, whichever transport brought it.
//
// Connections hand it the text of a frame and get the replies appended to the frame they are
// building; a /meta/connect may instead be held in its session until the session releases it
// through the connection's Link. sweep() answers held connects whose time is up and removes
// sessions that went without a connect for too long; it runs on a timer of the endpoint.
//
// A request naming a session is served only when the session admits its sender (the WebSocket
// it was handshaken over, or the browser id of the client that made it); anything else is told
// "402::Unknown client" and the session is left alone; but a frame from a WebSocket whose upgrade
// carried no browser id that starts by naming a session made over long-polling is left
// unanswered for the link to close, so that the client sends it again with the cookie the
// handshake's answer set (FrameOutcome::closeForCookie). A connection may have at most
// maxSessionsPerConnection live sessions, the connections of one address together at most
// maxSessionsPerAddress (when set), and a frame at most maxMessagesPerFrame messages.
//
// Any thread may call it; each link calls it from its own I/O thread. `mutex_` is shared for
// lookups, exclusive for changes. A session's lock may be taken under it, never the reverse.
// The server is called outside it, so that the server may call back in.

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "browser_id.h"
#include "common/doubling_log.h"
#include "connector/bayeux/endpoint.h"
#include "connector/common/mutex.h"
#include "gauges.h"
#include "remote_session.h"
#include "wire.h"

namespace connector::bayeux::endpoint {

enum class Transport { WebSocket, LongPolling };

// The browser ids this hub issued that a request carried in its cookies (or, over a WebSocket,
// its upgrade carried or was given), one of each name; empty when none.
struct CarriedIds {
    std::string polling;    // BAYEUX_BROWSER
    std::string webSocket;  // BAYEUX_BROWSER_WS
    bool empty() const { return polling.empty() && webSocket.empty(); }
};

// The connection a frame came over, as the hub sees it; a link makes it with Hub::sender().
struct Sender {
    Transport transport = Transport::WebSocket;
    std::uint64_t connection = 0;  // numbers connections apart; never reused
    CarriedIds browser;
    // A WebSocket whose upgrade carried no id: the id it has, its answer gave it.
    bool upgradeCarriedNone = false;
    std::shared_ptr<ConnectionSessions> sessions;
    // With maxSessionsPerAddress: the peer's address, whose sessions Gauges::sessionsByAddress
    // counts.
    std::string address;
};

// What the hub holds at one moment, for the operator routes.
struct HubFigures {
    std::size_t webSocketSessions = 0;
    std::size_t longPollingSessions = 0;
    std::size_t subscriptions = 0;  // (session, channel pattern) pairs
    std::size_t channels = 0;       // distinct channel patterns subscribed to
    bool accepting = false;         // new sessions are welcome: not full, not shutting down
    std::optional<ClusterStats> cluster;
};

struct FrameOutcome {
    // Set when a connect of this frame is being held for the link.
    std::shared_ptr<RemoteSession> heldSession;
    std::uint64_t heldToken = 0;
    // The frame as a whole could not be read.
    bool unreadable = false;
    // The frame held more than maxMessagesPerFrame messages: none was handled.
    bool tooManyMessages = false;
    // A browser id issued for a long-polling handshake of this frame, for the reply to set.
    std::string issuedBrowser;
    // A WebSocket that came without the browser's cookie named a session its browser made over
    // long-polling; the frame was left unanswered, for the link to close the connection.
    bool closeForCookie = false;
    // The frame made a subscription the other members of the cluster do not know yet: the link
    // holds its replies until its subscriptionsShared() is called.
    bool awaitingCluster = false;
};

class Hub {
  public:
    Hub(std::shared_ptr<BayeuxServer> server, EndpointOptions options);

    // A new connection's Sender; `address` is the peer's, when the endpoint took it.
    Sender sender(Transport transport, CarriedIds browser = {}, const std::string& address = {});

    // Handles one frame that arrived over `link`, appending the replies to `out`.
    FrameOutcome handleFrame(std::string_view frame, const std::shared_ptr<Link>& link,
                             const Sender& sender, FrameBuilder& out);

    // The answer to a held connect: over long-polling the session's deliveries come first.
    void appendConnectAnswer(RemoteSession& session, const std::shared_ptr<Link>& link,
                             Transport transport, const ConnectRelease& release,
                             FrameBuilder& out) const;

    // Appends what is queued for `session` when `link` is its WebSocket.
    void appendDeliveries(RemoteSession& session, const std::shared_ptr<Link>& link,
                          FrameBuilder& out) const;

    void sweep(Clock::time_point now);
    // Ends every session and refuses new handshakes.
    void shutdown();

    std::size_t sessionCount() const;
    HubFigures figures() const;
    const EndpointOptions& options() const { return options_; }
    // The endpoint's counters, shared with its connections and sessions.
    const std::shared_ptr<Gauges>& gauges() const { return gauges_; }
    const BrowserIds& browsers() const { return browsers_; }

  private:
    void handshake(const HandshakeRequest& request, const Sender& sender, FrameBuilder& out,
                   FrameOutcome& outcome);
    // Takes one session of `sender`'s allowances, its connection's and its address's; false,
    // with the refusal appended, when either is spent.
    bool takeSession(const HandshakeRequest& request, const Sender& sender, FrameBuilder& out);
    // Gives back what takeSession took, for a handshake refused after it.
    void giveBackSession(const Sender& sender);
    void connect(const ConnectRequest& request, const std::shared_ptr<RemoteSession>& session,
                 const std::shared_ptr<Link>& link, Transport transport, FrameBuilder& out,
                 FrameOutcome& outcome);
    void disconnect(const DisconnectRequest& request, const std::shared_ptr<RemoteSession>& session,
                    FrameBuilder& out);
    // True when the subscriptions changed.
    template <class Request, class Response>
    bool changeSubscription(const Request& request, const std::shared_ptr<RemoteSession>& session,
                            FrameBuilder& out);
    // The publishes of one frame, counted once the frame is handled: a frame often carries many
    // on one channel, and the shared counters are then touched once, not once for each.
    struct FramePublishes {
        enum class Timed { Unknown, Yes, No } timed = Timed::Unknown;
        std::int64_t receivedAt = 0;  // of a timed frame: read once, at its first publish
        std::uint64_t accepted = 0;
        std::string channel;  // the channel of the latest run of publishes
        std::uint64_t run = 0;
    };
    void publish(std::unique_ptr<PublishRequest> request, FrameBuilder& out,
                 FramePublishes& publishes);
    void countPublishes(FramePublishes& publishes) const;

    // Appends an error reply to `request`, counted among the refusals.
    void refuse(FrameBuilder& out, const BayeuxMessage& request, std::string error,
                std::optional<Advice> advice = std::nullopt) const;
    void refuseUnknownClient(FrameBuilder& out, const BayeuxMessage& request) const;
    // Appends `deliveries` to `out`, counting them and their latency.
    void appendCounted(const std::vector<Delivery>& deliveries, FrameBuilder& out) const;
    // Counts one session more (or less) on each of `channels`.
    void countSubscriptions(const std::vector<std::string>& channels, bool added);

    // Has the server wake `link` once the cluster knows the subscriptions its frame made; false
    // when there is nothing to wait for.
    bool awaitCluster(const std::shared_ptr<Link>& link);

    std::shared_ptr<RemoteSession> find(const std::string& id) const;
    void remove(const std::shared_ptr<RemoteSession>& session, std::string_view why,
                bool expired = false);
    Advice connectAdvice() const;
    QueueBounds queueBounds() const;

    const std::shared_ptr<BayeuxServer> server_;
    const EndpointOptions options_;
    const std::shared_ptr<Gauges> gauges_ = std::make_shared<Gauges>();
    const BrowserIds browsers_;
    common::DoublingLog refusedByAddress_;  // handshakes refused for maxSessionsPerAddress
    std::atomic<std::uint64_t> lastConnection_{0};
    std::atomic<std::uint64_t> timedFrames_{0};  // frames of publishes seen, to time one in 8

    mutable common::SharedMutex mutex_;
    std::unordered_map<std::string, std::shared_ptr<RemoteSession>> sessions_
        ORVALE_GUARDED_BY(mutex_);
    bool accepting_ ORVALE_GUARDED_BY(mutex_) = true;

    // Sessions per subscribed channel pattern. Taken on subscription changes only, never with
    // mutex_ or a session's lock held.
    mutable common::Mutex channelsMutex_;
    std::unordered_map<std::string, std::int64_t> subscribers_ ORVALE_GUARDED_BY(channelsMutex_);
    std::int64_t subscriptions_ ORVALE_GUARDED_BY(channelsMutex_) = 0;
    std::size_t channels_ ORVALE_GUARDED_BY(channelsMutex_) = 0;  // with a positive count

    // Sessions by transport, counted by a walk of sessions_ at most once a second however often
    // the operator routes ask; taken before mutex_.
    struct TransportCount {
        Clock::time_point at{};
        std::size_t webSocket = 0;
        std::size_t longPolling = 0;
    };
    mutable common::Mutex countMutex_;
    mutable TransportCount transportCount_ ORVALE_GUARDED_BY(countMutex_);

    // The links whose frames wait for the cluster. They are kept here, not by the server's
    // callback, so that shutdown lets them go while their I/O threads still run; a callback that
    // comes later finds nothing to wake. A link is woken under `mutex` (the wake only posts), so
    // none is woken once shutdown has passed it.
    struct ClusterWaits {
        common::Mutex mutex;
        std::unordered_map<const Link*, std::shared_ptr<Link>> links ORVALE_GUARDED_BY(mutex);
        bool open ORVALE_GUARDED_BY(mutex) = true;
    };
    const std::shared_ptr<ClusterWaits> clusterWaits_ = std::make_shared<ClusterWaits>();

    // When the queue lengths were last sampled; sweep() alone touches it.
    Clock::time_point lastSample_{};
};

}  // namespace connector::bayeux::endpoint
