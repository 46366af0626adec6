// Subscription callbacks under their watchdog: a callback running past 100 ms is reported once,
// while it still runs, on each logger; fast ones never are.

#include "common/callback_runner.h"

#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "common/module_logger.h"
#include "log_capture.h"

namespace connector::message_service {
namespace {

const std::string kReport = "Callback took longer than expected, it may be deadlocked: ";

struct CallbackRunnerTest : ::testing::Test {
    void run(const std::string& channel, std::function<void(const JsonMessage&)> callback) {
        const SubscriptionHolder holder(1, std::move(callback));
        runSubscriptionCallback(holder, JsonMessage(channel, std::string("{\"s\":1}")),
                                CallbackLoggers{&instance, &moduleLogger()});
    }
    // A callback that returns once its report is complete on both loggers, noting whether that
    // happened while it ran. Callbacks on other threads are joined before the notes are read.
    std::function<void(const JsonMessage&)> waitsForItsReport() {
        return [this](const JsonMessage& message) {
            const std::string prefix = kReport + message.getChannel() + ", json: {\"s\":1}, ";
            reportedWhileRunning[message.getChannel()] =
                orvale::test::waitUntil([&] { return capture.count(prefix) == 2; });
        };
    }

    orvale::test::LogCapture capture;
    std::map<std::string, bool> reportedWhileRunning;
    const foundation::log::basic_diagnostic_logger<char> instance{
        "connector::message_service::runner"};
};

// Fast callbacks are never reported, each slow one is (timed from its own start, on any thread);
// a nested callback is watched on its own and the outer one again once it returns.
TEST_F(CallbackRunnerTest, EachSlowCallbackIsReportedOnceAndFastOnesNever) {
    for (int i = 0; i < 2000; ++i)
        run("/fast", [](const JsonMessage&) {});
    run("/slow1", waitsForItsReport());
    run("/fast", [](const JsonMessage&) {});
    run("/slow2", [&](const JsonMessage& message) {
        waitsForItsReport()(message);
        // Still running through another thread's whole slow callback, past the next check.
        std::thread([&] { run("/slow3", waitsForItsReport()); }).join();
    });
    run("/outer", [&](const JsonMessage& message) {
        run("/inner", waitsForItsReport());
        run("/quick", [](const JsonMessage&) {});
        waitsForItsReport()(message);
    });
    // Each slow one was reported on both loggers while it ran; no fast one was.
    for (const char* channel : {"/slow1", "/slow2", "/slow3", "/inner", "/outer"}) {
        EXPECT_TRUE(reportedWhileRunning[channel]) << channel;
        EXPECT_EQ(capture.count(kReport + channel + ", "), 2u) << channel;
    }
    for (const char* channel : {"/fast", "/quick"})
        EXPECT_EQ(capture.count(kReport + channel + ", "), 0u) << channel;
    // The module's logger first, then the instance's; the line names the callback's type.
    const auto lines = capture.find(kReport + "/slow1, json: {\"s\":1}, ");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].channel, "connector::message_service");
    EXPECT_EQ(lines[1].channel, "connector::message_service::runner");
    EXPECT_EQ(lines[0].severity, foundation::log::warning);
    EXPECT_EQ(lines[1].severity, foundation::log::warning);
    EXPECT_NE(lines[0].message.find("CallbackRunnerTest"), std::string::npos) << lines[0].message;
}

}  // namespace
}  // namespace connector::message_service
