#pragma once
// Which pages of other origins may use the endpoint, as the HTTP link asks it: the CORS answer
// to a request, and the callback-polling (JSONP) form in which some browser clients send their
// messages as a GET's query and take the answer as a script.
//
// Thread safety: free functions over their arguments; any thread.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "connections.h"

namespace connector::bayeux::endpoint {

struct OriginCheck {
    // The request came from a page of another origin that is not allowed.
    bool refused = false;
    // The origin to name in Access-Control-Allow-Origin: set for an allowed other origin.
    std::string allowOrigin;
};

// Judges a request by its Origin header. One without it, or from a page of the endpoint's own
// host (the Host header), is neither refused nor given CORS headers; so is every request while
// no origin is allowed, since browsers then let no other origin's page read an answer and the
// cookie goes with no other site's request.
OriginCheck checkOrigin(const HttpRequest& request, const std::vector<std::string>& allowed);

// Whether a callback-polling request may be answered: only when other origins are allowed, and
// its Referer is a page of one of them (a script's GET carries no Origin header).
bool callbackPollingAllowed(const HttpRequest& request, const std::vector<std::string>& allowed);

// The form-decoded value of the query parameter `name` of `target`, or nothing.
std::optional<std::string> queryParameter(std::string_view target, std::string_view name);

// application/x-www-form-urlencoded text decoded ('+' is a space, %XX a byte); nothing when
// a % escape is malformed.
std::optional<std::string> formDecode(std::string_view text);

// A callback name that is safe to write into a script: a JavaScript identifier or a dotted
// path of them, of at most 64 characters.
bool callbackNameValid(std::string_view name);

}  // namespace connector::bayeux::endpoint
