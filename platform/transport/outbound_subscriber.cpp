// The outbound stream of a WebSocket connection.

#include "outbound_subscriber.h"

#include <limits>

#include "connector/common/mutex.h"

namespace connector::bayeux::transport {

OutboundSubscriber::OutboundSubscriber(std::weak_ptr<Connection> connection,
                                       std::shared_ptr<CloseOnRelease> keeper,
                                       std::shared_ptr<DoneSignal> closed)
    : connection_(std::move(connection)),
      keeper_(std::move(keeper)),
      closedSignal_(std::move(closed)) {}

void OutboundSubscriber::onSubscribe(std::shared_ptr<reactive_streams::Subscription> subscription) {
    if (!subscription)
        return;
    std::shared_ptr<reactive_streams::Subscription> previous;
    bool closed;
    {
        common::MutexLock lock(mutex_);
        closed = closed_;
        if (!closed) {
            previous = std::move(subscription_);
            subscription_ = subscription;
        }
    }
    // One upstream at a time: a second subscription replaces and cancels the first.
    if (previous && previous != subscription)
        previous->cancel();
    if (closed) {
        subscription->cancel();
        return;
    }
    subscription->request(std::numeric_limits<std::uint64_t>::max());
}

void OutboundSubscriber::onNext(MessagePtr&& message) {
    if (auto connection = connection_.lock())
        connection->send(std::move(message));
}

void OutboundSubscriber::onComplete() {
    if (auto connection = connection_.lock())
        connection->close();
}

void OutboundSubscriber::onError(std::exception_ptr) {
    if (auto connection = connection_.lock())
        connection->close();
}

Future<bool> OutboundSubscriber::done() {
    return closedSignal_->future();
}

void OutboundSubscriber::connectionClosed() {
    std::shared_ptr<reactive_streams::Subscription> subscription;
    {
        common::MutexLock lock(mutex_);
        closed_ = true;
        subscription = std::move(subscription_);
    }
    if (subscription)
        subscription->cancel();
}

}  // namespace connector::bayeux::transport
