#include "connector/message_service/cached_value_publisher.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

namespace connector::reactive_streams {
namespace {

using Publisher = CachedValuePublisher<int>;
using Ints = std::vector<int>;

// A subscriber that records what it receives and requests only what the test asks for.
struct ManualSubscriber : Subscriber<int> {
    void onSubscribe(std::shared_ptr<Subscription> s) override { subscription = s; }
    void onComplete() override { ++completed; }
    Future<bool> done() override { return makeReadyFuture<bool>(true); }
    void onNext(int&& value) override { values.push_back(value); }
    void onError(std::exception_ptr) override {}

    std::shared_ptr<Subscription> subscription;
    Ints values;
    int completed = 0;
};

struct CachedValuePublisherTest : ::testing::Test {
    // A publisher of `cache` places counting its onDone calls, with a subscriber.
    std::shared_ptr<Publisher> make(int cache = -1) {
        auto publisher = std::make_shared<Publisher>([this] { ++doneCalls; }, cache);
        publisher->subscribe(subscriber);
        return publisher;
    }
    std::shared_ptr<ManualSubscriber> subscriber = std::make_shared<ManualSubscriber>();
    int doneCalls = 0;
};

// Values published before there is demand wait in the cache, in order; a bounded cache drops the
// oldest, a cache of zero keeps the newest. Demand saturates at the maximum: a sum wrapping round
// (each pair below would wrap to 0) would hold every later value in the cache.
TEST_F(CachedValuePublisherTest, CacheDemandCompletionCancelAndCallbacksFollowTheStreamRules) {
    for (const auto& [cache, expected] :
         {std::pair{-1, Ints{0, 1, 2, 3, 4}}, std::pair{2, Ints{3, 4}}, std::pair{0, Ints{4}}}) {
        auto publisher = std::make_shared<Publisher>([] {}, cache);
        for (int i = 0; i < 5; ++i)
            publisher->next(int(i));
        EXPECT_EQ(publisher->cachedCount(), expected.size());
        auto late = std::make_shared<ManualSubscriber>();
        publisher->subscribe(late);
        late->subscription->request(10);
        EXPECT_EQ(late->values, expected) << cache;
        publisher->next(5);
        EXPECT_EQ(late->values.back(), 5);
    }

    auto publisher = make();
    for (const auto& [first, second] : {std::pair<std::uint64_t, std::uint64_t>{UINT64_MAX, 1},
                                        std::pair<std::uint64_t, std::uint64_t>{99, 2}}) {
        subscriber->subscription->request(first);
        subscriber->subscription->request(second);
        for (int i = 0; i < 100; ++i)
            publisher->next(int(i));
    }
    EXPECT_EQ(subscriber->values.size(), 200u);
    EXPECT_EQ(publisher->cachedCount(), 0u);

    // Completion waits for the cache to drain; the publisher replaced here ended once.
    subscriber = std::make_shared<ManualSubscriber>();
    publisher = make();
    auto doneFuture = publisher->done();
    publisher->next(1);
    publisher->next(2);
    publisher->complete();
    EXPECT_EQ(subscriber->completed, 0);
    EXPECT_FALSE(doneFuture.waitFor(std::chrono::milliseconds(0)));
    subscriber->subscription->request(1);
    EXPECT_EQ(subscriber->completed, 0);
    subscriber->subscription->request(1);
    EXPECT_EQ(subscriber->values, (Ints{1, 2}));
    EXPECT_EQ(subscriber->completed, 1);
    EXPECT_EQ(doneCalls, 2);
    EXPECT_TRUE(doneFuture.get());
    publisher->next(3);  // discarded after the end
    EXPECT_EQ(subscriber->values.size(), 2u);

    // Completed before anyone subscribed: the late subscriber is told at once.
    auto early = std::make_shared<Publisher>([this] { ++doneCalls; }, -1);
    early->complete();
    EXPECT_EQ(doneCalls, 3);
    auto late = std::make_shared<ManualSubscriber>();
    early->subscribe(late);
    EXPECT_NE(late->subscription, nullptr);
    EXPECT_EQ(late->completed, 1);

    // A cancel ends the stream without completion; a publisher takes one subscriber, whose end
    // its destructor signals; onDone runs once either way.
    subscriber = std::make_shared<ManualSubscriber>();
    publisher = make();
    auto cancelled = publisher->done();
    publisher->next(1);
    subscriber->subscription->cancel();
    EXPECT_FALSE(cancelled.get());
    EXPECT_EQ(doneCalls, 4);
    subscriber->subscription->request(1);
    EXPECT_TRUE(subscriber->values.empty());
    EXPECT_EQ(subscriber->completed, 0);
    publisher.reset();
    EXPECT_EQ(doneCalls, 4);

    publisher = std::make_shared<Publisher>([this] { ++doneCalls; }, -1);
    auto callback = std::make_shared<CallbackSubscriber<int>>([](int) {});
    auto finished = callback->done();
    publisher->subscribe(callback);
    EXPECT_THROW(publisher->subscribe(subscriber), std::invalid_argument);
    publisher.reset();
    EXPECT_EQ(doneCalls, 5);
    EXPECT_TRUE(finished.get());

    // A throwing callback leaves the publisher usable, and a callback may publish into it; a
    // subscriber ends once and drops what comes after its end. Concurrent producers lose nothing
    // and keep their own order.
    publisher = std::make_shared<Publisher>([] {}, -1);
    Ints received;
    publisher->subscribe(std::make_shared<CallbackSubscriber<int>>([&](int v) {
        received.push_back(v);
        if (v == 1)
            throw std::runtime_error("callback failed");
        if (v >= 10 && v < 13)
            publisher->next(v + 1);
    }));
    EXPECT_THROW(publisher->next(1), std::runtime_error);
    publisher->next(2);
    publisher->next(10);
    EXPECT_EQ(received, (Ints{1, 2, 10, 11, 12, 13}));

    int calls = 0;
    auto ended = std::make_shared<CallbackSubscriber<int>>([&](int) { ++calls; });
    auto done = ended->done();
    ended->onError(std::make_exception_ptr(std::runtime_error("stream failed")));
    ended->onComplete();
    ended->onNext(1);
    EXPECT_EQ(calls, 0);
    EXPECT_THROW(done.get(), std::runtime_error);

    auto cancelling = std::make_shared<CallbackSubscriber<int>>([&](int) { ++calls; });
    auto cancellingDone = cancelling->done();
    publisher = std::make_shared<Publisher>([] {}, -1);
    publisher->subscribe(cancelling);
    cancelling->cancel();
    EXPECT_FALSE(cancellingDone.get());
    publisher->next(1);
    EXPECT_EQ(calls, 0);

    publisher = std::make_shared<Publisher>([] {}, -1);
    std::mutex mutex;
    received.clear();
    publisher->subscribe(std::make_shared<CallbackSubscriber<int>>([&](int v) {
        std::lock_guard<std::mutex> lock(mutex);
        received.push_back(v);
    }));
    constexpr int perThread = 5000;
    std::vector<std::thread> producers;
    for (int t = 0; t < 3; ++t)
        producers.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i)
                publisher->next(t * perThread + i);
        });
    for (auto& p : producers)
        p.join();
    ASSERT_EQ(received.size(), 3u * perThread);
    Ints last(3, -1);
    for (int v : received) {
        EXPECT_GT(v, last[v / perThread]);
        last[v / perThread] = v;
    }
}

}  // namespace
}  // namespace connector::reactive_streams
