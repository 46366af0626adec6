#include "connector/log/diagnostic_logger.h"

#include <gtest/gtest.h>

#include "connector/message_service/types.h"
#include "log_capture.h"

namespace foundation::log {
namespace {

struct Counted {
    int* streamed;
};
std::ostream& operator<<(std::ostream& out, const Counted& c) {
    ++*c.streamed;
    return out << "counted";
}

TEST(DiagnosticLogger, RecordsCarryChannelSeverityAndMessage) {
    orvale::test::LogCapture capture;
    basic_diagnostic_logger<char> logger("connector::message_service::svc");
    logger.log(trace, "Subscribe: ", "/a", ", ", 3);
    logger.log(error, "State: ", connector::message_service::ConnectionState::DISCONNECTED);
    auto records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].channel, "connector::message_service::svc");
    EXPECT_EQ(records[1].channel, logger.name());
    EXPECT_EQ(records[0].severity, 8);
    EXPECT_EQ(records[0].message, "Subscribe: /a, 3");
    EXPECT_EQ(records[1].severity, 512);
    EXPECT_EQ(records[1].message, "State: DISCONNECTED");
}

TEST(DiagnosticLogger, MaskUsesOnlyLowFifteenBits) {
    orvale::test::LogCapture capture;
    basic_diagnostic_logger<char> logger("t");
    int streamed = 0;
    setEnabledMask(warning | error);
    logger.log(trace, Counted{&streamed});
    EXPECT_EQ(streamed, 0) << "a disabled line must not be built";
    setEnabledMask(0x8000 | trace);
    EXPECT_TRUE(logger.enabled(trace));
    EXPECT_FALSE(logger.enabled(0x8000));
    logger.log(0x8000, "high bit only");
    logger.log(trace, Counted{&streamed});
    EXPECT_EQ(streamed, 1);
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].message, "counted");
}

TEST(DiagnosticLogger, JsonRecordsAndTheJsonLogger) {
    EXPECT_EQ(buildJsonRecord({}, "[1,2]"), "{\"content\":[1,2]}");
    EXPECT_EQ(buildJsonRecord({{"operation", "Publish"}, {"channel", "/a\"b"}}, "{\"x\":1}"),
              "{\"operation\":\"Publish\",\"channel\":\"/a\"b\",\"content\":{\"x\":1}}");
    const std::string big(10000, 'x');
    EXPECT_EQ(buildJsonRecord({{"t", big}}, "0").size(), big.size() + 20);

    // The JSON logger builds nothing below its mask either.
    orvale::test::LogCapture capture;
    basic_diagnostic_logger<char, json_tagger> logger("connector::message_service::svc");
    setEnabledMask(error);
    logger.log(trace, {{"operation", "Publish"}}, "1");
    EXPECT_TRUE(capture.records().empty());
}

}  // namespace
}  // namespace foundation::log
