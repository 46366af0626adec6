#pragma once
// The queue between the server's accepting threads and one of its delivery threads.
//
// Producers append under the queue's mutex and wake the consumer only when it sleeps, so a busy
// consumer costs them no notification; the consumer swaps the whole pending vector out in one
// step and delivers the batch without the lock. Both vectors keep their capacity, so a steady
// flow allocates nothing.

#include <array>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <variant>
#include <vector>

#include "channel_tree.h"
#include "connector/common/mutex.h"

namespace connector::bayeux::detail {

// Tree nodes and session records taken out of the server, freed once every delivery thread has
// passed the point where it was queued: deliveries queued before it may still point at them.
struct Retirement {
    std::vector<std::unique_ptr<ChannelNode>> nodes;
    std::vector<std::unique_ptr<SessionRecord>> records;
};

// One unit of work for a delivery thread.
struct Delivery {
    static constexpr std::size_t kInlinePatterns = 3;

    std::variant<std::shared_ptr<const PublishRequest>, std::shared_ptr<const SubscribeRequest>,
                 std::shared_ptr<const UnsubscribeRequest>, std::shared_ptr<const Retirement>>
        what;
    SessionRecord* record = nullptr;  // null for a retirement
    std::uint32_t patternCount = 0;
    // The matching pattern texts of a publish: inline when few, else all in `morePatterns`.
    std::array<const std::string*, kInlinePatterns> inlinePatterns{};
    std::unique_ptr<const std::string*[]> morePatterns;

    const std::string* const* patterns() const {
        return morePatterns ? morePatterns.get() : inlinePatterns.data();
    }
};

class DeliveryQueue {
  public:
    // Holds the queue's lock while a producer appends several deliveries; wakes the consumer
    // on release when it was asleep.
    class ORVALE_SCOPED_CAPABILITY Appender {
      public:
        explicit Appender(DeliveryQueue& queue) ORVALE_ACQUIRE(queue.mutex_)
            : queue_(queue), lock_(queue.mutex_) {}
        ~Appender() ORVALE_RELEASE();
        Appender(const Appender&) = delete;
        Appender& operator=(const Appender&) = delete;

        void push(Delivery&& delivery) {
            queue_.mutex_.assumeHeld();  // held by lock_ since construction
            queue_.pending_.push_back(std::move(delivery));
        }

      private:
        DeliveryQueue& queue_;
        common::UniqueLock lock_;
    };

    // Waits for deliveries and swaps them into the empty `batch`. False once the queue is
    // stopped and empty.
    bool take(std::vector<Delivery>& batch) ORVALE_EXCLUDES(mutex_);

    // Lets the consumer finish what is queued, then makes take() return false.
    void stop() ORVALE_EXCLUDES(mutex_);

    // Wakes the consumer if it sleeps while deliveries wait (an appender inside a
    // DeferredWakes left it asleep).
    void wakeIfIdle() ORVALE_EXCLUDES(mutex_);

  private:
    // The consumer sleeps while deliveries wait.
    bool sleepsWithWorkLocked() const ORVALE_REQUIRES(mutex_) { return idle_ && !pending_.empty(); }
    // True when the caller must wake the consumer, which then counts as awake.
    bool claimWakeLocked() ORVALE_REQUIRES(mutex_);

    common::Mutex mutex_;
    std::condition_variable wake_;
    std::vector<Delivery> pending_ ORVALE_GUARDED_BY(mutex_);
    bool idle_ ORVALE_GUARDED_BY(mutex_) = false;  // the consumer waits on wake_
    bool stopping_ ORVALE_GUARDED_BY(mutex_) = false;
};

}  // namespace connector::bayeux::detail
