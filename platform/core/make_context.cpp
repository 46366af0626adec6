// The context hosts start from: the WebSocket and long-polling transports already registered.

#include "connector/bayeux/long_polling_transport.h"
#include "connector/bayeux/websocket_transport.h"
#include "connector/core.h"

namespace connector {

std::shared_ptr<Context> makeContext() {
    auto context = std::make_shared<Context>();
    context->registerService(bayeux::webSocketTransportAddress(), bayeux::makeWebSocketTransport());
    context->registerService(bayeux::longPollingTransportAddress(),
                             bayeux::makeLongPollingTransport());
    return context;
}

std::shared_ptr<Connector> makeConnector(std::shared_ptr<Context> context) {
    return std::make_shared<Connector>(std::move(context));
}

}  // namespace connector
