#pragma once
// What a client connection is made with, over either transport: the URL and its parts, the
// transport's options, the I/O thread and TLS context it runs on, and what it sends beside the
// Bayeux messages (headers, cookies, the API key's context).

#include <memory>
#include <string>

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

template <class Options>
struct ConnectionSettings {
    std::string url;  // as the client gave it, for messages
    WebSocketUrl parts;
    Options options;
    std::weak_ptr<IoThread> io;                        // where to post; gone with the service
    std::shared_ptr<boost::asio::io_context> context;  // what the sockets are bound to
    std::shared_ptr<boost::asio::ssl::context> tls;    // set for wss:// and https://
    // Where the handshake's API key is read when the handshake is sent.
    std::shared_ptr<common::ContextState> state;
    ConnectTransport::Headers headers;   // sent with the upgrade, or with every request
    std::shared_ptr<CookieJar> cookies;  // may be empty: no cookies kept or sent
};

}  // namespace connector::bayeux::transport
