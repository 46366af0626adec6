#pragma once
// One client long-polling connection to a Bayeux server, as the transport hands it to a client:
// connecting (resolve, TCP, TLS, within the connect timeout), then two keep-alive HTTP
// connections, one for the held /meta/connect and one for every other request, each POSTing a
// JSON array of messages and pushing the array it gets back to the inbound publisher. Beast and
// Asio stay in the .cpp file.

#include <memory>

#include "connection.h"
#include "connection_settings.h"
#include "connector/bayeux/long_polling_transport.h"
#include "connector/bayeux/messages.h"

namespace connector::bayeux::transport {

using LongPollingSettings = ConnectionSettings<LongPollingTransportOptions>;

// Starts connecting on the I/O thread. `promise` gets a ConnectTransportResponse, or a
// std::runtime_error "Cannot connect to <url>: <cause>".
std::shared_ptr<Connection> openLongPollingConnection(LongPollingSettings settings,
                                                      Promise<MessagePtr> promise);

}  // namespace connector::bayeux::transport
