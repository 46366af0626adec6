#include "connector/future.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "failure_text.h"

namespace connector {
namespace {

using orvale::test::failureText;

// Misuse fails with exact texts, and a future left without a value fails too.
TEST(Future, MisuseAbandonmentCancellationContinuationsAndWaitersAcrossThreads) {
    const std::string resolved = "Promise already resolved.";
    const std::string gotten =
        "Future already returned it's value or has an associated continuation.";
    const std::string continued =
        "Future already has returned it's value or has an associated continuation.";
    Promise<int> promise;
    auto future = promise.getFuture();
    EXPECT_EQ(failureText([&] { promise.getFuture(); }), "Promise already returned a future.");
    promise.setValue(1);
    EXPECT_EQ(failureText([&] { promise.setValue(2); }), resolved);
    EXPECT_EQ(failureText([&] { promise.setException(std::runtime_error("x")); }), resolved);
    EXPECT_EQ(future.get(), 1);
    EXPECT_EQ(failureText([&] { future.get(); }), gotten);
    EXPECT_EQ(failureText([&] { future.then([](Future<int>&&) {}); }), continued);

    Promise<int> chained;
    auto withContinuation = chained.getFuture();
    withContinuation.then([](Future<int>&& f) { return f.get(); });
    EXPECT_EQ(failureText([&] { withContinuation.then([](Future<int>&&) {}); }), continued);
    EXPECT_EQ(failureText([&] { withContinuation.get(); }), gotten);

    Future<int> moved = std::move(withContinuation);
    EXPECT_EQ(failureText([&] { withContinuation.get(); }), "Future state isn't valid!");
    Promise<int> movedPromise = std::move(chained);
    EXPECT_EQ(failureText([&] { chained.setValue(3); }), "Promise state isn't valid!");

    // A future left without a value, by its promise's end or by cancellation, fails instead of
    // hanging, and so does a continuation waiting on it; a continuation that throws fails too.
    const std::string abandoned = "Promise destroyed before it provided a value.";
    Future<int> orphan;
    std::string seen;
    {
        Promise<int> ending, continued;
        orphan = ending.getFuture();
        continued.getFuture().then([&](Future<int>&& f) { seen = failureText([&] { f.get(); }); });
    }
    EXPECT_EQ(failureText(orphan), abandoned);
    EXPECT_EQ(seen, abandoned);

    Promise<int> cancelling;
    auto cancelled = cancelling.getFuture();
    EXPECT_TRUE(cancelled.cancel());
    EXPECT_NO_THROW(cancelling.setValue(3));
    EXPECT_EQ(failureText([&] { cancelled.get(); }), "Future has been cancelled.");
    EXPECT_FALSE(makeReadyFuture<int>(1).cancel());
    Promise<int> upstream;
    auto head = upstream.getFuture();
    auto tail = head.then([](Future<int>&& f) { return f.get(); });
    head.cancel();
    EXPECT_EQ(failureText(tail), abandoned);

    // A throwing continuation fails its own future with that very exception.
    struct Custom : std::runtime_error {
        using std::runtime_error::runtime_error;
    };
    auto thrown = makeReadyFuture<int>(1).then([](Future<int>&&) -> int { throw Custom("boom"); });
    EXPECT_THROW(thrown.get(), Custom);

    // A continuation runs at once when the value is there, else on the resolving thread, exactly
    // once however the two race; continuations chain, and every thread waiting on one future wakes.
    std::thread::id ranOn;
    auto noteThread = [&](Future<int>&& f) {
        ranOn = std::this_thread::get_id();
        return std::to_string(f.get());
    };
    auto next = makeReadyFuture<int>(20).then(noteThread);
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    ASSERT_TRUE(next.waitFor(std::chrono::milliseconds(0)));
    EXPECT_EQ(next.get(), "20");

    Promise<int> resolving;
    auto chain = resolving.getFuture().then(noteThread).then([](Future<std::string>&& f) {
        return f.get() + "!";
    });
    std::thread resolver([&] { resolving.setValue(5); });
    const auto resolverId = resolver.get_id();
    resolver.join();
    EXPECT_EQ(ranOn, resolverId);
    EXPECT_EQ(chain.get(), "5!");

    // Resolution races attachment: every continuation runs exactly once with the value.
    constexpr int rounds = 2000;
    std::atomic<int> ran{0};
    std::atomic<long> sum{0};
    for (int i = 0; i < rounds; ++i) {
        Promise<int> racing;
        auto raced = racing.getFuture();
        std::thread setter([&racing, i] { racing.setValue(i); });
        if (i % 2 == 0) {
            raced.then([&](Future<int>&& f) {
                sum += f.get();
                ++ran;
            });
        } else {
            sum += raced.get();
            ++ran;
        }
        setter.join();
    }
    EXPECT_EQ(ran.load(), rounds);
    EXPECT_EQ(sum.load(), static_cast<long>(rounds) * (rounds - 1) / 2);

    Promise<void> gate;
    auto gated = gate.getFuture();
    std::vector<std::thread> waiters;
    std::atomic<int> woken{0};
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] { woken += gated.waitFor(std::chrono::seconds(5)); });
    gate.setValue();
    for (auto& t : waiters)
        t.join();
    EXPECT_EQ(woken.load(), 4);
    EXPECT_NO_THROW(gated.get());
}

}  // namespace
}  // namespace connector
