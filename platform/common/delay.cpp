// The process timer behind common::delay: one thread, started on first use, joined at exit.
//
// Every message delivery schedules and cancels a watchdog, so scheduling and cancelling must
// be cheap: timers live in a slot array reused through a free list, a Canceller names its timer
// by (slot, generation), and the binary heap of deadlines drops cancelled entries lazily when
// they reach its top (or in a compaction once they outnumber the live ones). The thread is only
// woken when a new deadline is earlier than the one it sleeps towards.
//
// Locking: callbacks, and the destruction of callbacks (which may own anything), always run
// with Timer::mutex_ released, so that a callback may schedule and cancel timers.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "connector/common/delay.h"
#include "connector/common/mutex.h"
#include "connector/log/diagnostic_logger.h"

namespace connector::common {

namespace {

using Clock = std::chrono::steady_clock;
using Callback = std::function<void(std::int64_t)>;

class Timer {
  public:
    // The timer is never freed, so that a Canceller destroyed late during exit still finds it;
    // the exit hook stops and joins its thread.
    static Timer& instance() {
        static Timer* const timer = new Timer();
        static const ExitHook hook{timer};
        return *timer;
    }

    TickManager::Canceller schedule(Callback fn, std::int64_t delayMs) {
        // About 139 years: a longer delay (one a server advised, say) would overflow the clock's
        // nanoseconds and come due at once.
        constexpr std::int64_t kLongest = std::int64_t{1} << 42;
        const auto deadline = Clock::now() + std::chrono::milliseconds(
                                                 std::clamp<std::int64_t>(delayMs, 0, kLongest));
        UniqueLock lock(mutex_);
        if (stopped_) {
            lock.unlock();
            return {};  // fn is dropped on return, outside the lock
        }
        if (!thread_.joinable())
            thread_ = std::thread([this] { run(); });
        const std::uint32_t slot = takeSlot();
        const std::uint64_t generation = ++lastGeneration_;
        slots_[slot].fn = std::move(fn);
        slots_[slot].generation = generation;
        ++live_;
        heap_.push_back(Entry{deadline, generation, slot});
        std::push_heap(heap_.begin(), heap_.end(), Later{});
        const bool wake = deadline < sleepingUntil_;
        if (wake)
            sleepingUntil_ = Clock::time_point::min();  // one wake-up is enough
        lock.unlock();
        if (wake)
            wake_.notify_one();
        return TickManager::Canceller(slot, generation);
    }

    bool cancel(std::uint32_t slot, std::uint64_t generation) {
        Callback dropped;  // destroyed after the lock below is released
        UniqueLock lock(mutex_);
        if (slot < slots_.size() && slots_[slot].generation == generation) {
            dropped = std::move(slots_[slot].fn);
            releaseSlot(slot);
            --live_;
            compactIfSparse();
            return true;
        }
        // A callback running on another thread must have returned when cancel() does; on the
        // timer thread itself that wait could never end.
        if (running_ == generation && std::this_thread::get_id() != threadId_) {
            ++cancelWaiters_;
            while (running_ == generation)
                finished_.wait(lock.native());
            --cancelWaiters_;
        }
        return false;
    }

  private:
    struct Slot {
        Callback fn;
        std::uint64_t generation = 0;  // 0: free
        std::uint32_t nextFree = 0;
    };
    struct Entry {
        Clock::time_point deadline;
        std::uint64_t generation;  // also orders equal deadlines by scheduling order
        std::uint32_t slot;
    };
    struct Later {
        bool operator()(const Entry& a, const Entry& b) const {
            return a.deadline != b.deadline ? a.deadline > b.deadline : a.generation > b.generation;
        }
    };
    struct ExitHook {
        Timer* timer;
        ~ExitHook() { timer->stop(); }
    };

    static constexpr std::uint32_t kNoSlot = ~std::uint32_t{0};

    Timer() : epoch_(Clock::now()) {}

    std::uint32_t takeSlot() ORVALE_REQUIRES(mutex_) {
        if (freeHead_ != kNoSlot) {
            const std::uint32_t slot = freeHead_;
            freeHead_ = slots_[slot].nextFree;
            return slot;
        }
        slots_.emplace_back();
        return static_cast<std::uint32_t>(slots_.size() - 1);
    }

    void releaseSlot(std::uint32_t slot) ORVALE_REQUIRES(mutex_) {
        slots_[slot].fn = nullptr;
        slots_[slot].generation = 0;
        slots_[slot].nextFree = freeHead_;
        freeHead_ = slot;
    }

    bool isLive(const Entry& e) const ORVALE_REQUIRES(mutex_) {
        return slots_[e.slot].generation == e.generation;
    }

    // Cancelled entries wait in the heap until their deadline; rebuild it once they dominate, so
    // that a stream of cancelled watchdogs costs amortised constant time each.
    void compactIfSparse() ORVALE_REQUIRES(mutex_) {
        if (heap_.size() < 1024 || heap_.size() < 4 * live_)
            return;
        heap_.erase(
            std::remove_if(heap_.begin(), heap_.end(),
                           [this](const Entry& e) ORVALE_REQUIRES(mutex_) { return !isLive(e); }),
            heap_.end());
        std::make_heap(heap_.begin(), heap_.end(), Later{});
    }

