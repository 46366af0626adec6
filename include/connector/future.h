#pragma once
// Future, Promise and continuations: the one asynchronous-result mechanism of the connector.
//
// A Future and a Promise are two handles on one SharedFutureState. Continuations always run
// outside the state's mutex, so that a continuation may touch the state again.
//
// Thread safety: a Future and its Promise may be used from different threads at once; one
// handle is not shared between threads. A continuation runs on the thread that resolves the
// promise, or on the thread calling then() when the state is already resolved.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "connector/common/mutex.h"

namespace connector {

template <class T>
class Future;
template <class T>
class Promise;

namespace detail {

// Holds a value of T, or nothing for T = void.
template <class T>
struct Slot {
    std::optional<T> value;
};
template <>
struct Slot<void> {};

template <class T>
class ContinuationBase {
  public:
    virtual ~ContinuationBase() = default;
    virtual void run(Future<T>&& future) = 0;
};

// Status values of a shared state.
enum : std::uint32_t { kPending = 0, kValue = 1, kException = 2, kCancelled = 3 };

template <class T>
class SharedFutureState : public std::enable_shared_from_this<SharedFutureState<T>> {
  public:
    common::Mutex mutex;
    std::condition_variable condition;                  // get() and waitFor() wait here
    Slot<T> result ORVALE_GUARDED_BY(mutex);            // the value when status is 1
    std::exception_ptr error ORVALE_GUARDED_BY(mutex);  // the exception when status is 2
    // Run once on resolution.
    std::unique_ptr<ContinuationBase<T>> continuation ORVALE_GUARDED_BY(mutex);
    std::uint32_t status ORVALE_GUARDED_BY(mutex) = kPending;
    bool futureRetrieved ORVALE_GUARDED_BY(mutex) = false;
    bool valueRetrieved ORVALE_GUARDED_BY(mutex) = false;

    // Resolves with a value (status 1); a cancelled state drops it silently.
    template <class... A>
    void setValue(A&&... value) {
        common::UniqueLock lock(mutex);
        if (!beginResolve())
            return;
        if constexpr (!std::is_void_v<T>)
            result.value.emplace(std::forward<A>(value)...);
        status = kValue;
        finishResolve(lock);
    }

    void setException(std::exception_ptr e) {
        common::UniqueLock lock(mutex);
        if (!beginResolve())
            return;
        error = std::move(e);
        status = kException;
        finishResolve(lock);
    }

    // Resolves a still pending state with the abandonment error; used by ~Promise.
    void abandon() {
        common::UniqueLock lock(mutex);
        if (status != kPending)
            return;
        error = std::make_exception_ptr(
            std::runtime_error("Promise destroyed before it provided a value."));
        status = kException;
        finishResolve(lock);
    }

    // Moves a pending state to cancelled; an attached continuation is dropped unrun, which
    // abandons the promise of its own result.
    bool cancel() {
        std::unique_ptr<ContinuationBase<T>> dropped;
        {
            common::MutexLock lock(mutex);
            if (status != kPending)
                return false;
            status = kCancelled;
            dropped = std::move(continuation);
        }
        condition.notify_all();
        return true;
    }

    auto get() {
        common::UniqueLock lock(mutex);
        if (valueRetrieved || continuation)
            throw std::runtime_error(
                "Future already returned it's value or has an associated continuation.");
        valueRetrieved = true;
        condition.wait(lock.native(),
                       [this]() ORVALE_REQUIRES(mutex) { return status != kPending; });
        switch (status) {
            case kValue:
                if constexpr (std::is_void_v<T>) {
                    return;
                } else {
                    T out = std::move(*result.value);
                    result.value.reset();
                    return out;
                }
            case kException:
                std::rethrow_exception(error);
            case kCancelled:
                throw std::runtime_error("Future has been cancelled.");
            default:
                throw std::runtime_error("Invalid Future state reached.");
        }
    }

    bool waitFor(std::chrono::milliseconds timeout) {
        common::UniqueLock lock(mutex);
        if (status != kPending)
            return true;  // no clock read for what is already resolved
        return condition.wait_for(lock.native(), timeout,
                                  [this]() ORVALE_REQUIRES(mutex) { return status != kPending; });
    }

