#include "connector/message_service/server_impl.h"

#include <stdexcept>

#include <algorithm>
#include <type_traits>

#include "common/channel_rules.h"
#include "common/module_logger.h"
#include "common/service_records.h"
#include "common/take_if.h"
#include "connector/bayeux/channel.h"
#include "connector/common/delay.h"
#include "connector/common/random_string.h"

namespace connector::message_service {

namespace log = foundation::log;

namespace {

template <class T>
Future<T> invalidArgument(const std::string& text) {
    return makeFailedFuture<T>(std::invalid_argument(text));
}

}  // namespace

MessageServiceServerImpl::MessageServiceServerImpl(const std::string& name,
                                                   std::shared_ptr<bayeux::BayeuxServer> server)
    : name_(name),
      id_(common::randomString(16)),
      logger_(instanceLoggerName(name)),
      jsonLogger_(instanceLoggerName(name)),
      bayeuxServer_(std::move(server)) {
    logger_.log(log::trace, "Created new message service instance: ", id_);
    if (!bayeuxServer_)
        throw std::invalid_argument("No bayeux server instance provided");
}

MessageServiceServerImpl::~MessageServiceServerImpl() {
    logger_.log(log::trace, "Destructing message service instance");
    doDisconnect(false);
}

ConnectionState MessageServiceServerImpl::getState() {
    common::MutexLock lock(mutex_);
    return state_;
}

void MessageServiceServerImpl::ensureRegisteredWithService(common::UniqueLock& lock) {
    if (registered_) {
        lock.unlock();
        // Waits for a registration another thread may still be making.
        common::MutexLock registering(registerMutex_);
        return;
    }
    registered_ = true;
    std::weak_ptr<bayeux::BayeuxSession> self =
        std::static_pointer_cast<bayeux::BayeuxSession>(shared_from_this());
    common::MutexLock registering(registerMutex_);
    lock.unlock();
    bayeuxServer_->registerSession(std::move(self));
}

void MessageServiceServerImpl::setState(ConnectionState newState, common::UniqueLock& lock) {
    const ConnectionState previous = state_;
    state_ = newState;
    std::vector<StateListenerRecord> listeners = stateListeners_;
    lock.unlock();
    notifyStateListeners(listeners, previous, newState, logger_);
}

Future<std::shared_ptr<Subscription>> MessageServiceServerImpl::listenStateChange(
    std::function<void(const StateChangeEvent&)> callback) {
    common::UniqueLock lock(mutex_);
    const std::uint64_t id = nextId_++;
    stateListeners_.push_back({std::move(callback), id});
    lock.unlock();
    std::weak_ptr<Unsubscribeable> self =
        std::static_pointer_cast<Unsubscribeable>(shared_from_this());
    return makeReadyFuture<std::shared_ptr<Subscription>>(
        std::make_shared<SubscriptionImpl2>(id, std::move(self), context_));
}

Future<DisconnectResult> MessageServiceServerImpl::disconnect() {
    doDisconnect(true);
    return makeReadyFuture<DisconnectResult>(DisconnectResult(true));
}

void MessageServiceServerImpl::doDisconnect(bool unregister) {
    common::UniqueLock lock(mutex_);
    TakenHolders removed = takeAllHolders(subscriptions_);
    setState(ConnectionState::DISCONNECTING, lock);

    for (const auto& [channel, holder] : removed)
        bayeuxServer_->acceptUnsubscribe(
            std::make_shared<bayeux::UnsubscribeRequest>(channel, id_));
    removed.clear();

    if (unregister) {
        bayeuxServer_->unregisterSession(shared_from_this());
        lock.lock();
        registered_ = false;
        lock.unlock();
    }
    lock.lock();
    setState(ConnectionState::DISCONNECTED, lock);
}

Future<std::shared_ptr<Subscription>> MessageServiceServerImpl::subscribe(
    const std::string& channel, std::function<void(const JsonMessage&)> callback) {
    return subscribeWithContext(channel, std::move(callback), context_);
}

Future<std::shared_ptr<Subscription>> MessageServiceServerImpl::subscribeWithContext(
    const std::string& channel, std::function<void(const JsonMessage&)> callback,
    const std::shared_ptr<common::ContextState>& context) {
    const bool valid = name_ == kSharedServiceName ? isValidSharedChannelPattern(channel)
                                                   : isValidChannelPattern(channel);
    if (!valid)
        return invalidArgument<std::shared_ptr<Subscription>>("Channel pattern is invalid: " +
                                                              channel);

    std::weak_ptr<Unsubscribeable> self =
        std::static_pointer_cast<Unsubscribeable>(shared_from_this());
    std::string full = toWireChannel(channel);
    common::UniqueLock lock(mutex_);
    const std::uint64_t id = nextId_++;
    subscriptions_[full].push_back(std::make_shared<SubscriptionHolder>(id, std::move(callback)));
    ensureRegisteredWithService(lock);
    logger_.log(log::trace, "Subscribe: ", channel, ", ", id);

    auto request = std::make_shared<bayeux::SubscribeRequest>(std::move(full), id_);
    request->setContextState(context);
    bayeuxServer_->acceptSubscribe(std::move(request));
    std::shared_ptr<Subscription> subscription =
        std::make_shared<SubscriptionImpl2>(id, std::move(self), context);
    // A cluster member's subscription is made once the other members send its messages.
    auto made = std::make_shared<Promise<std::shared_ptr<Subscription>>>();
    auto future = made->getFuture();
    if (!bayeuxServer_->whenSubscriptionsShared(
            [made, subscription] { made->setValue(subscription); }))
        made->setValue(std::move(subscription));
    return future;
}

Future<CancelResult> MessageServiceServerImpl::unsubscribeId(
    std::uint64_t id, const std::shared_ptr<common::ContextState>& /*context*/) {
    logger_.log(log::trace, "Unsubscribe: ", id);
    TakenHolders removed;
    // Cancelled listeners are destroyed after the unlock: what they capture may call back in.
    decltype(subscribeListeners_) cancelledSubscribe;
    decltype(unsubscribeListeners_) cancelledUnsubscribe;
    decltype(stateListeners_) cancelledState;
    {
        common::MutexLock lock(mutex_);
        removed = takeHolders(subscriptions_, id);
        auto matchesId = [id](const auto& record) { return record.id == id; };
        cancelledSubscribe = takeIf(subscribeListeners_, matchesId);
        cancelledUnsubscribe = takeIf(unsubscribeListeners_, matchesId);
        cancelledState = takeIf(stateListeners_, matchesId);
    }
    for (const auto& [channel, holder] : removed)
        bayeuxServer_->acceptUnsubscribe(
            std::make_shared<bayeux::UnsubscribeRequest>(channel, id_));
    return makeReadyFuture<CancelResult>(CancelResult(true));
}

template <class Event>
std::vector<MessageServiceServerImpl::ListenerRecord<Event>>&
MessageServiceServerImpl::listeners() {
    if constexpr (std::is_same_v<Event, SubscribeEvent>)
        return subscribeListeners_;
    else
        return unsubscribeListeners_;
}

template <class Event>
Future<std::shared_ptr<Subscription>> MessageServiceServerImpl::addListener(
    const std::string& pattern, std::function<void(const Event&)> callback) {
    if (!isValidChannelPattern(pattern))
        return invalidArgument<std::shared_ptr<Subscription>>("Channel pattern is invalid: " +
                                                              pattern);
    std::weak_ptr<Unsubscribeable> self =
        std::static_pointer_cast<Unsubscribeable>(shared_from_this());
    common::UniqueLock lock(mutex_);
    const std::uint64_t id = nextId_++;
    listeners<Event>().push_back({toWireChannel(pattern), std::move(callback), id});
    ensureRegisteredWithService(lock);
    return makeReadyFuture<std::shared_ptr<Subscription>>(
        std::make_shared<SubscriptionImpl2>(id, std::move(self), context_));
}

Future<std::shared_ptr<Subscription>> MessageServiceServerImpl::listenSubscribe(
    const std::string& channelPattern, std::function<void(const SubscribeEvent&)> callback) {
    return addListener<SubscribeEvent>(channelPattern, std::move(callback));
}

Future<std::shared_ptr<Subscription>> MessageServiceServerImpl::listenUnsubscribe(
    const std::string& channelPattern, std::function<void(const UnsubscribeEvent&)> callback) {
    return addListener<UnsubscribeEvent>(channelPattern, std::move(callback));
}

bool MessageServiceServerImpl::matches(const std::string& channel, const std::string& pattern) {
    return bayeux::ChannelName(pattern).matches(bayeux::ChannelName(channel));
}

template <class Event, class Request>
void MessageServiceServerImpl::notifyListeners(const Request& request, const char* errorText,
                                               const char* unknownErrorText) {
    std::vector<std::function<void(const Event&)>> callbacks;
    {
        common::MutexLock lock(mutex_);
        for (const auto& record : listeners<Event>())
            if (matches(request.getChannel(), record.channel))
                callbacks.push_back(record.callback);
    }
    if (request.getChannel().size() <= kWirePrefixLength || callbacks.empty())
        return;
    const std::string channel = request.getChannel().substr(kWirePrefixLength);
    const Event event(channel);
    for (const auto& callback : callbacks) {
        try {
            callback(event);
        } catch (const std::exception& e) {
            logger_.log(log::error, errorText, channel, ", ", e.what());
        } catch (...) {
            logger_.log(log::error, unknownErrorText, channel);
        }
    }
}

void MessageServiceServerImpl::deliver(
    const std::shared_ptr<const bayeux::SubscribeRequest>& request) {
    notifyListeners<SubscribeEvent>(*request, "Error executing subscribe listener: ",
                                    "Unknown error executing subscribe listener: ");
}

void MessageServiceServerImpl::deliver(
    const std::shared_ptr<const bayeux::UnsubscribeRequest>& request) {
    notifyListeners<UnsubscribeEvent>(*request, "Error executing unsubscribe listener: ",
                                      "Unknown error executing unsubscribe listener: ");
}

}  // namespace connector::message_service
