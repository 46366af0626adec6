// Faye's and CometD's browser clients in headless Chromium, on a page of another site, talking
// with a server service of a hub served over TLS: over WebSocket and over long-polling, which
// works only when the CORS answers and the session cookie work as a browser needs them.

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "hub_in_process.h"

namespace orvale::test {
namespace {

// A port free at the moment, for the page's server, whose origin the hub must know in advance.
std::uint16_t freePort() {
    boost::asio::io_context io;
    boost::asio::ip::tcp::acceptor acceptor(io, {boost::asio::ip::make_address("127.0.0.1"), 0});
    return acceptor.local_endpoint().port();
}

TEST(BrowserTest, BrowserClientsOnAnotherSiteTalkWithAServerService) {
    ORVALE_REQUIRE_NODE();
    const char* chromium = std::getenv("CHROMIUM");
    if (::access(chromium ? chromium : "/usr/bin/chromium", X_OK) != 0) {
        const char* ci = std::getenv("CI");
        if (ci && *ci)
            FAIL() << "no chromium";
        GTEST_SKIP() << "no chromium (run scripts/bootstrap to install it)";
    }
    TestCertificates certificates;
    const std::string page = std::to_string(freePort());
    bayeux::EndpointOptions options;
    options.certFile = certificates.dir + "/server.pem";
    options.keyFile = certificates.dir + "/server.key";
    options.allowedOrigins = {"http://127.0.0.1:" + page};
    HubInProcess hub(options);
    // The page at http://127.0.0.1 and the hub at https://localhost are different sites.
    const std::string url = "https://localhost:" + std::to_string(hub.endpoint->port()) + "/bayeux";
    const struct {
        const char *peer, *mode, *transport;
    } cases[] = {{"faye", "websocket", "websocket"},
                 {"faye", "long-polling", "cross-origin-long-polling"},
                 {"cometd", "websocket", "websocket"},
                 {"cometd", "long-polling", "long-polling"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.peer) + " over " + c.mode);
        // Adding {"--screenshot", URL, FILE} saves a picture of URL while the session lives.
        std::vector<std::string> args{c.peer,           c.mode, url, page, "/orvale/desk/out",
                                      "/orvale/desk/in"};
        auto browser = node("browser_client.js", args);
        ASSERT_EQ(run(*browser, 40s), 0) << browser->errors();
        const auto result = resultOf(*browser);
        ASSERT_EQ(text(result, "result"), "ok") << boost::json::serialize(result);
        EXPECT_EQ(text(result, "transport"), c.transport);
        const std::string from = "{\"from\":\"" + std::string(c.peer) + " " + c.mode + "\"}";
        EXPECT_TRUE(hub.heard("in " + from));
        EXPECT_EQ(received(*browser),
                  std::vector<std::string>{"/orvale/desk/out {\"echo\":" + from + "}"});
    }
}

}  // namespace
}  // namespace orvale::test
