// Publishing from the client service to the remote server.

#include "common/channel_rules.h"
#include "common/service_records.h"
#include "connector/message_service/client_impl.h"

namespace connector::message_service {

Future<PublishResult> MessageServiceClientImpl::publish(const std::string& channel,
                                                        common::DataBuffer&& data) {
    std::shared_ptr<common::ContextState> context;
    return publishWithContext(channel, std::move(data), context);
}

Future<PublishResult> MessageServiceClientImpl::publishWithContext(
    const std::string& channel, common::DataBuffer&& data,
    std::shared_ptr<common::ContextState>& context) {
    const bool valid = isValidPublishChannel(channel);
    if (valid && getState() == ConnectionState::RECONNECTING)
        return makeFailedFuture<PublishResult>(std::runtime_error(
            "MessageService is reconnecting: publish again once it is connected."));
    if (auto refused = beginPublish(valid, channel, *this, jsonLogger_, data))
        return std::move(*refused);

    CountedBytes counted;
    if (maxPendingBytes_) {
        const std::size_t bytes = channel.size() + data.size();
        // Counted before the test, so that racing publishers cannot all pass through one room.
        std::size_t pendingBefore = 0;
        counted = CountedBytes(pendingBytes_, bytes, pendingBefore);
        if (pendingBefore > 0 && pendingBefore + bytes > *maxPendingBytes_)
            return makeFailedFuture<PublishResult>(std::runtime_error(
                "MessageService has " + std::to_string(pendingBefore) +
                " bytes of publishes unanswered, and publish.maxPendingBytes is " +
                std::to_string(*maxPendingBytes_) + ": publish again once some are answered."));
    }
    auto request =
        std::make_unique<bayeux::PublishRequest>(toWireChannel(channel), std::move(data));
    request->setContextState(context);
    Promise<PublishResult> promise;
    Future<PublishResult> published = promise.getFuture();
    if (auto publisher = file(
            *request, PendingRequest{
                          {}, PendingPublish(std::move(promise), channel, std::move(counted)), {}}))
        publisher->next(std::move(request));
    return published;
}

}  // namespace connector::message_service
