#pragma once
// A single-subscriber publisher that accepts values before anybody subscribes, keeps them in a
// FIFO cache (dropping the oldest beyond its capacity) and hands them out as the subscriber's
// demand allows. The client services use it as their stream of outgoing messages.
//
// `mutex_` guards every member. The subscriber, onDone and the done promise are always called
// with it released, so a subscriber may call back into the publisher. `draining_` keeps one
// drain loop at a time: a value offered while a loop runs is left in the cache for that loop.

#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "connector/future.h"
#include "connector/reactive_streams/reactive_streams.h"

namespace connector::reactive_streams {

template <class T, class F = std::function<void()>>
class CachedValuePublisher : public Publisher<T>,
                             public std::enable_shared_from_this<CachedValuePublisher<T, F>> {
  public:
    // Forwards demand and cancellation to its publisher while the publisher lives.
    class CachedValueSubscription : public Subscription {
      public:
        explicit CachedValueSubscription(std::weak_ptr<CachedValuePublisher> publisher)
            : publisher_(std::move(publisher)) {}
        void request(std::uint64_t n) override {
            if (auto publisher = publisher_.lock())
                publisher->request(n);
        }
        void cancel() override {
            if (auto publisher = publisher_.lock())
                publisher->cancel();
        }

      private:
        std::weak_ptr<CachedValuePublisher> publisher_;
    };

    // A negative capacity means unbounded.
    CachedValuePublisher(F onDone, int capacity)
        : capacity_(capacity < 0 ? std::numeric_limits<std::uint64_t>::max()
                                 : static_cast<std::uint64_t>(capacity)),
          onDone_(std::move(onDone)) {}

    ~CachedValuePublisher() override {
        std::unique_lock<std::mutex> lock(mutex_);
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
        std::unique_lock<std::mutex> lock(mutex_);
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
        std::unique_lock<std::mutex> lock(mutex_);
        if (state_ != kActive)
            return;
        state_ = kCompleting;
        if (cache_.empty())
            finish(lock);
    }

    void request(std::uint64_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (n > 0) {
            demand_ = (std::numeric_limits<std::uint64_t>::max() - demand_ < n)
                          ? std::numeric_limits<std::uint64_t>::max()
                          : demand_ + n;
        }
        drain(lock);
        if (!lock.owns_lock())
            lock.lock();
        if (state_ == kCompleting && cache_.empty())
            finish(lock);
    }

    void subscribe(std::shared_ptr<Subscriber<T>> subscriber) override {
        std::unique_lock<std::mutex> lock(mutex_);
        if (subscriber_)
            throw std::invalid_argument("Only one subscription allowed.");
        std::weak_ptr<CachedValuePublisher> self = this->shared_from_this();
        subscription_ = std::make_shared<CachedValueSubscription>(self);
        subscriber_ = subscriber;
        auto subscription = subscription_;
        const std::uint32_t state = state_;
        lock.unlock();
        subscriber->onSubscribe(subscription);
        if (state == kFailed) {
            subscriber->onError(error_);
        } else if (state == kCompleted) {
            subscriber->onComplete();
        } else {
            lock.lock();
            drain(lock);
        }
    }

    Future<bool> done() override {
        std::lock_guard<std::mutex> lock(mutex_);
        return donePromise_.getFuture();
    }

    std::size_t cachedCount() {
        std::lock_guard<std::mutex> lock(mutex_);
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
        std::unique_lock<std::mutex> lock(mutex_);
        if (state_ >= kCompleted)
            return;
        state_ = kCancelled;
        lock.unlock();
        donePromise_.setValue(false);
        onDone_();
    }

    // Called with the lock held; may release and retake it while values go out.
    void drain(std::unique_lock<std::mutex>& lock) {
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
        if (!lock.owns_lock())
            lock.lock();
        draining_ = false;
    }

    // Moves to completed once; tells the subscriber and onDone with the lock released.
    void finish(std::unique_lock<std::mutex>& lock) {
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

    std::mutex mutex_;
    const std::uint64_t capacity_;
    std::deque<T> cache_;
    F onDone_;
    Promise<bool> donePromise_;
    std::exception_ptr error_;
    std::shared_ptr<Subscriber<T>> subscriber_;
    std::shared_ptr<CachedValueSubscription> subscription_;
    std::uint64_t demand_ = 0;
    std::uint32_t state_ = kActive;
    bool draining_ = false;
};

// A subscriber that asks for unbounded demand at once and hands every value to a callback.
// `mutex_` guards subscription_ and done_; the callback runs with it released.
template <class T>
class CallbackSubscriber : public Subscriber<T> {
  public:
    explicit CallbackSubscriber(std::function<void(T)> callback) : callback_(std::move(callback)) {}
    ~CallbackSubscriber() override { cancel(); }

    void onSubscribe(std::shared_ptr<Subscription> subscription) override {
        std::unique_lock<std::mutex> lock(mutex_);
        subscription_ = subscription;
        if (done_)
            return;
        lock.unlock();
        subscription->request(std::numeric_limits<std::uint64_t>::max());
    }

    void onComplete() override {
        std::unique_lock<std::mutex> lock(mutex_);
        if (done_)
            return;
        done_ = true;
        lock.unlock();
        donePromise_.setValue(true);
    }

    Future<bool> done() override {
        std::lock_guard<std::mutex> lock(mutex_);
        return donePromise_.getFuture();
    }

    void onNext(T&& value) override {
        std::unique_lock<std::mutex> lock(mutex_);
        if (done_)
            return;
        lock.unlock();
        callback_(std::move(value));
    }

    void onError(std::exception_ptr error) override {
        std::unique_lock<std::mutex> lock(mutex_);
        if (done_)
            return;
        done_ = true;
        lock.unlock();
        donePromise_.setException(error);
    }

    // Ends the subscriber early and cancels its subscription.
    void cancel() {
        std::unique_lock<std::mutex> lock(mutex_);
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
    std::mutex mutex_;
    Promise<bool> donePromise_;
    std::function<void(T)> callback_;
    std::weak_ptr<Subscription> subscription_;
    bool done_ = false;
};

}  // namespace connector::reactive_streams
