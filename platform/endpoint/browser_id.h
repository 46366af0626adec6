#pragma once
// The hub's browser ids: the value of the cookies that bind long-polling requests and extra
// WebSockets to the sessions their browser made. A long-polling handshake's answer sets
// BAYEUX_BROWSER, a WebSocket upgrade's answer BAYEUX_BROWSER_WS, each only to a client that
// carried neither. Two names, because a browser on its first visit may open a WebSocket while it
// handshakes over long-polling (Faye's client does): both requests leave without an id, and with
// one name the answer that came last would replace the id the other's session is bound to.
//
// An id is 16 random bytes followed by the first 16 bytes of their HMAC-SHA-256 under a key the
// hub draws at start, written in hex (64 characters). The hub thus knows an id it issued without
// keeping a list of them, and a value a client makes up (or plants in another browser) is never
// adopted: it fails the check and is replaced by a fresh one.
//
// Thread safety: const after construction; any thread.

#include <array>
#include <boost/beast/http/field.hpp>
#include <string>
#include <string_view>

namespace connector::bayeux::endpoint {

class BrowserIds {
  public:
    static constexpr const char* kCookie = "BAYEUX_BROWSER";
    static constexpr const char* kWebSocketCookie = "BAYEUX_BROWSER_WS";
    static constexpr std::size_t kLength = 64;

    BrowserIds();
    // A new id. Throws std::runtime_error if the random generator fails.
    std::string issue() const;
    // Whether this hub issued `id`; the check takes the same time whatever the value.
    bool issued(std::string_view id) const;
    // The first issued id among the cookies named `name` of a Cookie header (a view into it),
    // or empty.
    std::string_view fromCookieHeader(std::string_view header,
                                      std::string_view name = kCookie) const;
    // The ids of both names over every Cookie header of an HTTP request, into `ids`.
    template <class Request, class Ids>
    void fromRequest(const Request& request, Ids& ids) const {
        ids.polling.clear();
        ids.webSocket.clear();
        const auto range = request.equal_range(boost::beast::http::field::cookie);
        for (auto field = range.first; field != range.second; ++field) {
            const std::string_view value(field->value().data(), field->value().size());
            if (ids.polling.empty())
                ids.polling.assign(fromCookieHeader(value, kCookie));
            if (ids.webSocket.empty())
                ids.webSocket.assign(fromCookieHeader(value, kWebSocketCookie));
        }
    }

  private:
    std::array<unsigned char, 32> key_;
};

// The Set-Cookie value handing `id` to a browser: readable by no script, sent only to the
// endpoint's path, over TLS only when the hub serves TLS. It goes with no request another site
// starts, unless `crossSite` (pages of other sites are allowed, and TLS is on, since browsers
// keep a SameSite=None cookie only when it is Secure).
std::string browserCookie(std::string_view id, std::string_view path, bool secure,
                          bool crossSite = false, std::string_view name = BrowserIds::kCookie);

// Whether two browser ids are equal, in a time that does not depend on where they differ.
bool sameBrowser(std::string_view a, std::string_view b);

}  // namespace connector::bayeux::endpoint
