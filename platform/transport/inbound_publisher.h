#pragma once
// The inbound stream of a connection: what the server sent, one element per frame.
//
// The connection pushes on its I/O thread; the publisher queues until its one subscriber asks
// for more with request(n), and delivers onSubscribe, onNext and onComplete on the executor's
// thread (the I/O thread), one at a time, in order. Completion follows the messages already
// queued, so a reply that arrives just before the server closes the socket is still delivered.
// cancel() drops the queue, stops all signals and tells the connection to close.
//
// A push made on the executor's thread while no delivery is running there delivers at once,
// before push() returns, instead of posting a task per frame. A subscriber may call request()
// or cancel() from its signals: the running delivery sees the change before it stops.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>

#include "connector/bayeux/messages.h"
#include "connector/common/mutex.h"
#include "connector/reactive_streams/reactive_streams.h"
#include "done_signal.h"

namespace connector::bayeux::transport {

class InboundPublisher : public reactive_streams::Publisher<MessagePtr>,
                         public std::enable_shared_from_this<InboundPublisher> {
  public:
    using Subscriber = reactive_streams::Subscriber<MessagePtr>;
    // Runs a task later on the delivering thread; inline only once that thread is gone for good.
    using Executor = std::function<void(std::function<void()>)>;
    // True when called on the delivering thread; without it every delivery is posted.
    using OnExecutorThread = std::function<bool()>;

    // `onCancel` is called, with no lock held, when the subscriber cancels.
    InboundPublisher(Executor executor, std::function<void()> onCancel,
                     OnExecutorThread onExecutorThread = {});

    // Resolves once the stream has ended for its subscriber: completion delivered (its value
    // says whether the socket closed cleanly) or the subscription cancelled (true); or at
    // completion when nobody has subscribed.
    Future<bool> done() override;
    // Accepts one subscriber; a second one gets onSubscribe and then onError.
    void subscribe(std::shared_ptr<Subscriber> subscriber) override;

    // Producer side.
    void push(MessagePtr message);
    void complete(bool clean);

  private:
    class StreamSubscription;

    void request(std::uint64_t n);
    void cancel();
    bool onExecutorThread() const { return onExecutorThread_ && onExecutorThread_(); }
    void scheduleDrain();
    void drain();
    // Delivers until nothing more can go; the caller has set draining_.
    void drainClaimed();

    const Executor executor_;
    const std::function<void()> onCancel_;
    const OnExecutorThread onExecutorThread_;
    DoneSignal done_;

    common::Mutex mutex_;
    std::deque<MessagePtr> queue_ ORVALE_GUARDED_BY(mutex_);
    std::uint64_t demand_ ORVALE_GUARDED_BY(mutex_) = 0;  // UINT64_MAX: unbounded
    std::shared_ptr<Subscriber> subscriber_ ORVALE_GUARDED_BY(mutex_);
    std::shared_ptr<StreamSubscription> subscription_ ORVALE_GUARDED_BY(mutex_);
    // A subscriber was accepted, ever.
    bool subscribed_ ORVALE_GUARDED_BY(mutex_) = false;
    bool started_ ORVALE_GUARDED_BY(mutex_) = false;    // its onSubscribe was delivered
    bool completed_ ORVALE_GUARDED_BY(mutex_) = false;  // the producer ended the stream
    bool clean_ ORVALE_GUARDED_BY(mutex_) = true;
    bool cancelled_ ORVALE_GUARDED_BY(mutex_) = false;
    // A drain task is posted and has not started.
    bool drainScheduled_ ORVALE_GUARDED_BY(mutex_) = false;
    // A delivery loop is running (on the delivering thread).
    bool draining_ ORVALE_GUARDED_BY(mutex_) = false;
};

}  // namespace connector::bayeux::transport
