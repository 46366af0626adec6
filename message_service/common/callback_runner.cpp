#include "common/callback_runner.h"

#include <time.h>

#include <chrono>
#include <condition_variable>

#include "connector/common/delay.h"
#include "connector/common/mutex.h"

namespace connector::message_service {

namespace log = foundation::log;

namespace {

// A 100 ms watchdog needs no finer clock than the kernel's tick, and the coarse clock costs a
// callback a fraction of a precise read.
struct Clock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<Clock>;
    // Required of a clock type, though nothing here reads it.
    [[maybe_unused]] static constexpr bool is_steady = true;
    static time_point now() {
        timespec ts{};
        ::clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
        return time_point(std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec));
    }
};
constexpr Clock::duration kWatchdog = std::chrono::milliseconds(100);

// What a watchdog reports. It lives on the delivering thread's stack, which outlives the report
// because a run does not end while its report is being written.
struct Watched {
    const SubscriptionHolder* holder;
    const JsonMessage* message;
    const CallbackLoggers* loggers;
};

void warnSlowCallback(const Watched& watched) {
    const std::string type = log::demangle(watched.holder->callback.target_type().name());
    const auto& channel = watched.message->getChannel();
    const auto& json = watched.message->getJson();
    static constexpr const char* text =
        "Callback took longer than expected, it may be deadlocked: ";
    if (watched.loggers->module)
        watched.loggers->module->log(log::warning, text, channel, ", json: ", json, ", ", type);
    watched.loggers->instance->log(log::warning, text, channel, ", json: ", json, ", ", type);
}

// The callback running on one delivering thread, under at most one pending timer check. A
// callback costs a clock read and two uncontended locks of its own thread's watch instead of
// scheduling and cancelling a timer on the process-wide timer: the check re-arms itself for the
// callback running when it fires, and stops once the thread is idle.
class Watch : public std::enable_shared_from_this<Watch> {
  public:
    struct Run {
        const Watched* watched = nullptr;  // null: no callback running
        Clock::time_point started;
        bool reported = false;
    };

    // Starts watching `watched`; returns the run it interrupts (a callback may run callbacks).
    Run begin(const Watched& watched) {
        const Clock::time_point now = Clock::now();
        Run interrupted;
        bool arm;
        {
            common::MutexLock lock(mutex_);
            interrupted = current_;
            current_ = Run{&watched, now, false};
            arm = !armed_;
            armed_ = true;
        }
        if (arm)
            schedule(kWatchdog);
        return interrupted;
    }

    // Ends the current run, once a report about it has been written.
    void end(const Run& interrupted) {
        common::UniqueLock lock(mutex_);
        while (reporting_)
            reported_.wait(lock.native());
        current_ = interrupted;
    }

  private:
    // The pending check owns the watch, so a thread may end before its last check fires. The
    // timer is never cancelled: its canceller travels inside its own callback.
    void schedule(Clock::duration after) {
        auto canceller = std::make_shared<common::TickManager::Canceller>();
        *canceller =
            common::delay([self = shared_from_this(), canceller](std::int64_t) { self->check(); },
                          std::chrono::ceil<std::chrono::milliseconds>(after).count());
    }

    void check() {
        const Watched* report = nullptr;
        Clock::duration next = kWatchdog;
        {
            common::MutexLock lock(mutex_);
            if (!current_.watched) {
                armed_ = false;  // idle: the next callback arms a new check
                return;
            }
            const Clock::duration elapsed = Clock::now() - current_.started;
            if (elapsed < kWatchdog) {
                next = kWatchdog - elapsed;  // a later callback: due at its own deadline
            } else if (!current_.reported) {
                current_.reported = true;
                reporting_ = true;
                report = current_.watched;
            }
        }
        schedule(next);
        if (report) {
            const ReportDone done{*this};  // even when the logging throws
            warnSlowCallback(*report);
        }
    }

    struct ReportDone {
        Watch& watch;
        ~ReportDone() {
            {
                common::MutexLock lock(watch.mutex_);
                watch.reporting_ = false;
            }
            watch.reported_.notify_all();
        }
    };

    common::Mutex mutex_;
    std::condition_variable reported_;  // end() waits here for a report being written
    Run current_ ORVALE_GUARDED_BY(mutex_);
    bool armed_ ORVALE_GUARDED_BY(mutex_) = false;  // a check is scheduled
    // The current run's report is being written, with no lock held.
    bool reporting_ ORVALE_GUARDED_BY(mutex_) = false;
};

Watch& threadWatch() {
    thread_local const std::shared_ptr<Watch> watch = std::make_shared<Watch>();
    return *watch;
}

}  // namespace

void runSubscriptionCallback(const SubscriptionHolder& holder, const JsonMessage& message,
                             const CallbackLoggers& loggers) {
    const Watched watched{&holder, &message, &loggers};
    Watch& watch = threadWatch();
    const Watch::Run interrupted = watch.begin(watched);
    const auto& logger = *loggers.instance;
    if (logger.enabled(log::trace))
        logger.log(log::trace, "Executing callback for channel: ", message.getChannel(),
                   ", json: ", message.getJson());
    try {
        holder.callback(message);
    } catch (const std::exception& e) {
        logger.log(log::warning,
                   "Caught exception from subscription callback: ", message.getChannel(), ", ",
                   e.what());
    } catch (...) {
        logger.log(log::warning,
                   "Caught unknown exception from subscription callback: ", message.getChannel());
    }
    watch.end(interrupted);
}

}  // namespace connector::message_service
