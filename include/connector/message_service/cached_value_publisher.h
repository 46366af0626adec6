#pragma once
// A single-subscriber publisher that accepts values before anybody subscribes, keeps them in a
// FIFO cache (dropping the oldest beyond its capacity) and hands them out as the subscriber's
// demand allows. The client services use it as their stream of outgoing messages.
//
// The subscriber, onDone and the done promise are always called with `mutex_` released, so a
// subscriber may call back into the publisher. `draining_` keeps one drain loop at a time: a
// value offered while a loop runs is left in the cache for that loop.
//
// Thread safety: may be called from any thread at once. The subscriber and onDone run on the
// thread whose call (next, complete, request, subscribe or cancel) let the value or the end out.

#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>

#include "connector/common/mutex.h"
#include "connector/future.h"
#include "connector/reactive_streams/reactive_streams.h"

namespace connector::reactive_streams {

template <class T, class F = std::function<void()>>
class CachedValuePublisher : public Publisher<T>,
                             public std::enable_shared_from_this<CachedValuePublisher<T, F>> {
  public:
    using CachedValueSubscription = WeakSubscription<CachedValuePublisher>;
    friend CachedValueSubscription;

    // A negative capacity means unbounded.
    CachedValuePublisher(F onDone, int capacity)
        : capacity_(capacity < 0 ? std::numeric_limits<std::uint64_t>::max()
                                 : static_cast<std::uint64_t>(capacity)),
          onDone_(std::move(onDone)) {}

    ~CachedValuePublisher() override {
        common::UniqueLock lock(mutex_);
        try {
            finish(lock);
        } catch (...) {
            // A subscriber or onDone failing while the stream is torn down has nobody to tell.
        }
        if (!lock.owns_lock())
            lock.lock();
        subscriber_.reset();
        subscription_.reset();
    }

    // Offers one value; discarded once the stream has ended.
    void next(T&& value) {
        common::UniqueLock lock(mutex_);
        if (state_ > kCompleting)
            return;
        if (subscriber_ && demand_ > 0 && cache_.empty() && !draining_) {
            --demand_;
            auto subscriber = subscriber_;
            lock.unlock();
            subscriber->onNext(std::move(value));
            return;
        }
        while (!cache_.empty() && cache_.size() >= capacity_)
            cache_.pop_front();
        cache_.push_back(std::move(value));
        drain(lock);
    }

    // Ends the stream once the cached values have gone out.
    void complete() {
        common::UniqueLock lock(mutex_);
        if (state_ != kActive)
            return;
        state_ = kCompleting;
        if (cache_.empty())
            finish(lock);
    }

    void request(std::uint64_t n) {
        common::UniqueLock lock(mutex_);
        if (n > 0) {
            demand_ = (std::numeric_limits<std::uint64_t>::max() - demand_ < n)
                          ? std::numeric_limits<std::uint64_t>::max()
                          : demand_ + n;
        }
        drain(lock);
        if (state_ == kCompleting && cache_.empty())
            finish(lock);
    }

    void subscribe(std::shared_ptr<Subscriber<T>> subscriber) override {
        common::UniqueLock lock(mutex_);
        if (subscriber_)
            throw std::invalid_argument("Only one subscription allowed.");
        std::weak_ptr<CachedValuePublisher> self = this->shared_from_this();
        subscription_ = std::make_shared<CachedValueSubscription>(self);
        subscriber_ = subscriber;
        auto subscription = subscription_;
        const std::uint32_t state = state_;
        const std::exception_ptr error = error_;
        lock.unlock();
        subscriber->onSubscribe(subscription);
        if (state == kFailed) {
            subscriber->onError(error);
        } else if (state == kCompleted) {
            subscriber->onComplete();
        } else {
            lock.lock();
            drain(lock);
        }
    }

    Future<bool> done() override {
        common::MutexLock lock(mutex_);
        return donePromise_.getFuture();
    }

    std::size_t cachedCount() {
        common::MutexLock lock(mutex_);
        return cache_.size();
    }

  private:
    enum : std::uint32_t {
        kActive = 0,
        kCompleting = 1,
        kCompleted = 2,
        kCancelled = 3,
        kFailed = 4
    };

    void cancel() {
        common::UniqueLock lock(mutex_);
        if (state_ >= kCompleted)
            return;
        state_ = kCancelled;
        lock.unlock();
        donePromise_.setValue(false);
        onDone_();
    }

    // May release and retake the lock while values go out; returns with it held unless it
    // throws.
    void drain(common::UniqueLock& lock) ORVALE_REQUIRES(mutex_, lock) {
        if (draining_)
            return;
        draining_ = true;
        try {
            for (;;) {
                if (state_ > kCompleting)
                    break;
                if (!subscriber_ || demand_ == 0 || cache_.empty()) {
                    if (state_ == kCompleting && cache_.empty())
                        finish(lock);
                    break;
                }
                --demand_;
                T value = std::move(cache_.front());
                cache_.pop_front();
                auto subscriber = subscriber_;
                lock.unlock();
                subscriber->onNext(std::move(value));
                lock.lock();
            }
        } catch (...) {
            if (!lock.owns_lock())
                lock.lock();
            draining_ = false;
            throw;
        }
        draining_ = false;
    }

    // Moves to completed once; tells the subscriber and onDone with the lock released, and
    // returns with it held unless one of them throws.
    void finish(common::UniqueLock& lock) ORVALE_REQUIRES(mutex_, lock) {
        if (state_ >= kCompleted)
            return;
        state_ = kCompleted;
        auto subscriber = subscriber_;
        lock.unlock();
        donePromise_.setValue(true);
        if (subscriber)
            subscriber->onComplete();
        onDone_();
        lock.lock();
    }

    common::Mutex mutex_;
    const std::uint64_t capacity_;
    std::deque<T> cache_ ORVALE_GUARDED_BY(mutex_);
    F onDone_;
    // Resolved with mutex_ released; only getFuture() is called under it.
    Promise<bool> donePromise_;
    std::exception_ptr error_ ORVALE_GUARDED_BY(mutex_);
    std::shared_ptr<Subscriber<T>> subscriber_ ORVALE_GUARDED_BY(mutex_);
    std::shared_ptr<CachedValueSubscription> subscription_ ORVALE_GUARDED_BY(mutex_);
    std::uint64_t demand_ ORVALE_GUARDED_BY(mutex_) = 0;
    std::uint32_t state_ ORVALE_GUARDED_BY(mutex_) = kActive;
    bool draining_ ORVALE_GUARDED_BY(mutex_) = false;
};

// A subscriber that asks for unbounded demand at once and hands every value to a callback.
// The callback runs with `mutex_` released, so that it may cancel the subscriber.
//
// Thread safety: may be called from any thread at once; the callback runs on the thread that
// calls onNext().
template <class T>
class CallbackSubscriber : public Subscriber<T> {
  public:
    explicit CallbackSubscriber(std::function<void(T)> callback) : callback_(std::move(callback)) {}
    ~CallbackSubscriber() override { cancel(); }

