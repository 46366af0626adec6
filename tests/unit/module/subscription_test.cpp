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

TEST(Subscription, CancelsOnceWithItsContextAndSucceedsAtOnceAfterwards) {
    auto service = std::make_shared<RecordingService>();
    auto context = std::make_shared<common::ContextState>();
    { auto dropped = std::make_shared<SubscriptionImpl2>(7, service, context); }
    ASSERT_EQ(service->calls.size(), 1u);
    EXPECT_EQ(service->calls[0], std::make_pair(std::uint64_t{7}, context));

    SubscriptionImpl2 handle(8, service, nullptr);
    EXPECT_TRUE(handle.unsubscribe().get().success);
    EXPECT_EQ(service->calls[1], std::make_pair(std::uint64_t{8}, decltype(context)()));
    // Once cancelled, or once its service is gone, a handle succeeds without asking anyone.
    auto orphan = std::make_shared<SubscriptionImpl2>(9, service, nullptr);
    auto again = handle.unsubscribe();
    EXPECT_EQ(service->calls.size(), 2u);
    service.reset();
    auto orphaned = orphan->unsubscribe();
    for (auto* future : {&again, &orphaned}) {
        ASSERT_TRUE(future->waitFor(std::chrono::milliseconds(0)));
        EXPECT_TRUE(future->get().success);
    }
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
