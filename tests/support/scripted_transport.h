#pragma once
// A transport service for the client's unit tests, registered at the transport address: records
// what the client sends and lets the test push replies. Any thread; mutex_ guards every member.

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "connector/bayeux/messages.h"
#include "connector/core.h"
#include "connector/message_service/cached_value_publisher.h"

namespace orvale::test {

class ScriptedTransport : public std::enable_shared_from_this<ScriptedTransport> {
  public:
    using MessagePtr = std::unique_ptr<connector::Message>;

    // Registers on `context`; `fail` makes every ConnectTransport fail with that text.
    void install(connector::Context& context, std::string fail = {}) {
        std::weak_ptr<ScriptedTransport> weak = shared_from_this();
        context.registerService(
            connector::Address("connector/bayeux/webSocket/client", "connector/http/client"),
            [weak, fail](connector::Context&, MessagePtr) -> connector::Future<MessagePtr> {
                auto self = weak.lock();
                if (!self || !fail.empty())
                    return connector::makeFailedFuture<MessagePtr>(std::runtime_error(fail));
                auto inbound = std::make_shared<Inbound>([] {}, -1);
                {
                    std::lock_guard<std::mutex> lock(self->mutex_);
                    self->inbound_ = inbound;
                    ++self->connects_;
                }
                // The outbound side takes everything the client sends.
                auto outbound =
                    std::make_shared<connector::reactive_streams::CallbackSubscriber<MessagePtr>>(
                        [self](MessagePtr m) {
                            {
                                std::lock_guard<std::mutex> lock(self->mutex_);
                                self->sent_.push_back(std::move(m));
                            }
                            self->changed_.notify_all();
                        });
                return connector::makeReadyFuture<MessagePtr>(
                    std::make_unique<connector::bayeux::ConnectTransportResponse>(
                        inbound, std::move(outbound)));
            });
    }

    // Waits (bounded) until at least `count` messages have been sent; false on time-out.
    bool waitSent(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return sent_.size() >= count; });
    }
    std::size_t sentCount() {
        std::lock_guard<std::mutex> lock(mutex_);
        return sent_.size();
    }
    // The index-th sent message as a T, or null when it is of another type.
    template <class T>
    const T* sent(std::size_t index) {
        std::lock_guard<std::mutex> lock(mutex_);
        return index < sent_.size() ? dynamic_cast<const T*>(sent_[index].get()) : nullptr;
    }

    // Pushes a message to the client as if it had arrived from the server.
    void reply(MessagePtr message) {
        if (auto stream = inbound(false))
            stream->next(std::move(message));
    }
    // Ends the inbound stream as a closed socket would.
    void close() {
        if (auto stream = inbound(true))
            stream->complete();
    }
    int connects() {
        std::lock_guard<std::mutex> lock(mutex_);
        return connects_;
    }

  private:
    using Inbound = connector::reactive_streams::CachedValuePublisher<MessagePtr>;
    // The inbound stream, left to the caller when `release` holds.
    std::shared_ptr<Inbound> inbound(bool release) {
        std::lock_guard<std::mutex> lock(mutex_);
        return release ? std::move(inbound_) : inbound_;
    }

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
