#include "connector/common/delay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "log_capture.h"

namespace {

using connector::common::delay;
using connector::common::TickManager;
using orvale::test::waitUntil;

// Timers fire in deadline order on one thread, so once a later sentinel has fired, any earlier
// timer that was going to fire has fired.
void waitForSentinel(std::int64_t delayMs) {
    auto fired = std::make_shared<std::atomic<bool>>(false);
    auto sentinel = delay([fired](std::int64_t) { *fired = true; }, delayMs);
    ASSERT_TRUE(waitUntil([&] { return fired->load(); }));
}

// Each timer fires once, in deadline order, with its scheduled time; a throwing one is logged.
TEST(DelayTest, TimersFireOnceInDeadlineOrderAndCancelWaitsForARunningCallbackUnlessInsideIt) {
    orvale::test::LogCapture logs;
    auto failing = delay([](std::int64_t) { throw std::runtime_error("boom"); }, 0);
    std::mt19937 random(7);
    std::mutex mutex;
    std::vector<std::int64_t> order;  // scheduled times, in firing order
    std::vector<TickManager::Canceller> cancellers;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 300; ++i) {
        const int ms = i == 0 ? 140 : i == 1 ? 40 : int(random() % 80);
        cancellers.push_back(delay(
            [&, ms, start](std::int64_t scheduled) {
                EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(ms));
                std::lock_guard<std::mutex> lock(mutex);
                order.push_back(scheduled);
            },
            ms));
    }
    waitForSentinel(150);
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(order.size(), 300u);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    // The gap between the first and the last is the gap in their delays.
    EXPECT_GE(order.back() - order.front(), 140 - 80);
    EXPECT_LE(order.back() - order.front(), 160);
    EXPECT_FALSE(cancellers[0].cancel()) << "a fired timer cannot be cancelled";
    EXPECT_TRUE(logs.contains("Timer callback threw: boom"));

    // Threads scheduling and cancelling at once: kept timers fire once, cancelled ones never.
    constexpr int kThreads = 4, kPerThread = 2000;
    std::atomic<int> firedKept{0}, firedCancelled{0}, cancelledOk{0};
    // Ahead of the cancelled timers, it keeps the timer thread from dropping them from the top.
    auto anchor = delay([](std::int64_t) {}, 50000);
    // A delay too long for the clock is as good as never, not due at once.
    auto never = delay([&](std::int64_t) { ++firedCancelled; }, INT64_MAX);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::vector<TickManager::Canceller> kept;
            for (int i = 0; i < kPerThread; ++i) {
                if (i % 2 == 0)
                    kept.push_back(delay([&](std::int64_t) { ++firedKept; }, (i + t) % 20));
                else
                    cancelledOk +=
                        delay([&](std::int64_t) { ++firedCancelled; }, 60000 + i).cancel();
            }
            waitUntil([&] { return firedKept.load() >= kThreads * kPerThread / 2; });
        });
    }
    for (auto& thread : threads)
        thread.join();
    // The cancelled timers now dominate the queue: the next cancel compacts it.
    EXPECT_TRUE(anchor.cancel());
    waitForSentinel(110);
    EXPECT_EQ(firedKept.load(), kThreads * kPerThread / 2);
    EXPECT_EQ(cancelledOk.load(), kThreads * kPerThread / 2);
    EXPECT_EQ(firedCancelled.load(), 0);
    EXPECT_TRUE(never.cancel());

    // Cancelled or destroyed cancellers never fire; cancel() waits for a callback that already
    // runs, except from inside that callback.
    std::atomic<int> fired{0};
    auto cancelled = delay([&](std::int64_t) { ++fired; }, 20);
    EXPECT_TRUE(cancelled.cancel());
    EXPECT_FALSE(cancelled.cancel()) << "the second cancel has nothing left to stop";
    delay([&](std::int64_t) { ++fired; }, 20);  // its canceller is destroyed at once
    TickManager::Canceller replaced = delay([&](std::int64_t) { ++fired; }, 20);
    replaced = delay([&](std::int64_t) { fired += 100; }, 30);  // cancels the first one
    TickManager::Canceller moved = delay([&](std::int64_t) { fired += 1000; }, 20);
    TickManager::Canceller target(std::move(moved));
    EXPECT_FALSE(moved.cancel()) << "a moved-from canceller owns nothing";  // NOLINT
    EXPECT_FALSE(TickManager::Canceller().cancel());
    waitForSentinel(80);
    EXPECT_EQ(fired.load(), 1100);

    std::atomic<bool> entered{false}, cancelling{false}, done{false};
    auto running = delay(
        [&](std::int64_t) {
            entered = true;
            waitUntil([&] { return cancelling.load(); });
            std::this_thread::sleep_for(std::chrono::milliseconds(50));  // cancel() waits
            done = true;
        },
        0);
    ASSERT_TRUE(waitUntil([&] { return entered.load(); }));
    cancelling = true;
    EXPECT_FALSE(running.cancel()) << "the callback had already started";
    EXPECT_TRUE(done.load());

    auto self = std::make_shared<TickManager::Canceller>();
    std::mutex ordering;  // orders the assignment below before the callback reads it
    std::atomic<int> result{-1};
    {
        std::lock_guard<std::mutex> assigning(ordering);
        *self = delay(
            [&, self](std::int64_t) {
                std::lock_guard<std::mutex> inner(ordering);
                result = self->cancel();
            },
            0);
    }
    ASSERT_TRUE(waitUntil([&] { return result.load() >= 0; }));
    EXPECT_EQ(result.load(), 0);
    waitForSentinel(1);  // the timer thread still works afterwards
}

}  // namespace
