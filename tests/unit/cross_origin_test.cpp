// Pages of other origins against the HTTP link: CORS answers for the allowed origins only, and
// the form bodies and callback-polling (JSONP) requests of browser clients on another origin.

#include <gtest/gtest.h>

#include "endpoint_clients.h"

namespace connector::bayeux::endpoint_test {
namespace {

// Every byte escaped, as a form encoder may.
std::string formEncoded(const std::string& text) {
    std::string out;
    for (const unsigned char c : text)
        out += {'%', "0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 15]};
    return out;
}

TEST_F(EndpointTest, OnlyAllowedOriginsGetCrossOriginAnswers) {
    start([](EndpointOptions& o) { o.allowedOrigins = {"http://app.test"}; });
    const std::string app = "http://app.test", evil = "http://evil.test";
    const std::string hs = handshake("hs"), form = "message=" + formEncoded(hs);
    const std::string jsonp = "/bayeux?jsonp=cb&message=" + formEncoded(hs);
    using F = http::field;
    const auto post = http::verb::post, get = http::verb::get, options = http::verb::options;
    const struct {
        const char* what;
        http::verb verb;
        std::string target, body;
        Headers headers;
        unsigned status;
        std::string allowOrigin, bodyStart;
    } cases[] = {
        // clang-format off
        {"preflight", options, "/bayeux", "",
         {{F::origin, app}, {F::access_control_request_headers, "content-type,pragma"}}, 204, app, ""},
        {"preflight from another origin", options, "/bayeux", "", {{F::origin, evil}}, 403, "", ""},
        {"preflight without an origin", options, "/bayeux", "", {}, 403, "", ""},
        {"post from another origin", post, "/bayeux", hs, {{F::origin, evil}}, 403, "", ""},
        {"form post", post, "/bayeux", form, {{F::origin, app}}, 200, app, "[{"},
        {"malformed form", post, "/bayeux", "message=%zz", {{F::origin, app}}, 400, app, ""},
        {"own origin", post, "/bayeux", hs, {{F::origin, "http://127.0.0.1"}}, 200, "", "[{"},
        {"callback-polling", get, jsonp, "", {{F::referer, app + "/chat"}}, 200, "", "/**/cb([{"},
        {"callback-polling from another page", get, jsonp, "", {{F::referer, evil + "/"}}, 403, "", ""},
        {"callback-polling calling a script", get, "/bayeux?jsonp=alert(1)//&message=[]", "",
         {{F::referer, app + "/"}}, 403, "", ""},
    };  // clang-format on
    for (const auto& c : cases) {
        RawHttp client(port);
        const auto reply = client.post(c.body, c.target, c.verb, c.headers);
        ASSERT_TRUE(reply) << c.what;
        EXPECT_EQ(reply->status, c.status) << c.what;
        EXPECT_EQ(reply->headers[F::access_control_allow_origin], c.allowOrigin) << c.what;
        EXPECT_EQ(reply->headers[F::access_control_allow_credentials],
                  c.allowOrigin.empty() ? "" : "true")
            << c.what;
        EXPECT_EQ(reply->body.substr(0, c.bodyStart.size()), c.bodyStart) << c.what;
        // A preflight allows the headers asked for, whatever they are: the hub reads none.
        EXPECT_EQ(reply->headers[F::access_control_allow_headers],
                  c.status == 204 ? "content-type,pragma" : "");
        EXPECT_EQ(reply->body.find("\"successful\":true") != std::string::npos,
                  !c.bodyStart.empty())
            << c.what;
    }
    start();  // no origin is allowed by default
    EXPECT_EQ(RawHttp(port).post("", "/bayeux", options, {{F::origin, app}}).value().status, 403u);
    EXPECT_EQ(RawHttp(port).post("", jsonp, get, {{F::referer, app + "/"}}).value().status, 403u);
}

}  // namespace
}  // namespace connector::bayeux::endpoint_test
