#pragma once
// One client WebSocket connection to a Bayeux server, as the transport hands it to a client:
// connecting (resolve, TCP, TLS, WebSocket handshake, all within the connect timeout), then a
// read loop feeding the inbound publisher and a write path that sends what the outbound
// subscriber queued, one frame per write. Beast and Asio stay in the .cpp file.

#include <memory>

#include "connection.h"
#include "connection_settings.h"
#include "connector/bayeux/websocket_transport.h"

namespace connector::bayeux::transport {

using WebSocketSettings = ConnectionSettings<WebSocketTransportOptions>;

// Starts connecting on the I/O thread. `promise` gets a ConnectTransportResponse, or a
// std::runtime_error "Cannot connect to <url>: <cause>".
std::shared_ptr<Connection> openWebSocketConnection(WebSocketSettings settings,
                                                    Promise<MessagePtr> promise);

}  // namespace connector::bayeux::transport
