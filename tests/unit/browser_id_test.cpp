// The hub's browser ids: what counts as issued, and which one a Cookie header names.

#include "endpoint/browser_id.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

namespace connector::bayeux::endpoint {
namespace {

TEST(BrowserIds, OnlyIdsThisHubIssuedCountAndTheCookieHeaderNamesTheFirst) {
    const BrowserIds ids;
    const std::string id = ids.issue();
    EXPECT_EQ(id.size(), BrowserIds::kLength);
    EXPECT_TRUE(ids.issued(id));
    EXPECT_NE(ids.issue(), id);
    EXPECT_FALSE(BrowserIds().issued(id)) << "another hub's key";
    std::string upper = id;
    for (char& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (std::size_t at : {std::size_t{0}, std::size_t{31}, std::size_t{32}, id.size() - 1}) {
        std::string altered = id;
        altered[at] = altered[at] == '0' ? '1' : '0';
        EXPECT_FALSE(ids.issued(altered)) << "altered at " << at;
    }
    for (const std::string& other :
         {std::string(), id.substr(1), id + "0", std::string(64, '0'), upper})
        EXPECT_FALSE(ids.issued(other)) << other;

    // The Cookie header names the first issued id under the browser cookie's exact name.
    const std::string forged(64, 'a');
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"BAYEUX_BROWSER=" + id, id},
        {"a=1; BAYEUX_BROWSER=" + id + "; b=2", id},
        {"  BAYEUX_BROWSER = \"" + id + "\" ", id},
        {"BAYEUX_BROWSER=" + forged + "; BAYEUX_BROWSER=" + id, id},
        {"BAYEUX_BROWSER=" + forged, ""},
        {"X_BAYEUX_BROWSER=" + id, ""},
        {"BAYEUX_BROWSER_WS=" + id, ""},
        {"bayeux_browser=" + id, ""},
        {"BAYEUX_BROWSER" + id, ""},
        {";;=;", ""},
    };
    for (const auto& [header, expected] : cases)
        EXPECT_EQ(ids.fromCookieHeader(header), expected) << header;
    EXPECT_EQ(browserCookie(id, "/bayeux", true),
              "BAYEUX_BROWSER=" + id + "; Path=/bayeux; HttpOnly; Secure; SameSite=Strict");
    // Other sites' pages get the cookie only under TLS: browsers drop SameSite=None without Secure,
    // and keep it for such pages only when it is partitioned by the site they are on.
    EXPECT_EQ(browserCookie(id, "/b", true, true),
              "BAYEUX_BROWSER=" + id + "; Path=/b; HttpOnly; Secure; SameSite=None; Partitioned");
    EXPECT_EQ(browserCookie(id, "/b", false, true),
              "BAYEUX_BROWSER=" + id + "; Path=/b; HttpOnly; SameSite=Strict");
}

}  // namespace
}  // namespace connector::bayeux::endpoint
