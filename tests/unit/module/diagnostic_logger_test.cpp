#include "connector/log/diagnostic_logger.h"

#include <gtest/gtest.h>

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

// A line is built only when its severity passes the mask (low fifteen bits); its record carries
// the logger's name, severity and parts in order. JSON records hold their fields, then content.
TEST(DiagnosticLogger, MaskRecordsAndJsonRecords) {
    orvale::test::LogCapture capture;
    basic_diagnostic_logger<char> logger("connector::message_service::svc");
    int streamed = 0;
    setEnabledMask(warning | error);
    logger.log(trace, Counted{&streamed});
    EXPECT_EQ(streamed, 0) << "a disabled line must not be built";
    setEnabledMask(0x8000 | trace);
    EXPECT_TRUE(logger.enabled(trace));
    EXPECT_FALSE(logger.enabled(0x8000));
    logger.log(0x8000, "high bit only");
    logger.log(trace, Counted{&streamed}, ": /a, ", 3);
    EXPECT_EQ(streamed, 1);
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].message, "counted: /a, 3");
    EXPECT_EQ(records[0].channel, "connector::message_service::svc");
    EXPECT_EQ(records[0].channel, logger.name());
    EXPECT_EQ(records[0].severity, 8);

    EXPECT_EQ(buildJsonRecord({}, "[1,2]"), "{\"content\":[1,2]}");
    EXPECT_EQ(buildJsonRecord({{"operation", "Publish"}, {"channel", "/a\"b"}}, "{\"x\":1}"),
              "{\"operation\":\"Publish\",\"channel\":\"/a\"b\",\"content\":{\"x\":1}}");
    const std::string big(10000, 'x');
    EXPECT_EQ(buildJsonRecord({{"t", big}}, "0").size(), big.size() + 20);

    // The JSON logger builds nothing below its mask either.
    basic_diagnostic_logger<char, json_tagger> json("connector::message_service::svc");
    setEnabledMask(error);
    json.log(trace, {{"operation", "Publish"}}, "1");
    EXPECT_EQ(capture.records().size(), 1u);
}

}  // namespace
}  // namespace foundation::log
