#pragma once
// The hub's browser ids: the value of the BAYEUX_BROWSER cookie that binds long-polling requests
// and extra WebSockets to the sessions their browser made.
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
    static constexpr std::size_t kLength = 64;

    BrowserIds();
    // A new id. Throws std::runtime_error if the random generator fails.
    std::string issue() const;
    // Whether this hub issued `id`; the check takes the same time whatever the value.
    bool issued(std::string_view id) const;
    // The first issued id among the BAYEUX_BROWSER cookies of a Cookie header (a view into
    // it), or empty.
    std::string_view fromCookieHeader(std::string_view header) const;
    // The same over every Cookie header of an HTTP request, a view into the request.
    template <class Request>
    std::string_view fromRequest(const Request& request) const {
        const auto range = request.equal_range(boost::beast::http::field::cookie);
        for (auto field = range.first; field != range.second; ++field) {
            const auto value = field->value();
            const std::string_view id =
                fromCookieHeader(std::string_view(value.data(), value.size()));
            if (!id.empty())
                return id;
        }
        return {};
    }

  private:
    std::array<unsigned char, 32> key_;
};

// The Set-Cookie value handing `id` to a browser: readable by no script, sent only to the
// endpoint's path, over TLS only when the hub serves TLS. It goes with no request another site
// starts, unless `crossSite` (pages of other sites are allowed, and TLS is on, since browsers
// keep a SameSite=None cookie only when it is Secure).
std::string browserCookie(std::string_view id, std::string_view path, bool secure,
                          bool crossSite = false);

// Whether two browser ids are equal, in a time that does not depend on where they differ.
bool sameBrowser(std::string_view a, std::string_view b);

}  // namespace connector::bayeux::endpoint
