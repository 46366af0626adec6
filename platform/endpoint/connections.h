#pragma once
// The client connections of the endpoint, started by the listener: an HTTP connection serves
// long-polling requests and hands a WebSocket upgrade over to a WebSocket connection. Both come
// in plain and TLS forms. Private to the endpoint's own .cpp files.

#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <memory>

#include "gauges.h"

namespace connector::bayeux::endpoint {

class Hub;
struct ConnectionSessions;

using PlainStream = boost::beast::tcp_stream;
using TlsStream = boost::beast::ssl_stream<boost::beast::tcp_stream>;
using HttpRequest = boost::beast::http::request<boost::beast::http::string_body>;

// Serves HTTP on a freshly accepted stream; a TLS stream is handshaken first. `slot` counts the
// connection until it closes.
void serveHttp(PlainStream stream, std::shared_ptr<Hub> hub, ConnectionSlot slot);
void serveHttp(TlsStream stream, std::shared_ptr<Hub> hub, ConnectionSlot slot);

// Accepts the WebSocket upgrade `request` read from `stream`, then serves Bayeux frames. The
// sessions handshaken over the connection before its upgrade go on counting in `sessions`.
void serveWebSocket(PlainStream stream, HttpRequest request, std::shared_ptr<Hub> hub,
                    ConnectionSlot slot, std::shared_ptr<ConnectionSessions> sessions);
void serveWebSocket(TlsStream stream, HttpRequest request, std::shared_ptr<Hub> hub,
                    ConnectionSlot slot, std::shared_ptr<ConnectionSessions> sessions);

}  // namespace connector::bayeux::endpoint
