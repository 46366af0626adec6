#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "connector/common/delay.h"
#include "log_capture.h"

namespace {

using connector::common::delay;
using connector::common::TickManager;
using orvale::test::waitUntil;
using Clock = std::chrono::steady_clock;

// Timers fire in deadline order on one thread, so once a later sentinel has fired, any earlier
// timer that was going to fire has fired.
void waitForSentinel(std::int64_t delayMs) {
    auto fired = std::make_shared<std::atomic<bool>>(false);
    auto sentinel = delay([fired](std::int64_t) { *fired = true; }, delayMs);
    ASSERT_TRUE(waitUntil([&] { return fired->load(); }));
}

TEST(DelayTest, FiresOnceAfterTheDelayWithTheScheduledTime) {
    std::atomic<int> calls{0};
    std::atomic<std::int64_t> firstArg{-1}, secondArg{-1};
    Clock::time_point firedAt;
    const auto start = Clock::now();
    auto first = delay(
        [&](std::int64_t scheduled) {
            firedAt = Clock::now();
            firstArg = scheduled;
            ++calls;
        },
        40);
    auto second = delay([&](std::int64_t scheduled) { secondArg = scheduled; }, 140);
    ASSERT_TRUE(waitUntil([&] { return secondArg.load() >= 0; }));
    EXPECT_EQ(calls.load(), 1);
    EXPECT_GE(firedAt - start, std::chrono::milliseconds(40));
    // The argument is the scheduled time, so the gap between the two is the gap in delays.
    EXPECT_GE(secondArg - firstArg, 100);
    EXPECT_LE(secondArg - firstArg, 120);
    EXPECT_FALSE(first.cancel()) << "a fired timer cannot be cancelled";
}

TEST(DelayTest, CancelledOrDestroyedCancellersNeverFire) {
    std::atomic<int> fired{0};
    auto cancelled = delay([&](std::int64_t) { ++fired; }, 20);
    EXPECT_TRUE(cancelled.cancel());
    EXPECT_FALSE(cancelled.cancel()) << "the second cancel has nothing left to stop";
    {
        auto destroyed = delay([&](std::int64_t) { ++fired; }, 20);
    }

    TickManager::Canceller replaced = delay([&](std::int64_t) { ++fired; }, 20);
    replaced = delay([&](std::int64_t) { fired += 100; }, 30);  // cancels the first one

    TickManager::Canceller moved = delay([&](std::int64_t) { fired += 1000; }, 20);
    TickManager::Canceller target(std::move(moved));
    EXPECT_FALSE(moved.cancel()) << "a moved-from canceller owns nothing";  // NOLINT
    TickManager::Canceller empty;
    EXPECT_FALSE(empty.cancel());

    waitForSentinel(80);
    EXPECT_EQ(fired.load(), 1100);
}

TEST(DelayTest, CancelWaitsForARunningCallback) {
    std::atomic<bool> entered{false}, cancelling{false}, done{false};
    auto canceller = delay(
        [&](std::int64_t) {
            entered = true;
            waitUntil([&] { return cancelling.load(); });
            // Give cancel() time to reach its wait before finishing.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            done = true;
        },
        0);
    ASSERT_TRUE(waitUntil([&] { return entered.load(); }));
    bool doneWhenCancelReturned = false;
    bool stopped = true;
    std::thread other([&] {
        cancelling = true;
        stopped = canceller.cancel();
        doneWhenCancelReturned = done.load();
    });
    other.join();
    EXPECT_FALSE(stopped) << "the callback had already started";
    EXPECT_TRUE(doneWhenCancelReturned);
}

TEST(DelayTest, CancelFromInsideItsOwnCallbackDoesNotDeadlock) {
    auto canceller = std::make_shared<TickManager::Canceller>();
    std::mutex mutex;  // orders the assignment below before the callback reads it
    std::atomic<bool> returned{false};
    std::atomic<bool> result{true};
    {
        std::lock_guard<std::mutex> lock(mutex);
        *canceller = delay(
            [&, canceller](std::int64_t) {
                std::lock_guard<std::mutex> inner(mutex);
                result = canceller->cancel();
                returned = true;
            },
            0);
    }
    ASSERT_TRUE(waitUntil([&] { return returned.load(); }));
    EXPECT_FALSE(result.load());
    // The timer thread still works afterwards.
    waitForSentinel(1);
}

TEST(DelayTest, ManyTimersFireInDeadlineOrder) {
    std::mt19937 random(7);
    std::uniform_int_distribution<int> delays(0, 80);
    std::mutex mutex;
    std::vector<std::int64_t> order;  // scheduled times, in firing order
    std::vector<TickManager::Canceller> cancellers;
    for (int i = 0; i < 300; ++i) {
        cancellers.push_back(delay(
            [&](std::int64_t scheduled) {
                std::lock_guard<std::mutex> lock(mutex);
                order.push_back(scheduled);
            },
            delays(random)));
    }
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return order.size() == 300;
    }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(DelayTest, ConcurrentSchedulingAndCancelling) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 2000;
    std::atomic<int> firedKept{0}, firedCancelled{0}, cancelledOk{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::vector<TickManager::Canceller> kept;
            for (int i = 0; i < kPerThread; ++i) {
                if (i % 2 == 0) {
                    kept.push_back(delay([&](std::int64_t) { ++firedKept; }, (i + t) % 20));
                } else {
                    auto c = delay([&](std::int64_t) { ++firedCancelled; }, 50 + i % 50);
                    if (c.cancel())
                        ++cancelledOk;
                }
            }
            waitUntil([&] { return firedKept.load() >= kThreads * kPerThread / 2; });
        });
    }
    for (auto& thread : threads)
        thread.join();
    waitForSentinel(110);
    EXPECT_EQ(firedKept.load(), kThreads * kPerThread / 2);
    EXPECT_EQ(cancelledOk.load(), kThreads * kPerThread / 2);
    EXPECT_EQ(firedCancelled.load(), 0);
}

TEST(DelayTest, ThrowingCallbackIsLoggedAndTheTimerGoesOn) {
    orvale::test::LogCapture logs;
    auto failing = delay([](std::int64_t) { throw std::runtime_error("boom"); }, 0);
    waitForSentinel(5);
    EXPECT_TRUE(waitUntil([&] { return logs.contains("Timer callback threw: boom"); }));
}

}  // namespace
