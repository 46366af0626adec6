// Publishing from the client service to the remote server.

#include <stdexcept>

#include "client_request.h"
#include "connector/message_service/channel_rules.h"
#include "connector/message_service/client_impl.h"
#include "connector/message_service/module_logger.h"

namespace connector::message_service {

namespace log = foundation::log;

Future<PublishResult> MessageServiceClientImpl::publish(const std::string& channel,
                                                        common::DataBuffer&& data) {
    std::shared_ptr<common::ContextState> context;
    return publishWithContext(channel, std::move(data), context);
}

Future<PublishResult> MessageServiceClientImpl::publishWithContext(
    const std::string& channel, common::DataBuffer&& data,
    std::shared_ptr<common::ContextState>& context) {
    if (auto refused =
            beginPublish(isValidPublishChannel(channel), channel, *this, jsonLogger_, data))
        return std::move(*refused);

    auto request =
        std::make_unique<bayeux::PublishRequest>(toWireChannel(channel), std::move(data));
    {
        std::lock_guard<std::mutex> lock(mutex_);
        request->setClientId(clientId_);
    }
    request->setContextState(context);
    return send<bayeux::PublishResponse>(std::move(request))
        .then([channel](Future<std::unique_ptr<bayeux::PublishResponse>>&& answered) {
            try {
                answered.get();
            } catch (const std::exception& e) {
                moduleLogger().log(log::error, "Error publishing on ", channel, ", ", e.what());
                throw;
            }
            return PublishResult(true);
        });
}

}  // namespace connector::message_service
