#pragma once
// The done() futures of a stream: any number of callers, all resolved once when it ends.

#include <optional>
#include <utility>
#include <vector>

#include "connector/common/mutex.h"
#include "connector/future.h"

namespace connector::bayeux::transport {

class DoneSignal {
  public:
    // A future resolved with the outcome (true: ended cleanly), ready at once if already ended.
    Future<bool> future() {
        common::MutexLock lock(mutex_);
        if (outcome_)
            return makeReadyFuture<bool>(*outcome_);
        waiting_.emplace_back();
        return waiting_.back().getFuture();
    }

    // Records the outcome and resolves the waiting futures; later calls change nothing.
    void resolve(bool clean) {
        std::vector<Promise<bool>> waiting;
        {
            common::MutexLock lock(mutex_);
            if (outcome_)
                return;
            outcome_ = clean;
            waiting.swap(waiting_);
        }
        for (auto& promise : waiting)
            promise.setValue(clean);
    }

    bool ended() const {
        common::MutexLock lock(mutex_);
        return outcome_.has_value();
    }

  private:
    mutable common::Mutex mutex_;
    std::optional<bool> outcome_ ORVALE_GUARDED_BY(mutex_);
    std::vector<Promise<bool>> waiting_ ORVALE_GUARDED_BY(mutex_);
};

}  // namespace connector::bayeux::transport
