// The delivery queue: batch hand-off with a wake-up only for a sleeping consumer.

#include "delivery_queue.h"

#include <algorithm>

#include "deferred_wakes.h"

namespace connector::bayeux::detail {

namespace {

// The queues whose consumer an appender on this thread left asleep inside a DeferredWakes.
struct HeldWakes {
    int depth = 0;
    std::vector<DeliveryQueue*> queues;
    std::vector<void (*)()> hooks;
};
thread_local HeldWakes held;

}  // namespace

DeliveryQueue::Appender::~Appender() {
    if (held.depth > 0 && queue_.sleepsWithWorkLocked()) {
        lock_.unlock();
        if (std::find(held.queues.begin(), held.queues.end(), &queue_) == held.queues.end())
            held.queues.push_back(&queue_);
        return;
    }
    const bool wake = queue_.claimWakeLocked();
    lock_.unlock();
    if (wake)
        queue_.wake_.notify_one();
}

void DeliveryQueue::wakeIfIdle() {
    bool wake = false;
    {
        common::MutexLock lock(mutex_);
        wake = claimWakeLocked();
    }
    if (wake)
        wake_.notify_one();
}

bool DeliveryQueue::claimWakeLocked() {
    if (!sleepsWithWorkLocked())
        return false;
    idle_ = false;  // later producers need not wake it again
    return true;
}

bool DeliveryQueue::take(std::vector<Delivery>& batch) {
    common::UniqueLock lock(mutex_);
    while (pending_.empty()) {
        if (stopping_)
            return false;
        idle_ = true;
        wake_.wait(lock.native());
        idle_ = false;
    }
    batch.swap(pending_);
    return true;
}

void DeliveryQueue::stop() {
    {
        common::MutexLock lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
}

}  // namespace connector::bayeux::detail

namespace connector::bayeux {

DeferredWakes::DeferredWakes() {
    ++detail::held.depth;
}

DeferredWakes::~DeferredWakes() {
    if (detail::held.depth > 1) {
        --detail::held.depth;
        return;
    }
    // A hook's publishes still belong to the scope: their wakes are held until it is done.
    // Hooks run in the order they were added: a turn's publishes leave for the cluster before
    // the answers that accept them.
    auto& hooks = detail::held.hooks;
    while (!hooks.empty()) {
        const auto hook = hooks.front();
        hooks.erase(hooks.begin());
        hook();
    }
    --detail::held.depth;
    for (auto* queue : detail::held.queues)
        queue->wakeIfIdle();
    detail::held.queues.clear();
}

bool DeferredWakes::active() {
    return detail::held.depth > 0;
}

void DeferredWakes::atEnd(void (*hook)()) {
    auto& hooks = detail::held.hooks;
    if (std::find(hooks.begin(), hooks.end(), hook) == hooks.end())
        hooks.push_back(hook);
}

}  // namespace connector::bayeux
