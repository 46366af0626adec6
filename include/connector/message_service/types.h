#pragma once
// Value types of the message service interface: connection states, listener events, delivered
// messages and the results of the asynchronous operations.
//
// Thread safety: values; an object shared between threads is only read.

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "connector/bayeux/messages.h"

namespace connector::message_service {

enum class ConnectionState : std::uint32_t {
    CONNECTED = 0,
    CONNECTING = 1,
    RECONNECTING = 2,
    DISCONNECTING = 3,
    DISCONNECTED = 4,
    FATALLY_DISCONNECTED = 5,
};

// The state's name; "UNKNOWN!" for a value outside the enumeration.
const char* toString(ConnectionState state);
std::ostream& operator<<(std::ostream& out, ConnectionState state);

struct StateChangeEvent {
    ConnectionState previousState;
    ConnectionState newState;
};

// A session subscribed to a channel matching a listener's pattern (application form).
class SubscribeEvent {
  public:
    explicit SubscribeEvent(std::string channel) : channel_(std::move(channel)) {}
    const std::string& getChannel() const { return channel_; }

  private:
    std::string channel_;
};

// A session unsubscribed from a channel matching a listener's pattern (application form).
class UnsubscribeEvent {
  public:
    explicit UnsubscribeEvent(std::string channel) : channel_(std::move(channel)) {}
    const std::string& getChannel() const { return channel_; }

  private:
    std::string channel_;
};

// One delivered message: the application channel and the JSON payload. The payload is shared
// with the request it came from, never copied per subscriber.
class JsonMessage {
  public:
    JsonMessage(std::string channel, std::shared_ptr<const bayeux::PublishRequest> source)
        : channel_(std::move(channel)), source_(std::move(source)) {}
    JsonMessage(std::string channel, std::string json)
        : channel_(std::move(channel)), source_(makeSource(std::move(json))) {}

    const std::string& getChannel() const { return channel_; }
    const std::string& getJson() const { return source_->getJson(); }

  private:
    static std::shared_ptr<const bayeux::PublishRequest> makeSource(std::string json) {
        auto request = std::make_shared<bayeux::PublishRequest>();
        request->setJson(std::move(json));
        return request;
    }

    std::string channel_;
    std::shared_ptr<const bayeux::PublishRequest> source_;
};

// Results: a future holding one of these succeeded; failures arrive as exceptions.
struct PublishResult {
    explicit PublishResult(bool ok = true) : success(ok) {}
    bool success;
};
struct CancelResult {
    explicit CancelResult(bool ok = true) : success(ok) {}
    bool success;
};
struct DisconnectResult {
    explicit DisconnectResult(bool ok = true) : success(ok) {}
    bool success;
};

}  // namespace connector::message_service
