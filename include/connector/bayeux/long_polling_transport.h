#pragma once
// The HTTP long-polling Bayeux client transport (http:// and https://) as a Context service.
//
// Requests go as POSTs of a JSON array of messages and come back as a JSON array: the
// /meta/connect, which the server holds until it has something to deliver, on one keep-alive
// connection, everything else on a second one, batched while the previous POST is answered.
//
// Thread safety: the functions and the handler may be called from any thread at once. The
// handler's future and the inbound stream's signals come on the transport's one I/O thread
// (a request it refuses fails at once, on the calling thread).

#include <cstddef>
#include <string>

#include "connector/core.h"

namespace connector::bayeux {

// The address under which makeContext() registers the transport.
Address longPollingTransportAddress();

struct LongPollingTransportOptions {
    // Largest response body accepted from the server; a larger one ends the connection.
    std::size_t maxFrameBytes = 16 * 1024 * 1024;
    // Verify the server's certificate and host name (https://) against the system store.
    bool verifyPeer = true;
    // An extra CA certificate file (PEM) trusted beside the system store.
    std::string caFile;
    // Time allowed for resolving, connecting and the TLS handshake of each connection.
    std::size_t connectTimeoutMs = 10000;
    // Time allowed for one request to be answered: above the longest time servers hold a
    // /meta/connect (commonly 25 to 60 seconds).
    std::size_t requestTimeoutMs = 120000;
};

// A handler answering ConnectTransport with a ConnectTransportResponse.
ServiceHandler makeLongPollingTransport(LongPollingTransportOptions options = {});

}  // namespace connector::bayeux
