#pragma once
// The done() futures of a stream: any number of callers, all resolved once when it ends.

#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "connector/future.h"

namespace connector::bayeux::transport {

class DoneSignal {
  public:
    // A future resolved with the outcome (true: ended cleanly), ready at once if already ended.
    Future<bool> future() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (outcome_)
            return makeReadyFuture<bool>(*outcome_);
        waiting_.emplace_back();
        return waiting_.back().getFuture();
    }

    // Records the outcome and resolves the waiting futures; later calls change nothing.
    void resolve(bool clean) {
        std::vector<Promise<bool>> waiting;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (outcome_)
                return;
            outcome_ = clean;
            waiting.swap(waiting_);
        }
        for (auto& promise : waiting)
            promise.setValue(clean);
    }

    bool ended() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return outcome_.has_value();
    }

  private:
    mutable std::mutex mutex_;  // guards outcome_ and waiting_
    std::optional<bool> outcome_;
    std::vector<Promise<bool>> waiting_;
};

}  // namespace connector::bayeux::transport
