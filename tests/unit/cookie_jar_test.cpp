// The cookie jar: which cookies a server's Set-Cookie values leave, and for which requests.

#include "connector/bayeux/cookie_jar.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace connector::bayeux {
namespace {

TEST(CookieJar, SendsBackWhatAppliesToTheRequestAndRefusesWhatTheHostMayNotSet) {
    const struct {
        std::vector<std::string> set;  // by https://a.example.com/app/bayeux
        std::string path, expected;    // of the later request over TLS, and the cookies it gets
        std::string host = "a.example.com";
    } cases[] = {
        {{"s=1; HttpOnly; SameSite=Strict"}, "/app/x", "s=1"},
        {{"s=1"}, "/app/x", "", "b.example.com"},  // host only
        {{"s=1"}, "/other", ""},                   // default path /app
        {{"d=1; Domain=.Example.COM"}, "/app", "d=1", "b.example.com"},
        {{"d=1; Domain=example.com"}, "/app", "", "notexample.com"},
        {{"d=1; Domain=other.com"}, "/app", "", "other.com"},  // not the host's domain
        {{"d=1; Domain=com"}, "/app", "", "b.com"},
        {{"p=1; Path=/app/bayeux"}, "/app/bayeux/x?q=/", "p=1"},
        {{"p=1; Path=/app/bayeux"}, "/app/bayeuxx", ""},
        {{"t=1; Secure", "u=2"}, "/app", "t=1; u=2"},
        {{"e=1", "e=1; Max-Age=0"}, "/app", ""},
        {{"e=1; Expires=Wed, 21 Oct 2015 07:28:00 GMT"}, "/app", ""},
        {{"e=1; Expires=Wed, 21-Oct-37 07:28:00 GMT"}, "/app", "e=1"},
        // Years past what the clock can hold are cut, not wrapped into the past.
        {{"e=1; Expires=Tue, 21 Oct 2300 07:28:00 GMT"}, "/app", "e=1"},
        {{"e=1; Expires=Wed, 21 Oct 2015 07:28:00 GMT; Max-Age=60"}, "/app", "e=1"},
        {{"r=1", "r=2", "=x", "noequals"}, "/app", "r=2"},
        {{"a=1; Path=/", "b=2; Path=/app/bayeux"}, "/app/bayeux", "b=2; a=1"},
        {{"big=" + std::string(5000, 'x')}, "/app", ""},
    };
    for (const auto& c : cases) {
        CookieJar jar;
        for (const auto& line : c.set)
            jar.store(line, "a.example.com", "/app/bayeux", true);
        EXPECT_EQ(jar.header(c.host, c.path, true), c.expected) << c.set.back();
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
