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

class IoThread;

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
    using StreamSubscription = reactive_streams::WeakSubscription<InboundPublisher>;
    friend StreamSubscription;

    void request(std::uint64_t n);
    void cancel();
    bool onExecutorThread() const { return onExecutorThread_ && onExecutorThread_(); }
    void scheduleDrain();
    void drain();
    // Delivers until nothing more can go; the caller has set drain_ to running.
    void drainClaimed();

    // The stream as its subscriber sees it. Only these transitions happen:
    //
    //   unsubscribed --subscribe()--> subscribed --onSubscribe delivered--> started
    //   started --queue empty and the source ended: onComplete delivered--> ended
    //   started | ended --cancel() (from the subscription, or a throwing signal)--> cancelled
    //
    // A subscriber is held exactly in `subscribed` and `started`.
    enum class Stream : std::uint8_t { unsubscribed, subscribed, started, ended, cancelled };
    // The producer's side: open until complete(clean), which ends it once.
    enum class Source : std::uint8_t { open, endedClean, endedUnclean };
    // Who delivers next on the executor's thread:
    //
    //   idle --a change made off that thread--> posted --the task runs--> running
    //   idle | posted --push() on that thread--> running (inline)
    //   running --nothing more can go--> idle
    //
    // A posted task that finds `running` leaves the work to the running loop, which re-reads
    // the state before it stops; one that finds `idle` simply looks for work.
    enum class Drain : std::uint8_t { idle, posted, running };

    const Executor executor_;
    const std::function<void()> onCancel_;
    const OnExecutorThread onExecutorThread_;
    DoneSignal done_;

    common::Mutex mutex_;
    std::deque<MessagePtr> queue_ ORVALE_GUARDED_BY(mutex_);
    std::uint64_t demand_ ORVALE_GUARDED_BY(mutex_) = 0;  // UINT64_MAX: unbounded
    std::shared_ptr<Subscriber> subscriber_ ORVALE_GUARDED_BY(mutex_);
    std::shared_ptr<StreamSubscription> subscription_ ORVALE_GUARDED_BY(mutex_);
    Stream stream_ ORVALE_GUARDED_BY(mutex_) = Stream::unsubscribed;
    Source source_ ORVALE_GUARDED_BY(mutex_) = Source::open;
    Drain drain_ ORVALE_GUARDED_BY(mutex_) = Drain::idle;
};

// The inbound stream of a connection whose I/O runs on `io`: deliveries run there (at once when
// pushed there), or inline once the service and its thread are gone; `close` runs when the
// subscriber cancels.
std::shared_ptr<InboundPublisher> makeConnectionInbound(const std::weak_ptr<IoThread>& io,
                                                        std::function<void()> close);

}  // namespace connector::bayeux::transport
