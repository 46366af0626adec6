// The cookie jar: which cookies a server's Set-Cookie values leave, and for which requests.

#include "connector/bayeux/cookie_jar.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace connector::bayeux {
namespace {

TEST(CookieJar, SendsBackWhatAppliesToTheRequestAndRefusesWhatTheHostMayNotSet) {
    const struct {
        std::vector<std::string> set;  // by https://a.example.com/app/bayeux, or http:// (!tls)
        bool tls;
        std::string host, path;  // of the later request, over the same scheme
        std::string expected;
    } cases[] = {
        {{"s=1; HttpOnly; SameSite=Strict"}, true, "a.example.com", "/app/x", "s=1"},
        {{"s=1"}, true, "b.example.com", "/app/x", ""},  // host only
        {{"s=1"}, true, "a.example.com", "/other", ""},  // default path /app
        {{"d=1; Domain=.Example.COM"}, true, "b.example.com", "/app", "d=1"},
        {{"d=1; Domain=example.com"}, true, "notexample.com", "/app", ""},
        {{"d=1; Domain=other.com"}, true, "other.com", "/app", ""},  // not the host's domain
        {{"d=1; Domain=com"}, true, "b.com", "/app", ""},
        {{"p=1; Path=/app/bayeux"}, true, "a.example.com", "/app/bayeux/x?q=/", "p=1"},
        {{"p=1; Path=/app/bayeux"}, true, "a.example.com", "/app/bayeuxx", ""},
        {{"t=1; Secure", "u=2"}, true, "a.example.com", "/app", "t=1; u=2"},
        {{"e=1", "e=1; Max-Age=0"}, true, "a.example.com", "/app", ""},
        {{"e=1; Expires=Wed, 21 Oct 2015 07:28:00 GMT"}, true, "a.example.com", "/app", ""},
        {{"e=1; Expires=Wed, 21-Oct-37 07:28:00 GMT"}, true, "a.example.com", "/app", "e=1"},
        // Years past what the clock can hold are cut, not wrapped into the past.
        {{"e=1; Expires=Tue, 21 Oct 2300 07:28:00 GMT"}, true, "a.example.com", "/app", "e=1"},
        {{"e=1; Expires=Wed, 21 Oct 2015 07:28:00 GMT; Max-Age=60"},
         true,
         "a.example.com",
         "/app",
         "e=1"},
        {{"r=1", "r=2", "=x", "noequals"}, true, "a.example.com", "/app", "r=2"},
        {{"a=1; Path=/", "b=2; Path=/app/bayeux"},
         true,
         "a.example.com",
         "/app/bayeux",
         "b=2; a=1"},
        {{"big=" + std::string(5000, 'x')}, true, "a.example.com", "/app", ""},
    };
    for (const auto& c : cases) {
        CookieJar jar;
        for (const auto& line : c.set)
            jar.store(line, "a.example.com", "/app/bayeux", c.tls);
        EXPECT_EQ(jar.header(c.host, c.path, c.tls), c.expected) << c.set.back();
    }
    // A Secure cookie is kept only from TLS and sent only over it.
    CookieJar jar;
    jar.store("t=1; Secure", "a.example.com", "/", true);
    jar.store("v=1; Secure", "a.example.com", "/", false);
    EXPECT_EQ(jar.header("a.example.com", "/", false), "");
    EXPECT_EQ(jar.header("a.example.com", "/", true), "t=1");
}

}  // namespace
}  // namespace connector::bayeux
