#pragma once
// One client WebSocket connection to a Bayeux server, as the transport hands it to a client:
// connecting (resolve, TCP, TLS, WebSocket handshake, all within the connect timeout), then a
// read loop feeding the inbound publisher and a write path that sends what the outbound
// subscriber queued, one frame per write. Beast and Asio stay in the .cpp file.

#include <memory>
#include <string>

#include "connection.h"
#include "connector/bayeux/websocket_transport.h"
#include "ws_url.h"

namespace boost::asio {
class io_context;
namespace ssl {
class context;
}
}  // namespace boost::asio

namespace connector::bayeux::transport {

class IoThread;

struct ConnectionSettings {
    std::string url;  // as the client gave it, for messages
    WebSocketUrl parts;
    WebSocketTransportOptions options;
    std::weak_ptr<IoThread> io;                        // where to post; gone with the service
    std::shared_ptr<boost::asio::io_context> context;  // what the sockets are bound to
    std::shared_ptr<boost::asio::ssl::context> tls;    // set for wss://
    // Where the handshake's API key is read when the handshake is sent.
    std::shared_ptr<common::ContextState> state;
    ConnectTransport::Headers headers;   // sent with the upgrade
    std::shared_ptr<CookieJar> cookies;  // may be empty: no cookies kept or sent
};

// Starts connecting on the I/O thread. `promise` gets a ConnectTransportResponse, or a
// std::runtime_error "Cannot connect to <url>: <cause>".
std::shared_ptr<Connection> openWebSocketConnection(ConnectionSettings settings,
                                                    Promise<MessagePtr> promise);

}  // namespace connector::bayeux::transport
