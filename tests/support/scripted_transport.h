#pragma once
// A transport service for unit tests of the client: registered on a Context at the transport
// address, it records every message the client sends and lets the test push replies.

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "connector/bayeux/messages.h"
#include "connector/message_service/cached_value_publisher.h"

namespace orvale::test {

class ScriptedTransport : public std::enable_shared_from_this<ScriptedTransport> {
  public:
    using MessagePtr = std::unique_ptr<connector::Message>;

    // Registers on `context`; `fail` makes every ConnectTransport fail with that text.
    void install(connector::Context& context, std::string fail = {});

    // Waits (bounded) until at least `count` messages have been sent; false on time-out.
    bool waitSent(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(5));
    std::size_t sentCount();
    // The index-th sent message as a T, or null when it is of another type.
    template <class T>
    const T* sent(std::size_t index) {
        std::lock_guard<std::mutex> lock(mutex_);
        return index < sent_.size() ? dynamic_cast<const T*>(sent_[index].get()) : nullptr;
    }

    // Pushes a message to the client as if it had arrived from the server.
    void reply(MessagePtr message);
    // Ends the inbound stream as a closed socket would.
    void close();
    int connects() const { return connects_; }

  private:
    using Inbound = connector::reactive_streams::CachedValuePublisher<MessagePtr>;
    // The inbound stream, left to the caller when `release` holds.
    std::shared_ptr<Inbound> inbound(bool release);

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<MessagePtr> sent_;
    std::shared_ptr<Inbound> inbound_;
    int connects_ = 0;
};

// Builds a successful or failed response of type T answering `id`.
template <class T>
std::unique_ptr<T> response(const std::string& id, bool successful = true, std::string error = {}) {
    auto r = std::make_unique<T>();
    r->setId(id);
    r->setSuccessful(successful);
    r->setError(std::move(error));
    return r;
}

}  // namespace orvale::test
