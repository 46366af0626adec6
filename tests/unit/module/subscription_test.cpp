#include "connector/message_service/subscription.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace connector::message_service {
namespace {

// Records every cancellation that reaches it.
class RecordingService : public Unsubscribeable {
  public:
    Future<CancelResult> unsubscribeId(
        std::uint64_t id, const std::shared_ptr<common::ContextState>& context) override {
        std::lock_guard<std::mutex> lock(mutex);
        calls.emplace_back(id, context);
        return makeReadyFuture<CancelResult>(true);
    }
    std::mutex mutex;
    std::vector<std::pair<std::uint64_t, std::shared_ptr<common::ContextState>>> calls;
};

TEST(Subscription, DroppingTheHandleCancelsOnceWithItsContext) {
    auto service = std::make_shared<RecordingService>();
    auto context = std::make_shared<common::ContextState>();
    { auto handle = std::make_shared<SubscriptionImpl2>(7, service, context); }
    ASSERT_EQ(service->calls.size(), 1u);
    EXPECT_EQ(service->calls[0].first, 7u);
    EXPECT_EQ(service->calls[0].second, context);

    auto empty = std::make_shared<SubscriptionImpl2>(8, service, nullptr);
    empty.reset();
    ASSERT_EQ(service->calls.size(), 2u);
    EXPECT_EQ(service->calls[1].second, nullptr);
}

TEST(Subscription, SecondUnsubscribeSucceedsWithoutReachingTheService) {
    auto service = std::make_shared<RecordingService>();
    SubscriptionImpl2 handle(1, service, nullptr);
    EXPECT_TRUE(handle.unsubscribe().get().success);
    auto second = handle.unsubscribe();
    ASSERT_TRUE(second.waitFor(std::chrono::milliseconds(0)));
    EXPECT_TRUE(second.get().success);
    EXPECT_EQ(service->calls.size(), 1u);
}

TEST(Subscription, HandleOutlivingItsServiceSucceedsAtOnce) {
    auto service = std::make_shared<RecordingService>();
    auto handle = std::make_shared<SubscriptionImpl2>(1, service, nullptr);
    service.reset();
    auto result = handle->unsubscribe();
    ASSERT_TRUE(result.waitFor(std::chrono::milliseconds(0)));
    EXPECT_TRUE(result.get().success);
}

TEST(Subscription, ConcurrentCancelsReachTheServiceOnce) {
    for (int round = 0; round < 200; ++round) {
        auto service = std::make_shared<RecordingService>();
        auto handle = std::make_shared<SubscriptionImpl2>(round, service, nullptr);
        std::thread a([&] { handle->unsubscribe(); });
        std::thread b([&] { handle->unsubscribe(); });
        a.join();
        b.join();
        handle.reset();
        ASSERT_EQ(service->calls.size(), 1u);
    }
}

TEST(Subscription, HolderResolvesItsCancelPromiseWhenReleased) {
    auto holder = std::make_shared<SubscriptionHolder>(3, [](const JsonMessage&) {});
    // The service side can watch the end of a subscription through a continuation.
    auto future = holder->cancelled.getFuture();
    holder.reset();
    ASSERT_TRUE(future.waitFor(std::chrono::milliseconds(0)));
    EXPECT_TRUE(future.get().success);
}

}  // namespace
}  // namespace connector::message_service
