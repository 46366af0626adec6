// Parsing of the ws:// and wss:// URLs the transport connects to.

#include "transport/ws_url.h"

#include <gtest/gtest.h>

namespace connector::bayeux::transport {
namespace {

WebSocketUrl parsed(const std::string& url) {
    std::string problem;
    auto out = parseWebSocketUrl(url, problem);
    EXPECT_TRUE(out.has_value()) << url << ": " << problem;
    return out.value_or(WebSocketUrl{});
}

std::string problemOf(const std::string& url) {
    std::string problem;
    EXPECT_FALSE(parseWebSocketUrl(url, problem).has_value()) << url;
    return problem;
}

TEST(WebSocketUrl, SplitsSchemeHostPortAndTarget) {
    auto plain = parsed("ws://127.0.0.1:8080/bayeux?x=1#frag");
    EXPECT_FALSE(plain.secure);
    EXPECT_EQ(plain.host, "127.0.0.1");
    EXPECT_EQ(plain.port, "8080");
    EXPECT_EQ(plain.target, "/bayeux?x=1");
    EXPECT_EQ(plain.hostHeader, "127.0.0.1:8080");

    auto secure = parsed("WSS://Example.org/cometd");
    EXPECT_TRUE(secure.secure);
    EXPECT_EQ(secure.host, "Example.org");
    EXPECT_EQ(secure.port, "443");
    EXPECT_EQ(secure.target, "/cometd");
    EXPECT_EQ(secure.hostHeader, "Example.org");

    auto bare = parsed("ws://localhost");
    EXPECT_EQ(bare.port, "80");
    EXPECT_EQ(bare.target, "/");

    auto query = parsed("ws://h:81?q");
    EXPECT_EQ(query.target, "/?q");
    EXPECT_EQ(query.hostHeader, "h:81");

    auto v6 = parsed("ws://[::1]:9000/b");
    EXPECT_EQ(v6.host, "::1");
    EXPECT_EQ(v6.port, "9000");
    EXPECT_EQ(v6.hostHeader, "[::1]:9000");
    EXPECT_EQ(parsed("wss://[::1]/").hostHeader, "[::1]");
}

TEST(WebSocketUrl, RefusesWhatCannotBeConnectedTo) {
    EXPECT_EQ(problemOf("http://host/bayeux"), "the URL does not start with ws:// or wss://");
    EXPECT_EQ(problemOf("ws:/host"), "the URL does not start with ws:// or wss://");
    EXPECT_EQ(problemOf("ws://"), "the URL names no host");
    EXPECT_EQ(problemOf("ws://:80/x"), "the URL names no host");
    EXPECT_EQ(problemOf("ws://host:0/"), "invalid port");
    EXPECT_EQ(problemOf("ws://host:65536/"), "invalid port");
    EXPECT_EQ(problemOf("ws://host:99999999999999999999/"), "invalid port");
    EXPECT_EQ(problemOf("ws://host:8a/"), "invalid port");
    EXPECT_EQ(problemOf("ws://host:/"), "empty port");
    EXPECT_EQ(problemOf("ws://user@host/"), "user information in the URL is not supported");
    EXPECT_EQ(problemOf("ws://ho st/"), "invalid host name");
    EXPECT_EQ(problemOf("ws://[::1/"), "unterminated IPv6 address");
    EXPECT_EQ(problemOf("ws://[::1]x/"), "unexpected text after the IPv6 address");
    EXPECT_EQ(problemOf("ws://host/a b"), "the path holds spaces or control characters");
}

}  // namespace
}  // namespace connector::bayeux::transport
