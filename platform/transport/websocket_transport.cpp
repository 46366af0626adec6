// The WebSocket transport service: answers ConnectTransport with an open connection.

#include "connector/bayeux/websocket_transport.h"

#include "transport_service.h"
#include "websocket_connection.h"

namespace connector::bayeux {

Address webSocketTransportAddress() {
    return Address("connector/bayeux/webSocket/client", "connector/http/client");
}

ServiceHandler makeWebSocketTransport(WebSocketTransportOptions options) {
    using Service = transport::TransportService<transport::WebSocketSettings>;
    auto service = std::make_shared<Service>(std::move(options), "The WebSocket transport",
                                             &transport::parseWebSocketUrl,
                                             &transport::openWebSocketConnection);
    return [service](Context& context, std::unique_ptr<Message> request) {
        return service->connect(context, std::move(request));
    };
}

}  // namespace connector::bayeux
