// Parsing of the ws://, wss://, http:// and https:// URLs the transports connect to.

#include "transport/ws_url.h"

#include <gtest/gtest.h>

#include <tuple>

namespace connector::bayeux::transport {
namespace {

TEST(WebSocketUrl, SplitsWhatCanBeConnectedToAndNamesTheProblemOtherwise) {
    const struct {
        const char* url;
        WebSocketUrl expected;
    } good[] = {
        {"ws://127.0.0.1:8080/bayeux?x=1#frag",
         {false, "127.0.0.1", "8080", "/bayeux?x=1", "127.0.0.1:8080"}},
        {"WSS://Example.org/cometd", {true, "Example.org", "443", "/cometd", "Example.org"}},
        {"ws://localhost", {false, "localhost", "80", "/", "localhost"}},
        {"ws://h:81?q", {false, "h", "81", "/?q", "h:81"}},
        {"ws://[::1]:9000/b", {false, "::1", "9000", "/b", "[::1]:9000"}},
        {"wss://[::1]/", {true, "::1", "443", "/", "[::1]"}},
    };
    for (const auto& c : good) {
        std::string problem;
        const auto url = parseWebSocketUrl(c.url, problem);
        ASSERT_TRUE(url) << c.url << ": " << problem;
        const auto& e = c.expected;
        EXPECT_EQ(std::tie(url->secure, url->host, url->port, url->target, url->hostHeader),
                  std::tie(e.secure, e.host, e.port, e.target, e.hostHeader))
            << c.url;
    }
    const std::pair<const char*, const char*> bad[] = {
        {"http://host/bayeux", "the URL does not start with ws:// or wss://"},
        {"ws:/host", "the URL does not start with ws:// or wss://"},
        {"ws://", "the URL names no host"},
        {"ws://:80/x", "the URL names no host"},
        {"ws://host:0/", "invalid port"},
        {"ws://host:65536/", "invalid port"},
        {"ws://host:99999999999999999999/", "invalid port"},
        {"ws://host:8a/", "invalid port"},
        {"ws://host:/", "empty port"},
        {"ws://user@host/", "user information in the URL is not supported"},
        {"ws://ho st/", "invalid host name"},
        {"ws://[::1/", "unterminated IPv6 address"},
        {"ws://[::1]x/", "unexpected text after the IPv6 address"},
        {"ws://host/a b", "the path holds spaces or control characters"},
    };
    for (const auto& [url, expected] : bad) {
        std::string problem;
        EXPECT_FALSE(parseWebSocketUrl(url, problem)) << url;
        EXPECT_EQ(problem, expected) << url;
    }
    // The HTTP schemes share the rules, with their own default ports.
    std::string problem;
    const auto https = parseHttpUrl("HTTPS://h:443/c", problem).value();
    EXPECT_EQ(std::tie(https.secure, https.port, https.hostHeader),
              std::make_tuple(true, std::string("443"), std::string("h")));
    EXPECT_FALSE(parseHttpUrl("ws://h/", problem));
    EXPECT_EQ(problem, "the URL does not start with http:// or https://");
}

}  // namespace
}  // namespace connector::bayeux::transport
