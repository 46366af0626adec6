#pragma once
// The cookies one client keeps for the servers it talks to: what their Set-Cookie headers
// stored, sent back on the later requests and WebSocket upgrades they apply to. Load balancers
// pin a client to a node with such cookies and Bayeux servers name a browser with one.
//
// A cookie applies to its domain (the host that set it only, unless it named a Domain the host
// is in), to the paths under its Path, only over TLS when Secure, and until it expires
// (Max-Age, else Expires; without either, for the jar's life). A Secure cookie set over plain
// HTTP, a Domain the host is not in or a top-level one, or a cookie larger than 4 KiB is
// refused; past 100 cookies the oldest is forgotten.
//
// Thread safety: may be called from any thread at once; mutex_ guards cookies_.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "connector/common/mutex.h"

namespace connector::bayeux {

class CookieJar {
  public:
    using Clock = std::chrono::system_clock;

    // Keeps what one Set-Cookie value says, as answered to a request for `path` on `host`
    // (`secure`: over TLS). An expiry in the past removes the cookie.
    void store(std::string_view setCookie, const std::string& host, const std::string& path,
               bool secure);
    // The Cookie header for a request, longer paths first; empty when no cookie applies.
    std::string header(const std::string& host, const std::string& path, bool secure) const;

  private:
    struct Cookie {
        std::string name;
        std::string value;
        std::string domain;  // lower case
        bool hostOnly = true;
        std::string path;
        bool secure = false;
        std::optional<Clock::time_point> expires;
    };

    mutable common::Mutex mutex_;
    std::vector<Cookie> cookies_ ORVALE_GUARDED_BY(mutex_);
};

}  // namespace connector::bayeux
