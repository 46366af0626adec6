#pragma once
// Registration handles. A Subscription is the caller's handle on one registration (a channel
// subscription or a listener); cancelling it or dropping its last reference removes the
// registration from the service, which it reaches only through a weak reference.
// SubscriptionHolder is the record a service keeps for each channel subscription.
//
// Thread safety: a Subscription may be used from any thread, also from inside its own callback.
// A holder does not change once filed; the tables and listener records are guarded by their
// service's lock.

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>

#include "connector/core.h"
#include "connector/future.h"
#include "connector/message_service/types.h"

namespace connector::message_service {

class Subscription {
  public:
    virtual Future<CancelResult> unsubscribe() = 0;
    virtual ~Subscription() = default;
};

// What a Subscription cancels through: removes every registration carrying `id`.
class Unsubscribeable {
  public:
    virtual ~Unsubscribeable() = default;
    virtual Future<CancelResult> unsubscribeId(
        std::uint64_t id, const std::shared_ptr<common::ContextState>& context) = 0;
};

class SubscriptionImpl2 final : public Subscription {
  public:
    SubscriptionImpl2(std::uint64_t id, std::weak_ptr<Unsubscribeable> service,
                      const std::shared_ptr<common::ContextState>& context)
        : id_(id), service_(std::move(service)), unsubscribed_(0), context_(context) {}
    // Cancels the registration; the outcome is discarded.
    ~SubscriptionImpl2() override;

    // The first call reaches the service; later calls, and calls after the service is gone,
    // succeed at once without reaching it.
    Future<CancelResult> unsubscribe() override;

    std::uint64_t getId() const { return id_; }

  private:
    const std::uint64_t id_;
    const std::weak_ptr<Unsubscribeable> service_;
    std::atomic<std::uint32_t> unsubscribed_;  // exchanged to 1 by the first unsubscribe()
    const std::shared_ptr<common::ContextState> context_;
};

// A channel subscription as the service keeps it. When the last copy goes, `cancelled` is
// resolved with success so that anything waiting on it learns that the subscription ended.
struct SubscriptionHolder {
    SubscriptionHolder(std::uint64_t subscriptionId,
                       std::function<void(const JsonMessage&)>&& messageCallback)
        : callback(std::move(messageCallback)), id(subscriptionId) {}
    ~SubscriptionHolder() {
        if (cancelled.valid())
            cancelled.setValue(CancelResult(true));
    }
    SubscriptionHolder(const SubscriptionHolder&) = delete;
    SubscriptionHolder& operator=(const SubscriptionHolder&) = delete;

    Promise<CancelResult> cancelled;  // never moved out: the destructor resolves it
    std::function<void(const JsonMessage&)> callback;
    std::uint64_t id;
};

// Wire channel ("/orvale" + pattern) to its holders, in subscription order. A key exists only
// while its list is not empty.
using SubscriptionTable =
    std::unordered_map<std::string, std::list<std::shared_ptr<SubscriptionHolder>>>;

// A state-change listener as the service keeps it.
struct StateListenerRecord {
    std::function<void(const StateChangeEvent&)> callback;
    std::uint64_t id;
};

}  // namespace connector::message_service
