#pragma once
// The outbound stream of a connection: the client subscribes it to its stream of requests.
//
// It asks for unbounded demand and hands every message to the connection, which batches what
// accumulates during a write into one frame. The end of the client's stream (onComplete,
// onError) closes the connection gracefully. Once the connection has closed and the inbound
// stream has delivered what arrived before, the client's subscription is cancelled so its
// publisher stops producing, and done() resolves.

#include <memory>

#include "connection.h"
#include "connector/common/mutex.h"
#include "connector/reactive_streams/reactive_streams.h"
#include "done_signal.h"

namespace connector::bayeux::transport {

class OutboundSubscriber : public reactive_streams::Subscriber<MessagePtr> {
  public:
    // `keeper` is shared with the inbound handle: the connection closes once both are gone.
    // `closed` is resolved by the connection when its socket closes.
    OutboundSubscriber(std::weak_ptr<Connection> connection, std::shared_ptr<CloseOnRelease> keeper,
                       std::shared_ptr<DoneSignal> closed);

    void onSubscribe(std::shared_ptr<reactive_streams::Subscription> subscription) override;
    void onNext(MessagePtr&& message) override;
    void onComplete() override;
    void onError(std::exception_ptr error) override;
    // Resolves when the connection is closed: true after a clean close.
    Future<bool> done() override;

    // Called by the connection once its socket is closed and its inbound stream has ended.
    void connectionClosed();

  private:
    const std::weak_ptr<Connection> connection_;
    const std::shared_ptr<CloseOnRelease> keeper_;
    const std::shared_ptr<DoneSignal> closedSignal_;

    common::Mutex mutex_;
    std::shared_ptr<reactive_streams::Subscription> subscription_ ORVALE_GUARDED_BY(mutex_);
    bool closed_ ORVALE_GUARDED_BY(mutex_) = false;
};

}  // namespace connector::bayeux::transport
