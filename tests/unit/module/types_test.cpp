#include "connector/message_service/types.h"

#include <gtest/gtest.h>

#include <sstream>

namespace connector::message_service {
namespace {

std::string print(ConnectionState state) {
    std::ostringstream out;
    out << state;
    return out.str();
}

TEST(Types, StateNames) {
    EXPECT_EQ(print(ConnectionState{}), "CONNECTED");
    EXPECT_EQ(print(ConnectionState::CONNECTING), "CONNECTING");
    EXPECT_EQ(print(ConnectionState::RECONNECTING), "RECONNECTING");
    EXPECT_EQ(print(ConnectionState::DISCONNECTING), "DISCONNECTING");
    EXPECT_EQ(print(ConnectionState::DISCONNECTED), "DISCONNECTED");
    EXPECT_EQ(print(ConnectionState::FATALLY_DISCONNECTED), "FATALLY_DISCONNECTED");
    EXPECT_EQ(print(static_cast<ConnectionState>(6)), "UNKNOWN!");
    EXPECT_EQ(print(static_cast<ConnectionState>(1000)), "UNKNOWN!");
}

TEST(Types, JsonMessageSharesPayload) {
    auto request =
        std::make_shared<bayeux::PublishRequest>("/orvale/a", common::DataBuffer("{\"k\":1}"));
    JsonMessage first("/a", request);
    JsonMessage second("/a", request);
    EXPECT_EQ(&first.getJson(), &second.getJson());
    EXPECT_EQ(first.getJson(), "{\"k\":1}");
    EXPECT_EQ(JsonMessage("/b", std::string("[]")).getJson(), "[]");
}

}  // namespace
}  // namespace connector::message_service
