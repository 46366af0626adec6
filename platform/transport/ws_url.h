#pragma once
// The parts of a ws://, wss://, http:// or https:// URL that connecting needs.

#include <optional>
#include <string>

namespace connector::bayeux::transport {

struct WebSocketUrl {
    bool secure = false;     // wss:// or https://
    std::string host;        // name or address, IPv6 without brackets
    std::string port;        // decimal, the scheme's default when the URL names none
    std::string target;      // path and query, "/" at least
    std::string hostHeader;  // what the Host header carries: host, and port when not default
};

// Parses `url`; on failure returns nothing and says why in `problem`.
std::optional<WebSocketUrl> parseWebSocketUrl(const std::string& url, std::string& problem);
// The same for http:// and https:// URLs.
std::optional<WebSocketUrl> parseHttpUrl(const std::string& url, std::string& problem);

}  // namespace connector::bayeux::transport
