#pragma once
// The WebSocket Bayeux client transport (ws:// and wss://) as a Context service.
//
// Thread safety: the functions and the handler may be called from any thread at once. The
// handler's future and the inbound stream's signals come on the transport's one I/O thread
// (a request it refuses fails at once, on the calling thread).

#include <cstddef>
#include <string>

#include "connector/core.h"

namespace connector::bayeux {

// The address under which makeContext() registers the transport.
Address webSocketTransportAddress();

struct WebSocketTransportOptions {
    // Largest frame accepted from the server; a larger one closes the connection.
    std::size_t maxFrameBytes = 16 * 1024 * 1024;
    // Verify the server's certificate and host name (wss://) against the system store.
    bool verifyPeer = true;
    // An extra CA certificate file (PEM) trusted beside the system store.
    std::string caFile;
    // Time allowed for resolving, connecting and the TLS and WebSocket handshakes.
    std::size_t connectTimeoutMs = 10000;
    // A connection that receives nothing for half this long is pinged, and one that still
    // receives nothing (not even the pong) by the end of it is closed: a server that vanished
    // without closing (a dead host, a cut network) would otherwise leave every request waiting
    // for ever. Keep it above the server's connect hold (advice "timeout"). 0: no such bound.
    std::size_t idleTimeoutMs = 60000;
    // While frames arrive less than this many microseconds apart, the socket is read at most
    // once per this interval, so that one wake-up takes in all that arrived meanwhile: a frame
    // waits at most this long, and only during such a stream. 0 reads every frame as it lands.
    std::size_t readPacingUs = 200;
    // While messages are sent fast (the last frame, less than a quarter of this interval ago,
    // held at least 8), the next frame leaves this many microseconds after the last one, so that
    // they go in fewer, larger frames: a message waits at most this long, and only during such a
    // stream. 0 sends what is queued as soon as the socket is free.
    std::size_t writePacingUs = 200;
};

// A handler answering ConnectTransport with a ConnectTransportResponse.
ServiceHandler makeWebSocketTransport(WebSocketTransportOptions options = {});

}  // namespace connector::bayeux
