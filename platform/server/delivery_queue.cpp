// The delivery queue: batch hand-off with a wake-up only for a sleeping consumer.

#include "delivery_queue.h"

namespace connector::bayeux::detail {

DeliveryQueue::Appender::~Appender() {
    const bool wake = queue_.idle_ && !queue_.pending_.empty();
    if (wake)
        queue_.idle_ = false;  // later producers need not wake it again
    lock_.unlock();
    if (wake)
        queue_.wake_.notify_one();
}

bool DeliveryQueue::take(std::vector<Delivery>& batch) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (pending_.empty()) {
        if (stopping_)
            return false;
        idle_ = true;
        wake_.wait(lock);
        idle_ = false;
    }
    batch.swap(pending_);
    return true;
}

void DeliveryQueue::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
}

}  // namespace connector::bayeux::detail
