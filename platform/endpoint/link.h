#pragma once
// What a remote session sees of a client connection: somewhere to send its deliveries and the
// answer to its held /meta/connect. Its calls only post work to the connection's I/O thread,
// so a session may make them while holding its own lock.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace connector::bayeux::endpoint {

class RemoteSession;

// Why a held /meta/connect is being answered.
enum class ReleaseReason {
    Due,       // deliveries are waiting (long-polling) or its time is up
    Replaced,  // a newer connect of the same client arrived
    Ended,     // the session was disconnected or expired
    Stopping,  // the endpoint is stopping: the client may handshake again once it is back
};

struct ConnectRelease {
    std::string id;       // the id of the connect being answered
    std::uint64_t token;  // tells this connect from a later one on the same connection
    ReleaseReason reason;
};

// The sessions handshaken over one connection that have not ended yet, shared by the connection
// and those sessions (which count themselves out when they end), on any thread.
struct ConnectionSessions {
    std::atomic<std::size_t> live{0};
    // A handshake over this connection was refused for the cap: logged once per connection.
    std::atomic<bool> refused{false};
};

class Link {
  public:
    virtual ~Link() = default;
    // Deliveries are queued in `session`; the link takes them when its socket is free.
    virtual void deliveriesReady(std::shared_ptr<RemoteSession> session) = 0;
    // The connect the link is holding for `session` is to be answered now.
    virtual void connectReleased(std::shared_ptr<RemoteSession> session,
                                 ConnectRelease release) = 0;
    // The cluster knows the subscriptions of the frame whose replies the link holds.
    virtual void subscriptionsShared() = 0;
};

}  // namespace connector::bayeux::endpoint
