// The cookie jar: parsing Set-Cookie values and choosing the cookies of a request.

#include "connector/bayeux/cookie_jar.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>

#include "common/text.h"

namespace connector::bayeux {

namespace {

// Larger cookies are refused, and past these counts the oldest are forgotten: a server cannot
// make a client send (or keep) without bound.
constexpr std::size_t kMaxCookieBytes = 4096;
constexpr std::size_t kMaxCookies = 100;
// Longer lives are cut to this (about 30 years), which keeps the expiry time representable.
constexpr long long kMaxAgeSeconds = 1000000000LL;

std::string lower(std::string_view text) {
    std::string out(text);
    for (auto& c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

bool isAddress(const std::string& host) {
    return host.find(':') != std::string::npos || std::all_of(host.begin(), host.end(), [](char c) {
               return c == '.' || std::isdigit(static_cast<unsigned char>(c));
           });
}

// "Sun, 06 Nov 1994 08:49:37 GMT" and its dashed variant "Sunday, 06-Nov-94 08:49:37 GMT".
std::optional<CookieJar::Clock::time_point> parseDate(std::string_view text) {
    static const char* const months[] = {"jan", "feb", "mar", "apr", "may", "jun",
                                         "jul", "aug", "sep", "oct", "nov", "dec"};
    std::string copy(text.substr(0, 64));
    for (auto& c : copy)
        if (c == '-' || c == ',')
            c = ' ';
    int day = 0, year = 0, hour = 0, minute = 0, second = 0;
    char weekday[16] = {}, month[4] = {};
    if (std::sscanf(copy.c_str(), "%15s %d %3s %d %d:%d:%d", weekday, &day, month, &year, &hour,
                    &minute, &second) != 7)
        return std::nullopt;
    const std::string name = lower(month);
    const auto found = std::find(std::begin(months), std::end(months), name);
    if (found == std::end(months) || day < 1 || day > 31 || hour > 23 || minute > 59 ||
        second > 60 || year < 0)
        return std::nullopt;
    if (year < 70)
        year += 2000;
    else if (year < 100)
        year += 1900;
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = static_cast<int>(found - std::begin(months));
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    // Dates before 1970 have passed; later ones are cut as long lives are, so that the time
    // stays representable whatever year the server names.
    const std::time_t latest =
        CookieJar::Clock::to_time_t(CookieJar::Clock::now()) + kMaxAgeSeconds;
    return CookieJar::Clock::from_time_t(std::clamp<std::time_t>(::timegm(&tm), 0, latest));
}

// The path a cookie without its own applies to: the request's, up to its last slash.
std::string defaultPath(const std::string& requestPath) {
    const auto slash = requestPath.rfind('/');
    if (requestPath.empty() || requestPath[0] != '/' || slash == 0 || slash == std::string::npos)
        return "/";
    return requestPath.substr(0, slash);
}

bool domainMatches(const std::string& host, const std::string& domain) {
    return host == domain ||
           (host.size() > domain.size() &&
            host.compare(host.size() - domain.size(), domain.size(), domain) == 0 &&
            host[host.size() - domain.size() - 1] == '.' && !isAddress(host));
}

bool pathMatches(const std::string& requestPath, const std::string& path) {
    if (requestPath.compare(0, path.size(), path) != 0)
        return false;
    return requestPath.size() == path.size() || path.back() == '/' ||
           requestPath[path.size()] == '/';
}

}  // namespace

void CookieJar::store(std::string_view setCookie, const std::string& requestHost,
                      const std::string& requestPath, bool secure) {
    if (setCookie.size() > kMaxCookieBytes)
        return;
    const std::string host = lower(requestHost);
    const auto semicolon = setCookie.find(';');
    const std::string_view pair = setCookie.substr(0, semicolon);
    const auto equals = pair.find('=');
    if (equals == std::string_view::npos)
        return;
    Cookie cookie;
    cookie.name = std::string(common::trimBlanks(pair.substr(0, equals)));
    cookie.value = std::string(common::trimBlanks(pair.substr(equals + 1)));
    if (cookie.name.empty())
        return;
    cookie.domain = host;
    cookie.path = defaultPath(requestPath);
    const auto now = Clock::now();
    std::optional<Clock::time_point> maxAge;
    std::string_view rest =
        semicolon == std::string_view::npos ? std::string_view() : setCookie.substr(semicolon);
    while (!rest.empty()) {
        rest.remove_prefix(1);  // the ';'
        const auto end = rest.find(';');
        const std::string_view attribute = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end);
        const auto eq = attribute.find('=');
        const std::string key = lower(common::trimBlanks(attribute.substr(0, eq)));
        const std::string_view value = eq == std::string_view::npos
                                           ? std::string_view()
                                           : common::trimBlanks(attribute.substr(eq + 1));
        if (key == "expires") {
            if (auto date = parseDate(value))
                cookie.expires = date;
        } else if (key == "max-age") {
            long long seconds = 0;
            bool digits = !value.empty();
            bool negative = !value.empty() && value[0] == '-';
            for (std::size_t i = negative ? 1 : 0; i < value.size(); ++i) {
                if (!std::isdigit(static_cast<unsigned char>(value[i]))) {
                    digits = false;
                    break;
                }
                seconds = std::min(seconds * 10 + (value[i] - '0'), kMaxAgeSeconds);
            }
            if (digits)
                maxAge = negative || seconds == 0 ? Clock::time_point::min()
                                                  : now + std::chrono::seconds(seconds);
        } else if (key == "domain" && !value.empty()) {
            std::string domain = lower(value[0] == '.' ? value.substr(1) : value);
            // A top-level domain alone ("com") would reach every site under it.
            if (!domainMatches(host, domain) ||
                (domain != host && domain.find('.') == std::string::npos))
                return;
            cookie.domain = std::move(domain);
            cookie.hostOnly = false;
        } else if (key == "path" && !value.empty() && value[0] == '/') {
            cookie.path = std::string(value);
        } else if (key == "secure") {
            cookie.secure = true;
        }
    }
    if (cookie.secure && !secure)
        return;
    if (maxAge)
        cookie.expires = maxAge;
    const bool expired = cookie.expires && *cookie.expires <= now;

    common::MutexLock lock(mutex_);
    cookies_.erase(std::remove_if(cookies_.begin(), cookies_.end(),
                                  [&](const Cookie& c) {
                                      return (c.name == cookie.name && c.domain == cookie.domain &&
                                              c.path == cookie.path) ||
                                             (c.expires && *c.expires <= now);
                                  }),
                   cookies_.end());
    if (expired)
        return;
    if (cookies_.size() >= kMaxCookies)
        cookies_.erase(cookies_.begin());
    cookies_.push_back(std::move(cookie));
}

std::string CookieJar::header(const std::string& requestHost, const std::string& requestPath,
                              bool secure) const {
    const std::string host = lower(requestHost);
    const std::string path = requestPath.substr(0, requestPath.find('?'));
    const auto now = Clock::now();
    std::vector<const Cookie*> chosen;
    common::MutexLock lock(mutex_);
    for (const auto& cookie : cookies_) {
        if (cookie.expires && *cookie.expires <= now)
            continue;
        if (cookie.secure && !secure)
            continue;
        if (cookie.hostOnly ? host != cookie.domain : !domainMatches(host, cookie.domain))
            continue;
        if (!pathMatches(path, cookie.path))
            continue;
        chosen.push_back(&cookie);
    }
    std::stable_sort(chosen.begin(), chosen.end(), [](const Cookie* a, const Cookie* b) {
        return a->path.size() > b->path.size();
    });
    std::string out;
    for (const auto* cookie : chosen) {
        if (!out.empty())
            out += "; ";
        out += cookie->name + "=" + cookie->value;
    }
    return out;
}

}  // namespace connector::bayeux
