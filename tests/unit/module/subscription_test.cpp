#include "connector/message_service/subscription.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace connector::message_service {
namespace {

// Records every cancellation that reaches it.
struct RecordingService : Unsubscribeable {
    Future<CancelResult> unsubscribeId(
        std::uint64_t id, const std::shared_ptr<common::ContextState>& context) override {
        std::lock_guard<std::mutex> lock(mutex);
        calls.emplace_back(id, context);
        return makeReadyFuture<CancelResult>(true);
    }
    std::mutex mutex;
    std::vector<std::pair<std::uint64_t, std::shared_ptr<common::ContextState>>> calls;
};

// A handle reaches its service once (id and context), cancelled, dropped or raced by two threads;
// afterwards, or once its service is gone, it succeeds at once without asking anyone.
TEST(Subscription, CancelsOnceWithItsContextAndSucceedsAtOnceAfterwards) {
    using Call = std::pair<std::uint64_t, std::shared_ptr<common::ContextState>>;
    auto service = std::make_shared<RecordingService>();
    auto context = std::make_shared<common::ContextState>();
    { auto dropped = std::make_shared<SubscriptionImpl2>(7, service, context); }
    SubscriptionImpl2 handle(8, service, nullptr);
    EXPECT_TRUE(handle.unsubscribe().get().success);
    auto again = handle.unsubscribe();
    EXPECT_EQ(service->calls, (std::vector<Call>{{7, context}, {8, nullptr}}));
    auto orphan = std::make_shared<SubscriptionImpl2>(9, service, nullptr);
    service.reset();
    auto orphaned = orphan->unsubscribe();
    // A released holder resolves its cancel promise.
    auto holder = std::make_shared<SubscriptionHolder>(3, [](const JsonMessage&) {});
    auto released = holder->cancelled.getFuture();
    holder.reset();
    for (auto* future : {&again, &orphaned, &released}) {
        ASSERT_TRUE(future->waitFor(std::chrono::milliseconds(0)));
        EXPECT_TRUE(future->get().success);
    }

    for (int round = 0; round < 200; ++round) {
        auto raced = std::make_shared<RecordingService>();
        auto shared = std::make_shared<SubscriptionImpl2>(round, raced, nullptr);
        std::thread a([&] { shared->unsubscribe(); });
        std::thread b([&] { shared->unsubscribe(); });
        a.join();
        b.join();
        shared.reset();
        ASSERT_EQ(raced->calls.size(), 1u);
    }
}

}  // namespace
}  // namespace connector::message_service
