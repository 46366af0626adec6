// Subscription callbacks under their watchdog: a callback running past 100 ms is reported once,
// while it still runs, on each logger; fast ones never are.

#include "common/callback_runner.h"

#include <gtest/gtest.h>

#include <thread>

#include "common/module_logger.h"
#include "log_capture.h"

namespace connector::message_service {
namespace {

using orvale::test::LogCapture;
using orvale::test::waitUntil;

const std::string kReport = "Callback took longer than expected, it may be deadlocked: ";

class CallbackRunnerTest : public ::testing::Test {
  protected:
    void run(const std::string& channel, std::function<void(const JsonMessage&)> callback) {
        const SubscriptionHolder holder(1, std::move(callback));
        runSubscriptionCallback(holder, JsonMessage(channel, std::string("{\"s\":1}")),
                                CallbackLoggers{&instance, &moduleLogger()});
    }
    // A callback that returns once its own report is complete on both loggers, and notes
    // whether that happened while it ran.
    std::function<void(const JsonMessage&)> waitsForItsReport(bool& reported) {
        return [this, &reported](const JsonMessage& message) {
            const std::string prefix = kReport + message.getChannel() + ", json: {\"s\":1}, ";
            reported = waitUntil([&] { return capture.count(prefix) == 2; });
        };
    }
    std::size_t reports(const std::string& channel) {
        return capture.count(kReport + channel + ", ");
    }

    LogCapture capture;
    const foundation::log::basic_diagnostic_logger<char> instance{
        "connector::message_service::runner"};
};

TEST_F(CallbackRunnerTest, SlowCallbackIsReportedOnceWhileItRunsOnTheModuleThenInstanceLogger) {
    bool reported = false, probed = false;
    run("/slow", [&](const JsonMessage& message) {
        waitsForItsReport(reported)(message);
        // Keeps running through another thread's whole slow callback, past the next check.
        std::thread([&] { run("/probe", waitsForItsReport(probed)); }).join();
    });
    EXPECT_TRUE(reported);
    EXPECT_TRUE(probed);
    const auto lines = capture.find(kReport + "/slow, json: {\"s\":1}, ");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].channel, "connector::message_service");
    EXPECT_EQ(lines[1].channel, "connector::message_service::runner");
    EXPECT_EQ(lines[0].severity, foundation::log::warning);
    EXPECT_EQ(lines[1].severity, foundation::log::warning);
    // The line names the callback's type.
    EXPECT_NE(lines[0].message.find("CallbackRunnerTest"), std::string::npos) << lines[0].message;
}

// One watch per thread follows its callbacks one after another: a run of fast callbacks is never
// reported, and each slow one is, counted from its own start, on any thread.
TEST_F(CallbackRunnerTest, EachSlowCallbackIsReportedOnceAndFastOnesNever) {
    for (int i = 0; i < 2000; ++i)
        run("/fast", [](const JsonMessage&) {});
    bool first = false, second = false, other = false;
    run("/slow1", waitsForItsReport(first));
    run("/fast", [](const JsonMessage&) {});
    run("/slow2", waitsForItsReport(second));
    std::thread([&] { run("/slow3", waitsForItsReport(other)); }).join();
    EXPECT_TRUE(first);
    EXPECT_TRUE(second);
    EXPECT_TRUE(other);
    EXPECT_EQ(reports("/fast"), 0u);
    EXPECT_EQ(reports("/slow1"), 2u);
    EXPECT_EQ(reports("/slow2"), 2u);
    EXPECT_EQ(reports("/slow3"), 2u);
}

// A callback may run callbacks itself: the inner one is watched on its own, and the outer one is
// watched again once the inner one has returned.
TEST_F(CallbackRunnerTest, NestedCallbacksAreWatchedEach) {
    bool inner = false, outer = false;
    run("/outer", [&](const JsonMessage& message) {
        run("/inner", waitsForItsReport(inner));
        run("/quick", [](const JsonMessage&) {});
        waitsForItsReport(outer)(message);
    });
    EXPECT_TRUE(inner);
    EXPECT_TRUE(outer);
    EXPECT_EQ(reports("/inner"), 2u);
    EXPECT_EQ(reports("/outer"), 2u);
    EXPECT_EQ(reports("/quick"), 0u);
}

}  // namespace
}  // namespace connector::message_service
