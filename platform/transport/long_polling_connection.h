#pragma once
// One client long-polling connection to a Bayeux server, as the transport hands it to a client:
// connecting (resolve, TCP, TLS, within the connect timeout), then two keep-alive HTTP
// connections, one for the held /meta/connect and one for every other request, each POSTing a
// JSON array of messages and pushing the array it gets back to the inbound publisher. Beast and
// Asio stay in the .cpp file.

#include <memory>
#include <string>

#include "connection.h"
#include "connector/bayeux/long_polling_transport.h"
#include "connector/bayeux/messages.h"
#include "ws_url.h"

namespace boost::asio {
class io_context;
namespace ssl {
class context;
}
}  // namespace boost::asio

namespace connector::bayeux::transport {

class IoThread;

struct LongPollingSettings {
    std::string url;  // as the client gave it, for messages
    WebSocketUrl parts;
    LongPollingTransportOptions options;
    std::weak_ptr<IoThread> io;                        // where to post; gone with the service
    std::shared_ptr<boost::asio::io_context> context;  // what the sockets are bound to
    std::shared_ptr<boost::asio::ssl::context> tls;    // set for https://
    // Where the handshake's API key is read when the handshake is sent.
    std::shared_ptr<common::ContextState> state;
    ConnectTransport::Headers headers;   // sent with every request
    std::shared_ptr<CookieJar> cookies;  // may be empty: no cookies kept or sent
};

// Starts connecting on the I/O thread. `promise` gets a ConnectTransportResponse, or a
// std::runtime_error "Cannot connect to <url>: <cause>".
std::shared_ptr<Connection> openLongPollingConnection(LongPollingSettings settings,
                                                      Promise<MessagePtr> promise);

}  // namespace connector::bayeux::transport
