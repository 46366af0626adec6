#pragma once
// The Bayeux side of the endpoint, free of sockets: the registry of remote sessions and the
// handling of each frame a client sends, whichever transport brought it.
//
// Connections hand it the text of a frame and get the replies appended to the frame they are
// building; a /meta/connect may instead be held in its session until the session releases it
// through the connection's Link. sweep() answers held connects whose time is up and removes
// sessions that went without a connect for too long; it runs on a timer of the endpoint.
//
// `mutex_` is shared for lookups, exclusive for changes. A session's lock may be taken under
// it, never the reverse. The server is called outside it, so that the server may call back in.

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "connector/bayeux/endpoint.h"
#include "connector/common/mutex.h"
#include "gauges.h"
#include "remote_session.h"
#include "wire.h"

namespace connector::bayeux::endpoint {

enum class Transport { WebSocket, LongPolling };

struct FrameOutcome {
    // Set when a connect of this frame is being held for the link.
    std::shared_ptr<RemoteSession> heldSession;
    std::uint64_t heldToken = 0;
    // The frame as a whole could not be read.
    bool unreadable = false;
};

class Hub {
  public:
    Hub(std::shared_ptr<BayeuxServer> server, EndpointOptions options);

    // Handles one frame that arrived over `link`, appending the replies to `out`.
    FrameOutcome handleFrame(std::string_view frame, const std::shared_ptr<Link>& link,
                             Transport transport, FrameBuilder& out);

    // The answer to a held connect: over long-polling the session's deliveries come first.
    void appendConnectAnswer(RemoteSession& session, const std::shared_ptr<Link>& link,
                             Transport transport, const ConnectRelease& release,
                             FrameBuilder& out) const;

    // Appends what is queued for `session` when `link` is its WebSocket.
    static void appendDeliveries(RemoteSession& session, const std::shared_ptr<Link>& link,
                                 FrameBuilder& out);

    void sweep(Clock::time_point now);
    // Ends every session and refuses new handshakes.
    void shutdown();

    std::size_t sessionCount() const;
    const EndpointOptions& options() const { return options_; }
    // The endpoint's counters, shared with its connections and sessions.
    const std::shared_ptr<Gauges>& gauges() const { return gauges_; }

  private:
    void handshake(const HandshakeRequest& request, FrameBuilder& out);
    void connect(const ConnectRequest& request, const std::shared_ptr<RemoteSession>& session,
                 const std::shared_ptr<Link>& link, Transport transport, FrameBuilder& out,
                 FrameOutcome& outcome);
    void disconnect(const DisconnectRequest& request, const std::shared_ptr<RemoteSession>& session,
                    FrameBuilder& out);
    template <class Request, class Response>
    void changeSubscription(const Request& request, const std::shared_ptr<RemoteSession>& session,
                            FrameBuilder& out);
    void publish(std::unique_ptr<PublishRequest> request, FrameBuilder& out);

    std::shared_ptr<RemoteSession> find(const std::string& id) const;
    void remove(const std::shared_ptr<RemoteSession>& session, const char* why);
    Advice connectAdvice() const;
    QueueBounds queueBounds() const;

    const std::shared_ptr<BayeuxServer> server_;
    const EndpointOptions options_;
    const std::shared_ptr<Gauges> gauges_ = std::make_shared<Gauges>();

    mutable common::SharedMutex mutex_;
    std::unordered_map<std::string, std::shared_ptr<RemoteSession>> sessions_
        ORVALE_GUARDED_BY(mutex_);
    bool accepting_ ORVALE_GUARDED_BY(mutex_) = true;
};

}  // namespace connector::bayeux::endpoint
