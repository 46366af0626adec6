#include "connector/message_service/cached_value_publisher.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

namespace connector::reactive_streams {
namespace {

// A subscriber that records what it receives and requests only what the test asks for.
class ManualSubscriber : public Subscriber<int> {
  public:
    void onSubscribe(std::shared_ptr<Subscription> s) override { subscription = s; }
    void onComplete() override { ++completed; }
    Future<bool> done() override { return makeReadyFuture<bool>(true); }
    void onNext(int&& value) override { values.push_back(value); }
    void onError(std::exception_ptr) override { ++errors; }

    std::shared_ptr<Subscription> subscription;
    std::vector<int> values;
    int completed = 0;
    int errors = 0;
};

using Publisher = CachedValuePublisher<int>;

TEST(CachedValuePublisher, ValuesCachedBeforeSubscriptionArriveInOrder) {
    int done = 0;
    auto publisher = std::make_shared<Publisher>([&] { ++done; }, -1);
    for (int i = 0; i < 5; ++i)
        publisher->next(int(i));
    std::vector<int> received;
    auto subscriber =
        std::make_shared<CallbackSubscriber<int>>([&](int v) { received.push_back(v); });
    publisher->subscribe(subscriber);
    publisher->next(5);
    EXPECT_EQ(received, (std::vector<int>{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(done, 0);
}

TEST(CachedValuePublisher, BoundedCacheDropsOldestAndZeroKeepsNewest) {
    auto bounded = std::make_shared<Publisher>([] {}, 2);
    for (int i = 0; i < 5; ++i)
        bounded->next(int(i));
    EXPECT_EQ(bounded->cachedCount(), 2u);
    auto subscriber = std::make_shared<ManualSubscriber>();
    bounded->subscribe(subscriber);
    subscriber->subscription->request(10);
    EXPECT_EQ(subscriber->values, (std::vector<int>{3, 4}));

    auto zero = std::make_shared<Publisher>([] {}, 0);
    zero->next(1);
    zero->next(2);
    auto second = std::make_shared<ManualSubscriber>();
    zero->subscribe(second);
    second->subscription->request(5);
    EXPECT_EQ(second->values, (std::vector<int>{2}));
}

TEST(CachedValuePublisher, CompleteWaitsForTheCacheToDrain) {
    int done = 0;
    auto publisher = std::make_shared<Publisher>([&] { ++done; }, -1);
    auto doneFuture = publisher->done();
    auto subscriber = std::make_shared<ManualSubscriber>();
    publisher->subscribe(subscriber);
    publisher->next(1);
    publisher->next(2);
    publisher->complete();
    EXPECT_EQ(subscriber->completed, 0);
    EXPECT_FALSE(doneFuture.waitFor(std::chrono::milliseconds(0)));
    subscriber->subscription->request(1);
    EXPECT_EQ(subscriber->completed, 0);
    subscriber->subscription->request(1);
    EXPECT_EQ(subscriber->values, (std::vector<int>{1, 2}));
    EXPECT_EQ(subscriber->completed, 1);
    EXPECT_EQ(done, 1);
    EXPECT_TRUE(doneFuture.get());
    publisher->next(3);  // discarded after the end
    EXPECT_EQ(subscriber->values.size(), 2u);
}

TEST(CachedValuePublisher, CompletedBeforeSubscriptionTellsLateSubscriber) {
    int done = 0;
    auto publisher = std::make_shared<Publisher>([&] { ++done; }, -1);
    publisher->complete();
    EXPECT_EQ(done, 1);
    auto subscriber = std::make_shared<ManualSubscriber>();
    publisher->subscribe(subscriber);
    EXPECT_TRUE(subscriber->subscription != nullptr);
    EXPECT_EQ(subscriber->completed, 1);
}

TEST(CachedValuePublisher, CancelEndsWithoutCompletion) {
    int done = 0;
    auto publisher = std::make_shared<Publisher>([&] { ++done; }, -1);
    auto doneFuture = publisher->done();
    auto subscriber = std::make_shared<ManualSubscriber>();
    publisher->subscribe(subscriber);
    publisher->next(1);
    subscriber->subscription->cancel();
    EXPECT_FALSE(doneFuture.get());
    EXPECT_EQ(done, 1);
    subscriber->subscription->request(1);
    EXPECT_TRUE(subscriber->values.empty());
    EXPECT_EQ(subscriber->completed, 0);
    publisher.reset();  // destruction does not run onDone a second time
    EXPECT_EQ(done, 1);
}

// Demand adds up and stops at the maximum: a sum past it must not wrap round to a small number
// (each pair below wraps to 0), which would hold every later value in the cache.
TEST(CachedValuePublisher, DemandSaturatesAtTheMaximum) {
    constexpr std::uint64_t kMax = UINT64_MAX;
    for (const auto& [first, second] :
         {std::pair{kMax - 1, std::uint64_t{2}}, std::pair{kMax, std::uint64_t{1}}}) {
        SCOPED_TRACE(std::to_string(first) + " + " + std::to_string(second));
        auto publisher = std::make_shared<Publisher>([] {}, -1);
        auto subscriber = std::make_shared<ManualSubscriber>();
        publisher->subscribe(subscriber);
        subscriber->subscription->request(first);
        subscriber->subscription->request(second);
        for (int i = 0; i < 100; ++i)
            publisher->next(int(i));
        EXPECT_EQ(subscriber->values.size(), 100u);
        EXPECT_EQ(publisher->cachedCount(), 0u);
    }
}

TEST(CachedValuePublisher, SecondSubscriberIsRefused) {
    auto publisher = std::make_shared<Publisher>([] {}, -1);
    auto subscriber = std::make_shared<CallbackSubscriber<int>>([](int) {});
    publisher->subscribe(subscriber);
    EXPECT_THROW(publisher->subscribe(std::make_shared<ManualSubscriber>()), std::invalid_argument);
}

TEST(CachedValuePublisher, DestructionCompletesTheSubscriberAndOnDone) {
    int done = 0;
    auto publisher = std::make_shared<Publisher>([&] { ++done; }, -1);
    auto subscriber = std::make_shared<CallbackSubscriber<int>>([](int) {});
    auto finished = subscriber->done();
    publisher->subscribe(subscriber);
    publisher.reset();
    EXPECT_EQ(done, 1);
    EXPECT_TRUE(finished.get());
}

TEST(CachedValuePublisher, ThrowingSubscriberLeavesPublisherUsable) {
    auto publisher = std::make_shared<Publisher>([] {}, -1);
    int calls = 0;
    auto subscriber = std::make_shared<CallbackSubscriber<int>>([&](int v) {
        ++calls;
        if (v == 1)
            throw std::runtime_error("callback failed");
    });
    publisher->subscribe(subscriber);
    EXPECT_THROW(publisher->next(1), std::runtime_error);
    publisher->next(2);
    EXPECT_EQ(calls, 2);
}

TEST(CachedValuePublisher, CallbackMayPublishIntoTheSamePublisher) {
    std::shared_ptr<Publisher> publisher = std::make_shared<Publisher>([] {}, -1);
    std::vector<int> received;
    auto subscriber = std::make_shared<CallbackSubscriber<int>>([&](int v) {
        received.push_back(v);
        if (v < 3)
            publisher->next(v + 1);
    });
    publisher->subscribe(subscriber);
    publisher->next(0);
    EXPECT_EQ(received, (std::vector<int>{0, 1, 2, 3}));
}

TEST(CachedValuePublisher, ConcurrentProducersLoseNothingAndKeepPerProducerOrder) {
    auto publisher = std::make_shared<Publisher>([] {}, -1);
    std::mutex mutex;
    std::vector<int> received;
    auto subscriber = std::make_shared<CallbackSubscriber<int>>([&](int v) {
        std::lock_guard<std::mutex> lock(mutex);
        received.push_back(v);
    });
    publisher->subscribe(subscriber);
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
    std::vector<int> last(3, -1);
    for (int v : received) {
        const int t = v / perThread;
        EXPECT_GT(v, last[t]);
        last[t] = v;
    }
}

TEST(CallbackSubscriber, EndsOnceAndDropsLaterValues) {
    int calls = 0;
    auto subscriber = std::make_shared<CallbackSubscriber<int>>([&](int) { ++calls; });
    auto done = subscriber->done();
    subscriber->onError(std::make_exception_ptr(std::runtime_error("stream failed")));
    subscriber->onComplete();
    subscriber->onNext(1);
    EXPECT_EQ(calls, 0);
    EXPECT_THROW(done.get(), std::runtime_error);

    auto cancelled = std::make_shared<CallbackSubscriber<int>>([&](int) { ++calls; });
    auto cancelledDone = cancelled->done();
    auto publisher = std::make_shared<Publisher>([] {}, -1);
    publisher->subscribe(cancelled);
    cancelled->cancel();
    EXPECT_FALSE(cancelledDone.get());
    publisher->next(1);
    EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace connector::reactive_streams
