// Parsing of ws://, wss://, http:// and https:// URLs.

#include "ws_url.h"

#include <cctype>

namespace connector::bayeux::transport {

namespace {

bool startsWithNoCase(const std::string& text, const char* prefix) {
    std::size_t i = 0;
    for (; prefix[i]; ++i) {
        if (i >= text.size())
            return false;
        if (std::tolower(static_cast<unsigned char>(text[i])) != prefix[i])
            return false;
    }
    return true;
}

bool validHostCharacters(const std::string& host) {
    for (char c : host) {
        const auto u = static_cast<unsigned char>(c);
        if (!(std::isalnum(u) || c == '-' || c == '.' || c == '_'))
            return false;
    }
    return true;
}

}  // namespace

namespace {

// `plain` and `secure` are the two schemes accepted, with their "://".
std::optional<WebSocketUrl> parseUrl(const std::string& url, const std::string& plain,
                                     const std::string& secure, std::string& problem) {
    WebSocketUrl out;
    std::size_t pos;
    if (startsWithNoCase(url, plain.c_str())) {
        pos = plain.size();
    } else if (startsWithNoCase(url, secure.c_str())) {
        out.secure = true;
        pos = secure.size();
    } else {
        problem = "the URL does not start with " + plain + " or " + secure;
        return std::nullopt;
    }

    const std::size_t authorityEnd = url.find_first_of("/?#", pos);
    const std::string authority =
        url.substr(pos, authorityEnd == std::string::npos ? std::string::npos : authorityEnd - pos);
    if (authority.find('@') != std::string::npos) {
        problem = "user information in the URL is not supported";
        return std::nullopt;
    }

    std::string port;
    if (!authority.empty() && authority[0] == '[') {
        const std::size_t close = authority.find(']');
        if (close == std::string::npos) {
            problem = "unterminated IPv6 address";
            return std::nullopt;
        }
        out.host = authority.substr(1, close - 1);
        const std::string rest = authority.substr(close + 1);
        if (!rest.empty()) {
            if (rest[0] != ':') {
                problem = "unexpected text after the IPv6 address";
                return std::nullopt;
            }
            port = rest.substr(1);
        }
        for (char c : out.host)
            if (!(std::isxdigit(static_cast<unsigned char>(c)) || c == ':' || c == '.')) {
                problem = "invalid IPv6 address";
                return std::nullopt;
            }
    } else {
        const std::size_t colon = authority.rfind(':');
        out.host = authority.substr(0, colon);
        if (colon != std::string::npos)
            port = authority.substr(colon + 1);
        if (!validHostCharacters(out.host)) {
            problem = "invalid host name";
            return std::nullopt;
        }
    }
    if (out.host.empty()) {
        problem = "the URL names no host";
        return std::nullopt;
    }

    const char* defaultPort = out.secure ? "443" : "80";
    if (port.empty()) {
        if (authority.back() == ':') {
            problem = "empty port";
            return std::nullopt;
        }
        out.port = defaultPort;
    } else {
        unsigned long value = 0;
        for (char c : port) {
            if (!std::isdigit(static_cast<unsigned char>(c)) || value > 65535) {
                problem = "invalid port";
                return std::nullopt;
            }
            value = value * 10 + static_cast<unsigned long>(c - '0');
        }
        if (value == 0 || value > 65535) {
            problem = "invalid port";
            return std::nullopt;
        }
        out.port = std::to_string(value);
    }

    if (authorityEnd == std::string::npos) {
        out.target = "/";
    } else {
        out.target = url.substr(authorityEnd);
        const std::size_t fragment = out.target.find('#');
        if (fragment != std::string::npos)
            out.target.erase(fragment);
        if (out.target.empty() || out.target[0] != '/')
            out.target.insert(0, "/");
    }
    for (char c : out.target)
        if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) {
            problem = "the path holds spaces or control characters";
            return std::nullopt;
        }

    const bool ipv6 = out.host.find(':') != std::string::npos;
    out.hostHeader = ipv6 ? "[" + out.host + "]" : out.host;
    if (out.port != defaultPort)
        out.hostHeader += ":" + out.port;
    return out;
}

}  // namespace

std::optional<WebSocketUrl> parseWebSocketUrl(const std::string& url, std::string& problem) {
    return parseUrl(url, "ws://", "wss://", problem);
}

std::optional<WebSocketUrl> parseHttpUrl(const std::string& url, std::string& problem) {
    return parseUrl(url, "http://", "https://", problem);
}

}  // namespace connector::bayeux::transport