    bool isReady() {
        common::MutexLock lock(mutex);
        return status != kPending;
    }

    template <class F>
    auto then(F&& fn);

  private:
    bool beginResolve() ORVALE_REQUIRES(mutex) {
        if (status == kCancelled)
            return false;
        if (status != kPending)
            throw std::runtime_error("Promise already resolved.");
        return true;
    }

    // Wakes waiters, or hands the state to its continuation outside the lock.
    void finishResolve(common::UniqueLock& lock) ORVALE_REQUIRES(mutex) ORVALE_RELEASE(lock);
};

template <class T, class F, class R>
class Continuation final : public ContinuationBase<T> {
  public:
    explicit Continuation(F&& fn) : fn_(std::move(fn)) {}
    explicit Continuation(const F& fn) : fn_(fn) {}

    Promise<R>& promise() { return promise_; }

    void run(Future<T>&& future) override;

  private:
    F fn_;
    Promise<R> promise_;
};

}  // namespace detail

template <class T>
class Future {
  public:
    using value_type = T;

    Future() : valid_(false) {}
    Future(Future&& other) noexcept
        : state_(std::move(other.state_)), valid_(other.valid_.exchange(false)) {}
    Future& operator=(Future&& other) noexcept {
        if (this != &other) {
            state_ = std::move(other.state_);
            valid_.store(other.valid_.exchange(false));
        }
        return *this;
    }
    Future(const Future&) = delete;
    Future& operator=(const Future&) = delete;

    bool valid() const { return valid_.load(); }

    // Blocks until the state is resolved; returns the value or rethrows.
    auto get() { return checked().get(); }

    // Waits at most `timeout`; true when the state is resolved. Consumes nothing.
    bool waitFor(std::chrono::milliseconds timeout) { return checked().waitFor(timeout); }

    bool isReady() { return checked().isReady(); }

    // Attaches the one continuation; returns the future of its result.
    template <class F>
    auto then(F&& fn) {
        return checked().then(std::forward<F>(fn));
    }

    // Moves a pending state to cancelled: later values are dropped, get() throws.
    bool cancel() { return checked().cancel(); }

  private:
    template <class>
    friend class Promise;
    template <class>
    friend class detail::SharedFutureState;
    template <class, class, class>
    friend class detail::Continuation;

    explicit Future(std::shared_ptr<detail::SharedFutureState<T>> state)
        : state_(std::move(state)), valid_(true) {}

    detail::SharedFutureState<T>& checked() {
        if (!valid_.load())
            throw std::runtime_error("Future state isn't valid!");
        return *state_;
    }

    void invalidate() { valid_.store(false); }

    std::shared_ptr<detail::SharedFutureState<T>> state_;
    std::atomic<bool> valid_;
};

template <class T>
class Promise {
  public:
    Promise() : state_(std::make_shared<detail::SharedFutureState<T>>()), valid_(true) {}
    Promise(Promise&& other) noexcept
        : state_(std::move(other.state_)), valid_(other.valid_.exchange(false)) {}
    Promise& operator=(Promise&& other) noexcept {
        if (this != &other) {
            abandon();
            state_ = std::move(other.state_);
            valid_.store(other.valid_.exchange(false));
        }
        return *this;
    }
    Promise(const Promise&) = delete;
    Promise& operator=(const Promise&) = delete;

    ~Promise() { abandon(); }

    bool valid() const { return valid_.load(); }

    Future<T> getFuture() {
        auto& state = checked();
        common::MutexLock lock(state.mutex);
        if (state.futureRetrieved)
            throw std::runtime_error("Promise already returned a future.");
        state.futureRetrieved = true;
        return Future<T>(state_);
    }

    template <class... A>
    void setValue(A&&... value) {
        checked().setValue(std::forward<A>(value)...);
    }

    void setException(std::exception_ptr e) { checked().setException(std::move(e)); }

