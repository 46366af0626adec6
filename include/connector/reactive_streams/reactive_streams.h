#pragma once
// Base classes of the reactive streams between the client services and their transports.
//
// Thread safety: the implementations in this library may be called from any thread at once;
// each says on which thread it signals.

#include <cstdint>
#include <exception>
#include <memory>
#include <utility>

#include "connector/future.h"

namespace connector::reactive_streams {

class Subscription {
  public:
    virtual ~Subscription() = default;
    virtual void request(std::uint64_t n) = 0;
    virtual void cancel() = 0;
};

// What a publisher of type P hands its subscriber: forwards demand and cancellation to the
// publisher while it lives, holding it weakly, so that the subscriber never keeps it alive. P
// befriends it when its request() and cancel() are private.
template <class P>
class WeakSubscription : public Subscription {
  public:
    explicit WeakSubscription(std::weak_ptr<P> publisher) : publisher_(std::move(publisher)) {}
    void request(std::uint64_t n) override {
        if (auto publisher = publisher_.lock())
            publisher->request(n);
    }
    void cancel() override {
        if (auto publisher = publisher_.lock())
            publisher->cancel();
    }

  private:
    std::weak_ptr<P> publisher_;
};

template <class T>
class Subscriber {
  public:
    virtual ~Subscriber() = default;
    virtual void onSubscribe(std::shared_ptr<Subscription> subscription) = 0;
    virtual void onComplete() = 0;
    virtual Future<bool> done() = 0;
    virtual void onNext(T&& value) = 0;
    virtual void onError(std::exception_ptr error) = 0;
};

template <class T>
class Publisher {
  public:
    virtual ~Publisher() = default;
    virtual Future<bool> done() = 0;
    virtual void subscribe(std::shared_ptr<Subscriber<T>> subscriber) = 0;
};

}  // namespace connector::reactive_streams
