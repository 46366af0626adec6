#pragma once
// The Bayeux endpoint (the hub): serves an in-process BayeuxServer to remote Bayeux clients over
// WebSocket and HTTP long-polling. Each remote client is a session of the server.
//
// Thread safety: may be called from any thread at once, except that stop() and the destructor
// join the endpoint's I/O threads and so must not run on one of them.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "connector/bayeux/server.h"

namespace connector::bayeux {

struct EndpointOptions {
    std::string host = "127.0.0.1";
    std::uint16_t port = 0;  // 0: any free port
    std::string path = "/bayeux";
    std::string apiKey;    // when set, a handshake must carry ext.orvapikey equal to it
    std::string certFile;  // PEM certificate and key: TLS when both are set
    std::string keyFile;
    std::size_t maxMessageBytes = 1024 * 1024;  // largest frame or HTTP body accepted
    // Each session's delivery queue holds at most maxQueuePerSession messages and
    // maxQueueBytes bytes of them. A slow client whose queue is full loses its oldest messages
    // to make room for each new one (a warning is logged when the dropping starts; a message
    // larger than the whole bound is still queued, alone); it stays connected, gets the newest
    // messages, and its next /meta/connect reply carries ext.dropped, the number it lost.
    std::size_t maxQueuePerSession = 10000;
    std::size_t maxQueueBytes = 4 * 1024 * 1024;
    // A connection whose output waiting for its peer (replies and deliveries not yet taken)
    // passes this is closed. Keep it well above maxQueueBytes: one write may carry a whole queue.
    std::size_t maxOutputBytes = 16 * 1024 * 1024;
    std::size_t maxSessions = 100000;
    // Live sessions one connection may have handshaken; beyond it a handshake gets
    // "503::Too many sessions on this connection". Raise it behind a proxy that funnels many
    // clients' long-polling requests through few connections.
    std::size_t maxSessionsPerConnection = 16;
    // Messages (array elements) one frame or HTTP body may hold. A larger one is refused whole,
    // nothing of it handled: a WebSocket is closed (1009), an HTTP request answered 413 and its
    // connection closed.
    std::size_t maxMessagesPerFrame = 1000;
    // Channels one session may be subscribed to at once: a subscribe beyond them gets
    // "403:<channel>:Too many subscriptions". With the two bounds below, this bounds what one
    // session's subscriptions hold (at most about 6 MB at the defaults, most of it one node of the
    // server's channel tree per segment), here and, in a cluster, on every member.
    std::size_t maxSubscriptionsPerSession = 1000;
    // The longest channel name, and the most segments ("/a/b" has two), a subscribe or publish
    // may carry; beyond them it gets "405::Channel name too long".
    std::size_t maxChannelBytes = 1024;
    std::size_t maxChannelSegments = 16;
    // Connections beyond this are closed as soon as they are accepted.
    std::size_t maxConnections = 100000;
    // Connections one client address may hold open; beyond it they are closed as soon as they
    // are accepted. 0 (the default): no bound, since proxies and NAT put many clients behind one
    // address. Set it where clients reach the endpoint directly, so that one host cannot take
    // every connection and, through them, every session.
    std::size_t maxConnectionsPerAddress = 0;
    // Live sessions the clients at one address may hold; beyond it a handshake gets
    // "503::Too many sessions from this address". 0 (the default): no bound, for the same
    // reason. Long-polling sessions outlive the connections that made them, so bounding
    // connections alone does not keep one host from taking every session.
    std::size_t maxSessionsPerAddress = 0;
    std::chrono::milliseconds connectTimeout{25000};  // how long a /meta/connect is held
    std::chrono::milliseconds sessionTimeout{45000};  // a session without connect expires
    // A session that has not sent its first /meta/connect this long after its handshake expires
    // (or after sessionTimeout, when that is shorter).
    std::chrono::milliseconds connectGrace{10000};
    // A WebSocket that sends no Bayeux frame (pings do not count) for this long, or whose
    // peer leaves a write unfinished for this long, is closed. At least twice connectTimeout
    // is used, since a client waiting on a held connect sends nothing meanwhile.
    std::chrono::milliseconds webSocketIdleTimeout{60000};
    // Origins ("https://app.example.com") of the pages on other sites that may use the endpoint:
    // long-polling answers carry CORS headers for them, preflights are answered, and
    // callback-polling (JSONP) is served to their pages; "*" allows every origin. Requests
    // from any other origin's pages are then refused (403), and a WebSocket upgrade from one is
    // served as if it carried no cookie. Empty (the default): no CORS answer and no
    // callback-polling, so only pages of the hub's own origin can read its answers. Under TLS,
    // with origins allowed, the browser cookie is SameSite=None so that their requests carry it.
    std::vector<std::string> allowedOrigins;
    // permessage-deflate for WebSocket clients that offer it. A frame inflating past
    // maxMessageBytes closes its connection, however small it was on the wire.
    bool deflate = false;
    // Serve the operator's routes on the endpoint's port too: /metrics (Prometheus), /healthz,
    // /readyz, /status (a live page) and /status.json. Off by default: they need no API key
    // and tell whoever reaches the port the channel names and the load.
    bool operatorRoutes = false;
};

// What the endpoint holds at one moment, and what it has dropped since it started.
struct EndpointStats {
    std::size_t connections = 0;        // open client connections
    std::size_t outputBytes = 0;        // replies and deliveries waiting for connections' peers
    std::uint64_t droppedMessages = 0;  // deliveries lost to full session queues
};

class BayeuxEndpoint {
  public:
    virtual ~BayeuxEndpoint() = default;
    virtual std::uint16_t port() const = 0;
    virtual std::size_t sessionCount() const = 0;
    virtual EndpointStats stats() const = 0;
    // Closes every connection and stops the I/O threads; also done by the destructor.
    virtual void stop() = 0;
};

// Starts serving at once; throws std::runtime_error when the address cannot be bound.
std::unique_ptr<BayeuxEndpoint> startBayeuxEndpoint(std::shared_ptr<BayeuxServer> server,
                                                    EndpointOptions options);

}  // namespace connector::bayeux
