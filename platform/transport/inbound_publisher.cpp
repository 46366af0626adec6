// The inbound stream of a WebSocket connection.

#include "inbound_publisher.h"

#include <exception>
#include <limits>
#include <stdexcept>
#include <thread>

#include "connector/log/diagnostic_logger.h"
#include "io_thread.h"

namespace connector::bayeux::transport {

namespace {

const foundation::log::basic_diagnostic_logger<char> logger("connector::bayeux::transport");
constexpr std::uint64_t kUnbounded = std::numeric_limits<std::uint64_t>::max();

class NoSubscription : public reactive_streams::Subscription {
  public:
    void request(std::uint64_t) override {}
    void cancel() override {}
};

}  // namespace

InboundPublisher::InboundPublisher(Executor executor, std::function<void()> onCancel,
                                   OnExecutorThread onExecutorThread)
    : executor_(std::move(executor)),
      onCancel_(std::move(onCancel)),
      onExecutorThread_(std::move(onExecutorThread)) {}

Future<bool> InboundPublisher::done() {
    return done_.future();
}

void InboundPublisher::subscribe(std::shared_ptr<Subscriber> subscriber) {
    if (!subscriber)
        throw std::invalid_argument("subscribe() needs a subscriber");
    {
        common::MutexLock lock(mutex_);
        if (stream_ == Stream::unsubscribed) {
            stream_ = Stream::subscribed;
            subscriber_ = std::move(subscriber);
            subscription_ = std::make_shared<StreamSubscription>(weak_from_this());
        }
    }
    if (subscriber) {
        subscriber->onSubscribe(std::make_shared<NoSubscription>());
        subscriber->onError(std::make_exception_ptr(
            std::logic_error("the inbound stream of a connection accepts one subscriber")));
        return;
    }
    scheduleDrain();
}

void InboundPublisher::push(MessagePtr message) {
    const bool here = onExecutorThread();
    {
        common::MutexLock lock(mutex_);
        if (stream_ == Stream::cancelled || source_ != Source::open)
            return;
        queue_.push_back(std::move(message));
        if (!subscriber_ || drain_ == Drain::running ||
            (stream_ == Stream::started && demand_ == 0))
            return;  // subscribe(), the running delivery or request() takes it from here
        if (!here && drain_ == Drain::posted)
            return;
        drain_ = here ? Drain::running : Drain::posted;
    }
    if (here)
        drainClaimed();
    else
        executor_([self = shared_from_this()] { self->drain(); });
}

void InboundPublisher::complete(bool clean) {
    bool unheard;
    {
        common::MutexLock lock(mutex_);
        if (source_ != Source::open)
            return;
        source_ = clean ? Source::endedClean : Source::endedUnclean;
        unheard = stream_ == Stream::unsubscribed;
    }
    // With nobody subscribed yet the stream is over now; a later subscriber still gets the rest.
    if (unheard)
        done_.resolve(clean);
    scheduleDrain();
}

void InboundPublisher::request(std::uint64_t n) {
    if (n == 0)
        return;
    {
        common::MutexLock lock(mutex_);
        if (stream_ == Stream::cancelled)
            return;
        demand_ = (kUnbounded - demand_ <= n) ? kUnbounded : demand_ + n;
    }
    scheduleDrain();
}

void InboundPublisher::cancel() {
    std::shared_ptr<Subscriber> released;
    std::deque<MessagePtr> dropped;
    {
        common::MutexLock lock(mutex_);
        if (stream_ == Stream::cancelled)
            return;
        stream_ = Stream::cancelled;
        released = std::move(subscriber_);
        dropped.swap(queue_);
    }
    if (onCancel_)
        onCancel_();
    done_.resolve(true);
}

void InboundPublisher::scheduleDrain() {
    {
        common::MutexLock lock(mutex_);
        // A running delivery re-reads the state under this lock before it stops, so it sees
        // whatever changed before this call.
        if (drain_ != Drain::idle || !subscriber_)
            return;
        drain_ = Drain::posted;
    }
    executor_([self = shared_from_this()] { self->drain(); });
}

void InboundPublisher::drain() {
    {
        common::MutexLock lock(mutex_);
        if (drain_ == Drain::running)
            return;  // the running drain sees the new state before it stops
        drain_ = Drain::running;
    }
    drainClaimed();
}

void InboundPublisher::drainClaimed() {
    for (;;) {
        std::shared_ptr<Subscriber> subscriber;
        std::shared_ptr<StreamSubscription> subscription;
        MessagePtr message;
        bool completing = false;
        bool clean = true;
        {
            common::MutexLock lock(mutex_);
            if (!subscriber_) {
                drain_ = Drain::idle;
                return;
            }
            if (stream_ == Stream::subscribed) {
                stream_ = Stream::started;
                subscriber = subscriber_;
                subscription = subscription_;
            } else if (!queue_.empty() && demand_ > 0) {
                message = std::move(queue_.front());
                queue_.pop_front();
                if (demand_ != kUnbounded)
                    --demand_;
                subscriber = subscriber_;
            } else if (queue_.empty() && source_ != Source::open) {
                completing = true;
                clean = source_ == Source::endedClean;
                stream_ = Stream::ended;
                subscriber = std::move(subscriber_);
                subscription_.reset();
                drain_ = Drain::idle;
            } else {
                drain_ = Drain::idle;
                return;
            }
        }
        try {
            if (subscription) {
                subscriber->onSubscribe(subscription);
            } else if (completing) {
                subscriber->onComplete();
            } else {
                subscriber->onNext(std::move(message));
            }
        } catch (const std::exception& e) {
            logger.log(foundation::log::error, "Inbound subscriber threw: ", e.what(),
                       "; cancelling the stream");
            if (!completing)
                cancel();
        } catch (...) {
            logger.log(foundation::log::error, "Inbound subscriber threw; cancelling the stream");
            if (!completing)
                cancel();
        }
        if (completing) {
            done_.resolve(clean);
            return;
        }
    }
}

std::shared_ptr<InboundPublisher> makeConnectionInbound(const std::weak_ptr<IoThread>& io,
                                                        std::function<void()> close) {
    std::thread::id ioThread;  // no thread's id once the service has gone
    if (auto thread = io.lock())
        ioThread = thread->id();
    return std::make_shared<InboundPublisher>(
        [io](std::function<void()> task) {
            if (auto thread = io.lock())
                thread->post(std::move(task));
            else
                task();
        },
        std::move(close),
        // Frames are pushed on the I/O thread, which may then deliver them at once; the id is
        // taken once, since this runs for every frame.
        [ioThread] { return std::this_thread::get_id() == ioThread; });
}

}  // namespace connector::bayeux::transport
