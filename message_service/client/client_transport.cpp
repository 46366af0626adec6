// Choosing and requesting the client service's transport.

#include "client_transport.h"

#include <algorithm>
#include <cctype>

#include "connector/bayeux/long_polling_transport.h"

namespace connector::message_service {

namespace {

constexpr const char* kHeaderPrefix = "header.";

bool startsWithNoCase(const std::string& text, const std::string& prefix) {
    return text.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) ==
                      std::tolower(static_cast<unsigned char>(b));
           });
}

// A header line must not be split or forged by what an option holds.
bool safeHeaderText(const std::string& text) {
    return std::none_of(text.begin(), text.end(),
                        [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

}  // namespace

bool isLongPollingEndpoint(const std::string& endpoint) {
    return startsWithNoCase(endpoint, "http://") || startsWithNoCase(endpoint, "https://");
}

Address transportAddressFor(const std::string& endpoint, const Address& configured) {
    return isLongPollingEndpoint(endpoint) ? bayeux::longPollingTransportAddress() : configured;
}

const char* connectionTypeFor(const std::string& endpoint) {
    return isLongPollingEndpoint(endpoint) ? "long-polling" : "websocket";
}

std::unique_ptr<bayeux::ConnectTransport> makeConnectTransport(
    const Options& options, std::shared_ptr<bayeux::CookieJar> cookies) {
    auto request = std::make_unique<bayeux::ConnectTransport>(options.at("endpoint"));
    bayeux::ConnectTransport::Headers headers;
    for (const auto& [key, value] : options) {
        if (key.size() <= std::char_traits<char>::length(kHeaderPrefix) ||
            key.compare(0, std::char_traits<char>::length(kHeaderPrefix), kHeaderPrefix) != 0)
            continue;
        const std::string name = key.substr(std::char_traits<char>::length(kHeaderPrefix));
        if (safeHeaderText(name) && safeHeaderText(value) &&
            name.find_first_of(" :\t") == std::string::npos)
            headers.emplace_back(name, value);
    }
    // Options come unordered; sorted, every request sends them the same way.
    std::sort(headers.begin(), headers.end());
    request->setHeaders(std::move(headers));
    request->setCookieJar(std::move(cookies));
    return request;
}

}  // namespace connector::message_service
