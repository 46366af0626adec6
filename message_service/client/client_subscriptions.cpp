// Channel subscriptions of the client service, mirrored on the remote server.

#include <stdexcept>

#include "client_request.h"
#include "common/channel_rules.h"
#include "common/module_logger.h"
#include "common/service_records.h"
#include "common/take_if.h"
#include "connector/message_service/client_impl.h"

namespace connector::message_service {

namespace log = foundation::log;

Future<std::shared_ptr<Subscription>> MessageServiceClientImpl::subscribe(
    const std::string& channel, std::function<void(const JsonMessage&)> callback) {
    return subscribeWithContext(channel, std::move(callback), nullptr);
}

Future<std::shared_ptr<Subscription>> MessageServiceClientImpl::subscribeWithContext(
    const std::string& channel, std::function<void(const JsonMessage&)> callback,
    const std::shared_ptr<common::ContextState>& context) {
    using Result = std::shared_ptr<Subscription>;
    if (!isValidChannelPattern(channel))
        return makeFailedFuture<Result>(
            std::invalid_argument("Channel pattern is invalid: " + channel));
    std::weak_ptr<MessageServiceClientImpl> weak = shared_from_this();

    common::UniqueLock lock(mutex_);
    if (state_ != ConnectionState::CONNECTED)
        return makeFailedFuture<Result>(std::runtime_error("MessageService is not connected."));
    const std::uint64_t id = nextSubscriptionId_++;
    std::string key = toWireChannel(channel);
    if (isWildcardKey(key))
        ++wildcardHolders_;
    // Held before the server answers, so messages arriving ahead of the answer are delivered.
    subscriptions_[key].push_back(std::make_shared<SubscriptionHolder>(id, std::move(callback)));
    auto request = std::make_unique<bayeux::SubscribeRequest>(std::move(key), clientId_);
    request->setContextState(context);
    lock.unlock();
    logger_.log(log::trace, "Subscribe: ", channel, ", ", id);

    return send<bayeux::SubscribeResponse>(std::move(request))
        .then([weak, channel, id,
               context](Future<std::unique_ptr<bayeux::SubscribeResponse>>&& answered) -> Result {
            auto self = weak.lock();
            if (!self)
                throw std::runtime_error("Subscribing to: " + channel +
                                         ", but MessageService instance is gone");
            try {
                answered.get();
            } catch (const std::exception& e) {
                self->logger_.log(log::error, "Error subscribing to: ", channel, ", ", e.what());
                throw;
            }
            std::weak_ptr<Unsubscribeable> service =
                std::static_pointer_cast<Unsubscribeable>(self);
            return std::make_shared<SubscriptionImpl2>(id, std::move(service), context);
        });
}

Future<CancelResult> MessageServiceClientImpl::unsubscribeId(
    std::uint64_t id, const std::shared_ptr<common::ContextState>& context) {
    logger_.log(log::trace, "Unsubscribe: ", id);
    common::UniqueLock lock(mutex_);
    TakenHolders removed = takeHolders(subscriptions_, id);
    for (const auto& entry : removed)
        if (isWildcardKey(entry.first))
            --wildcardHolders_;
    // Cancelled listeners are destroyed after the unlock: what they capture may call back in.
    auto cancelledListeners = takeIf(stateListeners_, [id](const auto& l) { return l.id == id; });
    if (state_ != ConnectionState::CONNECTED || removed.empty()) {
        lock.unlock();
        return makeReadyFuture<CancelResult>(true);
    }
    const std::string clientId = clientId_;
    lock.unlock();

    Future<CancelResult> last;
    for (const auto& entry : removed)
        last = sendUnsubscribe(entry.first, clientId, context);
    return last;
}

Future<CancelResult> MessageServiceClientImpl::sendUnsubscribe(
    const std::string& key, const std::string& clientId,
    const std::shared_ptr<common::ContextState>& context) {
    auto request = std::make_unique<bayeux::UnsubscribeRequest>(key, clientId);
    request->setContextState(context);
    return send<bayeux::UnsubscribeResponse>(std::move(request))
        .then([key](Future<std::unique_ptr<bayeux::UnsubscribeResponse>>&& answered) {
            try {
                answered.get();
            } catch (const std::exception& e) {
                moduleLogger().log(log::error, "Error unsubscribing: ", key, ", ", e.what());
                throw;
            }
            return CancelResult(true);
        });
}

Future<std::shared_ptr<Subscription>> MessageServiceClientImpl::listenSubscribe(
    const std::string&, std::function<void(const SubscribeEvent&)>) {
    return makeFailedFuture<std::shared_ptr<Subscription>>(
        std::runtime_error("Subscriptions listeners are not supported for client instances"));
}

Future<std::shared_ptr<Subscription>> MessageServiceClientImpl::listenUnsubscribe(
    const std::string&, std::function<void(const UnsubscribeEvent&)>) {
    return makeFailedFuture<std::shared_ptr<Subscription>>(
        std::runtime_error("Subscriptions listeners are not supported for client instances"));
}

}  // namespace connector::message_service