    template <class E>
    void setException(E&& e) {
        checked().setException(std::make_exception_ptr(std::forward<E>(e)));
    }

  private:
    detail::SharedFutureState<T>& checked() {
        if (!valid_.load())
            throw std::runtime_error("Promise state isn't valid!");
        return *state_;
    }

    void abandon() {
        if (valid_.exchange(false))
            state_->abandon();
    }

    std::shared_ptr<detail::SharedFutureState<T>> state_;
    std::atomic<bool> valid_;
};

// Thread safety: the helpers below may be called from any thread; flatten's result resolves on
// the thread that resolves the inner future.

// A future already holding `value`.
template <class T, class... A>
Future<T> makeReadyFuture(A&&... value) {
    Promise<T> promise;
    auto future = promise.getFuture();
    promise.setValue(std::forward<A>(value)...);
    return future;
}

// A future already failed with `error`.
template <class T>
Future<T> makeFailedFuture(std::exception_ptr error) {
    Promise<T> promise;
    auto future = promise.getFuture();
    promise.setException(std::move(error));
    return future;
}

template <class T, class E,
          class = std::enable_if_t<!std::is_same_v<std::decay_t<E>, std::exception_ptr>>>
Future<T> makeFailedFuture(E&& error) {
    return makeFailedFuture<T>(std::make_exception_ptr(std::forward<E>(error)));
}

// The future of the inner future's outcome.
template <class T>
Future<T> flatten(Future<Future<T>>&& outer) {
    auto promise = std::make_shared<Promise<T>>();
    Future<T> result = promise->getFuture();
    outer.then([promise](Future<Future<T>>&& resolved) {
        Future<T> inner;
        try {
            inner = resolved.get();
        } catch (...) {
            promise->setException(std::current_exception());
            return;
        }
        inner.then([promise](Future<T>&& done) {
            std::exception_ptr error;
            if constexpr (std::is_void_v<T>) {
                try {
                    done.get();
                } catch (...) {
                    error = std::current_exception();
                }
                if (error)
                    promise->setException(error);
                else
                    promise->setValue();
            } else {
                std::optional<T> value;
                try {
                    value.emplace(done.get());
                } catch (...) {
                    error = std::current_exception();
                }
                if (error)
                    promise->setException(error);
                else
                    promise->setValue(std::move(*value));
            }
        });
    });
    return result;
}

namespace detail {

template <class T>
void SharedFutureState<T>::finishResolve(common::UniqueLock& lock) {
    if (!continuation || (status != kValue && status != kException)) {
        lock.unlock();
        condition.notify_all();
        return;
    }
    std::unique_ptr<ContinuationBase<T>> run = std::move(continuation);
    lock.unlock();
    Future<T> future(this->shared_from_this());
    run->run(std::move(future));
    future.invalidate();
}

template <class T>
template <class F>
auto SharedFutureState<T>::then(F&& fn) {
    using Fn = std::decay_t<F>;
    using R = std::invoke_result_t<Fn&, Future<T>&&>;
    common::UniqueLock lock(mutex);
    if (valueRetrieved || continuation)
        throw std::runtime_error(
            "Future already has returned it's value or has an associated continuation.");
    auto next = std::make_unique<Continuation<T, Fn, R>>(std::forward<F>(fn));
    Future<R> out = next->promise().getFuture();
    continuation = std::move(next);
    if (status == kValue || status == kException) {
        finishResolve(lock);
    }
    return out;
}

template <class T, class F, class R>
void Continuation<T, F, R>::run(Future<T>&& future) {
    if constexpr (std::is_void_v<R>) {
        std::exception_ptr error;
        try {
            fn_(std::move(future));
        } catch (...) {
            error = std::current_exception();
        }
        if (error)
            promise_.setException(error);
        else
            promise_.setValue();
    } else {
        std::optional<R> out;
        std::exception_ptr error;
        try {
            out.emplace(fn_(std::move(future)));
        } catch (...) {
            error = std::current_exception();
        }
        if (error)
            promise_.setException(error);
        else
            promise_.setValue(std::move(*out));
    }
}

}  // namespace detail
}  // namespace connector
