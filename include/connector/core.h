#pragma once
// Core types of the connector: addresses, messages, the per-call context state, the context
// (a registry of request handlers) and the connector that wraps it.

#include <any>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "connector/common/mutex.h"
#include "connector/future.h"

namespace connector {

// Names a service: the service itself and the protocol it is reached through.
// Thread safety: a value; an object shared between threads is only read.
class Address {
  public:
    Address(const char* service, const char* protocol) : service_(service), protocol_(protocol) {}
    Address(std::string service, std::string protocol)
        : service_(std::move(service)), protocol_(std::move(protocol)) {}

    const std::string& service() const { return service_; }
    const std::string& protocol() const { return protocol_; }
    std::string toString() const { return service_ + "@" + protocol_; }

    bool operator==(const Address& other) const {
        return service_ == other.service_ && protocol_ == other.protocol_;
    }
    bool operator!=(const Address& other) const { return !(*this == other); }

  private:
    std::string service_;
    std::string protocol_;
};

// Base of every request and response exchanged through a Context; owned by unique_ptr.
// Thread safety: see connector/bayeux/messages.h.
class Message {
  public:
    virtual ~Message() = default;
};

// How long a value stored in a ContextState is meant to live.
enum class ContextScope : int { Request = 0, Session = 1, Global = 2 };

namespace common {

// Named values attached to a call or a context.
//
// Thread safety: may be called from any thread at once.
class ContextState {
  public:
    void set(const std::string& name, std::any value, ContextScope scope);
    // The value stored under `name`, or an empty optional.
    std::optional<std::any> get(const std::string& name) const;
    std::optional<ContextScope> scopeOf(const std::string& name) const;
    // The value under `name` if it holds a std::string.
    std::optional<std::string> getString(const std::string& name) const;

  private:
    mutable Mutex mutex_;
    std::unordered_map<std::string, std::pair<std::any, ContextScope>> values_
        ORVALE_GUARDED_BY(mutex_);
};

}  // namespace common

class Context;

// A service reachable through a Context: answers one request with a future response.
using ServiceHandler =
    std::function<Future<std::unique_ptr<Message>>(Context&, std::unique_ptr<Message>)>;

// Registry of services by address; delivers requests to them.
//
// Thread safety: may be called from any thread at once; a handler runs on the thread that calls
// deliver(), with no lock of the context held.
class Context : public std::enable_shared_from_this<Context> {
  public:
    Context();
    virtual ~Context();

    // Adds the service at `address`, or replaces the one registered there.
    void registerService(const Address& address, ServiceHandler handler);
    bool hasService(const Address& address) const;

    // Hands `request` to the service at `address`. An unknown address or a handler that throws
    // gives a failed future; this never throws.
    Future<std::unique_ptr<Message>> deliver(const Address& address,
                                             std::unique_ptr<Message> request);

    const std::shared_ptr<common::ContextState>& getState() const { return state_; }

  private:
    struct AddressHash {
        std::size_t operator()(const Address& a) const;
    };
    mutable common::SharedMutex mutex_;
    std::unordered_map<Address, std::shared_ptr<ServiceHandler>, AddressHash> services_
        ORVALE_GUARDED_BY(mutex_);
    std::shared_ptr<common::ContextState> state_;
};

// Wraps a Context for hosts that pass connectors around.
//
// Thread safety: immutable; may be called from any thread.
class Connector {
  public:
    explicit Connector(std::shared_ptr<Context> context) : context_(std::move(context)) {}
    virtual ~Connector() = default;
    virtual std::shared_ptr<Context> getContext() const { return context_; }

  private:
    std::shared_ptr<Context> context_;
};

// A context whose registry already holds the WebSocket and long-polling Bayeux client
// transports.
// Thread safety: both may be called from any thread.
std::shared_ptr<Context> makeContext();
std::shared_ptr<Connector> makeConnector(std::shared_ptr<Context> context);

}  // namespace connector