    void onSubscribe(std::shared_ptr<Subscription> subscription) override {
        common::UniqueLock lock(mutex_);
        subscription_ = subscription;
        if (done_)
            return;
        lock.unlock();
        subscription->request(std::numeric_limits<std::uint64_t>::max());
    }

    void onComplete() override {
        common::UniqueLock lock(mutex_);
        if (done_)
            return;
        done_ = true;
        lock.unlock();
        donePromise_.setValue(true);
    }

    Future<bool> done() override {
        common::MutexLock lock(mutex_);
        return donePromise_.getFuture();
    }

    void onNext(T&& value) override {
        common::UniqueLock lock(mutex_);
        if (done_)
            return;
        lock.unlock();
        callback_(std::move(value));
    }

    void onError(std::exception_ptr error) override {
        common::UniqueLock lock(mutex_);
        if (done_)
            return;
        done_ = true;
        lock.unlock();
        donePromise_.setException(error);
    }

    // Ends the subscriber early and cancels its subscription.
    void cancel() {
        common::UniqueLock lock(mutex_);
        if (done_)
            return;
        done_ = true;
        auto subscription = subscription_.lock();
        lock.unlock();
        donePromise_.setValue(false);
        if (subscription)
            subscription->cancel();
    }

  private:
    common::Mutex mutex_;
    Promise<bool> donePromise_;  // resolved with mutex_ released
    std::function<void(T)> callback_;
    std::weak_ptr<Subscription> subscription_ ORVALE_GUARDED_BY(mutex_);
    bool done_ ORVALE_GUARDED_BY(mutex_) = false;
};

}  // namespace connector::reactive_streams
