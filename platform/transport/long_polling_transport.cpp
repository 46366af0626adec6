// The long-polling transport service: answers ConnectTransport with an open connection.

#include "connector/bayeux/long_polling_transport.h"

#include "long_polling_connection.h"
#include "transport_service.h"

namespace connector::bayeux {

Address longPollingTransportAddress() {
    return Address("connector/bayeux/longPolling/client", "connector/http/client");
}

ServiceHandler makeLongPollingTransport(LongPollingTransportOptions options) {
    using Service = transport::TransportService<transport::LongPollingSettings>;
    auto service =
        std::make_shared<Service>(std::move(options), "The long-polling transport",
                                  &transport::parseHttpUrl, &transport::openLongPollingConnection);
    return [service](Context& context, std::unique_ptr<Message> request) {
        return service->connect(context, std::move(request));
    };
}

}  // namespace connector::bayeux