    void popTop() ORVALE_REQUIRES(mutex_) {
        std::pop_heap(heap_.begin(), heap_.end(), Later{});
        heap_.pop_back();
    }

    void run() {
        UniqueLock lock(mutex_);
        threadId_ = std::this_thread::get_id();
        while (!stopping_) {
            if (heap_.empty()) {
                sleepingUntil_ = Clock::time_point::max();
                wake_.wait(lock.native());
                sleepingUntil_ = Clock::time_point::min();
                continue;
            }
            const Entry top = heap_.front();
            if (!isLive(top)) {
                popTop();
                continue;
            }
            if (top.deadline > Clock::now()) {
                sleepingUntil_ = top.deadline;
                wake_.wait_until(lock.native(), top.deadline);
                sleepingUntil_ = Clock::time_point::min();
                continue;
            }
            popTop();
            Callback fn = std::move(slots_[top.slot].fn);
            releaseSlot(top.slot);
            --live_;
            running_ = top.generation;
            lock.unlock();
            fire(fn, std::chrono::duration_cast<std::chrono::milliseconds>(top.deadline - epoch_)
                         .count());
            fn = nullptr;
            lock.lock();
            running_ = 0;
            if (cancelWaiters_ > 0)
                finished_.notify_all();
        }
    }

    static void fire(Callback& fn, std::int64_t scheduledMs) {
        try {
            fn(scheduledMs);
        } catch (const std::exception& e) {
            logger().log(foundation::log::error, "Timer callback threw: ", e.what());
        } catch (...) {
            logger().log(foundation::log::error, "Timer callback threw a non-standard exception");
        }
    }

    static const foundation::log::basic_diagnostic_logger<char>& logger() {
        static const foundation::log::basic_diagnostic_logger<char> log("connector::common");
        return log;
    }

    // Runs at process exit: timers still pending are dropped.
    void stop() {
        std::vector<Callback> dropped;
        std::thread thread;
        {
            MutexLock lock(mutex_);
            stopped_ = true;
            stopping_ = true;
            thread = std::move(thread_);
            for (std::uint32_t i = 0; i < slots_.size(); ++i) {
                if (slots_[i].generation == 0)
                    continue;
                dropped.push_back(std::move(slots_[i].fn));
                releaseSlot(i);
            }
            heap_.clear();
            live_ = 0;
        }
        wake_.notify_all();
        if (thread.joinable()) {
            // exit() called from a timer callback cannot join its own thread
            if (thread.get_id() == std::this_thread::get_id()) {
                thread.detach();
            } else {
                thread.join();
            }
        }
    }

    const Clock::time_point epoch_;
    Mutex mutex_;
    std::condition_variable wake_;      // the timer thread sleeps here
    std::condition_variable finished_;  // cancel() waits here for a running callback
    std::vector<Slot> slots_ ORVALE_GUARDED_BY(mutex_);
    // Min-heap on (deadline, generation), with cancelled entries.
    std::vector<Entry> heap_ ORVALE_GUARDED_BY(mutex_);
    std::uint32_t freeHead_ ORVALE_GUARDED_BY(mutex_) = kNoSlot;
    // Scheduled timers neither fired nor cancelled.
    std::size_t live_ ORVALE_GUARDED_BY(mutex_) = 0;
    std::uint64_t lastGeneration_ ORVALE_GUARDED_BY(mutex_) = 0;
    // Generation of the callback running now, or 0.
    std::uint64_t running_ ORVALE_GUARDED_BY(mutex_) = 0;
    std::size_t cancelWaiters_ ORVALE_GUARDED_BY(mutex_) = 0;
    // What the thread sleeps towards; min() while it is awake, so no one wakes it needlessly.
    Clock::time_point sleepingUntil_ ORVALE_GUARDED_BY(mutex_) = Clock::time_point::min();
    bool stopping_ ORVALE_GUARDED_BY(mutex_) = false;
    bool stopped_ ORVALE_GUARDED_BY(mutex_) = false;
    std::thread thread_ ORVALE_GUARDED_BY(mutex_);
    std::thread::id threadId_ ORVALE_GUARDED_BY(mutex_);
};

}  // namespace

TickManager::Canceller::Canceller(Canceller&& other) noexcept
    : slot_(other.slot_), generation_(std::exchange(other.generation_, 0)) {}

TickManager::Canceller& TickManager::Canceller::operator=(Canceller&& other) noexcept {
    if (this != &other) {
        cancel();
        slot_ = other.slot_;
        generation_ = std::exchange(other.generation_, 0);
    }
    return *this;
}

bool TickManager::Canceller::cancel() {
    if (generation_ == 0)
        return false;
    return Timer::instance().cancel(slot_, std::exchange(generation_, 0));
}

TickManager::Canceller delay(std::function<void(std::int64_t)> fn, std::int64_t delayMs) {
    return Timer::instance().schedule(std::move(fn), delayMs);
}

}  // namespace connector::common
