#include "connector/message_service/types.h"

#include <gtest/gtest.h>

namespace connector::message_service {
namespace {

// State names as log lines show them; every subscriber of one delivery reads the same payload.
TEST(Types, StateNamesAndSharedPayloads) {
    const char* names[] = {"CONNECTED",    "CONNECTING",           "RECONNECTING", "DISCONNECTING",
                           "DISCONNECTED", "FATALLY_DISCONNECTED", "UNKNOWN!"};
    for (int state : {0, 1, 2, 3, 4, 5, 6, 1000})
        EXPECT_STREQ(toString(static_cast<ConnectionState>(state)), names[std::min(state, 6)]);
    auto request =
        std::make_shared<bayeux::PublishRequest>("/orvale/a", common::DataBuffer("{\"k\":1}"));
    JsonMessage first("/a", request), second("/a", request);
    EXPECT_EQ(&first.getJson(), &second.getJson());
    EXPECT_EQ(first.getJson(), "{\"k\":1}");
    EXPECT_EQ(JsonMessage("/b", std::string("[]")).getJson(), "[]");
}

}  // namespace
}  // namespace connector::message_service
