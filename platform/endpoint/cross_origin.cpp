// Cross-origin rules of the HTTP link: origins compared as the browser sends them.

#include "cross_origin.h"

#include <algorithm>

#include "common/text.h"

namespace connector::bayeux::endpoint {

namespace {

namespace http = boost::beast::http;

std::string_view header(const HttpRequest& request, http::field field) {
    const auto it = request.find(field);
    if (it == request.end())
        return {};
    return std::string_view(it->value().data(), it->value().size());
}

bool listed(const std::vector<std::string>& allowed, std::string_view origin) {
    return std::any_of(allowed.begin(), allowed.end(),
                       [&](const std::string& entry) { return entry == "*" || entry == origin; });
}

// Whether `origin` names the host the request was sent to. The scheme is left out: behind a
// proxy that ends TLS, the hub's own pages come from https:// to a hub serving http://.
bool ownOrigin(const HttpRequest& request, std::string_view origin) {
    const auto authority = origin.find("://");
    const std::string_view host = header(request, http::field::host);
    return authority != std::string_view::npos && !host.empty() &&
           origin.substr(authority + 3) == host;
}

}  // namespace

OriginCheck checkOrigin(const HttpRequest& request, const std::vector<std::string>& allowed) {
    OriginCheck check;
    const std::string_view origin = header(request, http::field::origin);
    if (allowed.empty() || origin.empty() || ownOrigin(request, origin))
        return check;
    if (listed(allowed, origin))
        check.allowOrigin = origin;
    else
        check.refused = true;
    return check;
}

bool callbackPollingAllowed(const HttpRequest& request, const std::vector<std::string>& allowed) {
    if (allowed.empty())
        return false;
    if (listed(allowed, "*"))
        return true;
    // The origin of the page is the Referer up to the first '/' after "scheme://".
    const std::string_view referer = header(request, http::field::referer);
    const auto authority = referer.find("://");
    if (authority == std::string_view::npos)
        return false;
    const std::string_view origin = referer.substr(0, referer.find('/', authority + 3));
    return listed(allowed, origin) || ownOrigin(request, origin);
}

std::optional<std::string> queryParameter(std::string_view target, std::string_view name) {
    const auto question = target.find('?');
    if (question == std::string_view::npos)
        return std::nullopt;
    std::string_view rest = target.substr(question + 1);
    while (!rest.empty()) {
        const auto amp = rest.find('&');
        const std::string_view pair = rest.substr(0, amp);
        rest = amp == std::string_view::npos ? std::string_view() : rest.substr(amp + 1);
        const auto equals = pair.find('=');
        if (pair.substr(0, equals) == name)
            return formDecode(equals == std::string_view::npos ? std::string_view()
                                                               : pair.substr(equals + 1));
    }
    return std::nullopt;
}

std::optional<std::string> formDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out.push_back(' ');
        } else if (text[i] == '%') {
            const int high = i + 2 < text.size() ? common::hexValue(text[i + 1]) : -1;
            const int low = high >= 0 ? common::hexValue(text[i + 2]) : -1;
            if (low < 0)
                return std::nullopt;
            out.push_back(static_cast<char>(high << 4 | low));
            i += 2;
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

bool callbackNameValid(std::string_view name) {
    if (name.empty() || name.size() > 64)
        return false;
    bool atStart = true;
    for (const char c : name) {
        const bool letter =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '$';
        if (c == '.' && !atStart) {
            atStart = true;
            continue;
        }
        if (!letter && !(c >= '0' && c <= '9' && !atStart))
            return false;
        atStart = false;
    }
    return !atStart;
}

}  // namespace connector::bayeux::endpoint
