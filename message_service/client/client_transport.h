#pragma once
// How the client service reaches its endpoint: the transport its URL's scheme calls for, the
// Bayeux connection type it then names, and the transport request carrying the `header.<Name>`
// options and the service's cookie jar.
//
// Thread safety: functions of their arguments; any thread.

#include <memory>
#include <string>

#include "connector/bayeux/messages.h"
#include "connector/message_service/message_service.h"

namespace connector::message_service {

// True for http:// and https:// endpoints, which long-polling serves.
bool isLongPollingEndpoint(const std::string& endpoint);

// The long-polling transport for http(s):// endpoints; `configured` (the delegate's) otherwise.
Address transportAddressFor(const std::string& endpoint, const Address& configured);

// "long-polling" or "websocket", as the handshake offers it and connects name it.
const char* connectionTypeFor(const std::string& endpoint);

// A ConnectTransport for the "endpoint" option, with one header per `header.<Name>` option.
std::unique_ptr<bayeux::ConnectTransport> makeConnectTransport(
    const Options& options, std::shared_ptr<bayeux::CookieJar> cookies);

}  // namespace connector::message_service
