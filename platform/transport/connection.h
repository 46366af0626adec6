#pragma once
// What the stream objects of a WebSocket connection need from it, free of Asio and Beast.

#include <memory>

#include "connector/bayeux/messages.h"

namespace connector::bayeux::transport {

class Connection {
  public:
    virtual ~Connection() = default;
    // Queues a message to go out with the next frame; dropped once the connection is closing.
    virtual void send(MessagePtr message) = 0;
    // Sends what is queued, then closes the WebSocket gracefully. Any thread; idempotent.
    virtual void close() = 0;
};

// Closes the connection when the last handle that owns it is released. It holds the connection
// weakly: the connection lives through its own pending reads until the socket closes.
class CloseOnRelease {
  public:
    explicit CloseOnRelease(std::weak_ptr<Connection> connection)
        : connection_(std::move(connection)) {}
    ~CloseOnRelease() {
        if (auto connection = connection_.lock())
            connection->close();
    }
    CloseOnRelease(const CloseOnRelease&) = delete;
    CloseOnRelease& operator=(const CloseOnRelease&) = delete;

  private:
    std::weak_ptr<Connection> connection_;
};

}  // namespace connector::bayeux::transport
