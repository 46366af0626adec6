// The client service: construction, state and listeners, connecting the transport, the
// handshake and the meta-connect loop.

#include "connector/message_service/client_impl.h"

#include <stdexcept>
#include <utility>

#include "client_request.h"
#include "client_transport.h"
#include "common/module_logger.h"
#include "common/service_records.h"
#include "reconnect_policy.h"

namespace connector::message_service {

namespace log = foundation::log;
using bayeux::ConnectTransportResponse;

namespace {

Options requireEndpoint(Options&& options, const log::basic_diagnostic_logger<char>& logger) {
    auto endpoint = options.find("endpoint");
    if (endpoint == options.end()) {
        logger.log(log::trace, "No message service client endpoint url option specified");
        throw std::invalid_argument("No endpoint url option specified");
    }
    logger.log(log::trace, "Created new message service client instance: ", endpoint->second);
    return std::move(options);
}

}  // namespace

MessageServiceClientImpl::MessageServiceClientImpl(const std::string& name, Options&& options,
                                                   std::shared_ptr<Context> context,
                                                   Address address)
    : name_(name),
      clientId_("unset"),
      logger_(instanceLoggerName(name)),
      jsonLogger_(instanceLoggerName(name)),
      options_(requireEndpoint(std::move(options), logger_)),
      context_(std::move(context)),
      address_(std::move(address)),
      maxPendingBytes_(readMaxPendingBytes(options_)),
      reconnect_(readReconnectSettings(options_)),
      requestTimeout_(readRequestTimeout(options_)),
      clock_(defaultReconnectClock()) {}

MessageServiceClientImpl::~MessageServiceClientImpl() {
    logger_.log(log::trace, "Destructing message service server instance");
    try {
        disconnect();
    } catch (const std::exception& e) {
        logger_.log(log::error,
                    "Error while destructing MessageServiceClientImpl instance: ", e.what());
    } catch (...) {
        logger_.log(log::error,
                    "Unknown error while destructing MessageServiceClientImpl instance");
    }
}

std::string MessageServiceClientImpl::getName() {
    return name_;
}

std::string MessageServiceClientImpl::getId() {
    common::MutexLock lock(mutex_);
    return clientId_;
}

ConnectionState MessageServiceClientImpl::getState() {
    return stateSeen_.load(std::memory_order_acquire);
}

void MessageServiceClientImpl::setState(ConnectionState newState, common::UniqueLock& lock) {
    const ConnectionState previous = state_;
    state_ = newState;
    stateSeen_.store(newState, std::memory_order_release);
    auto listeners = stateListeners_;
    lock.unlock();
    logger_.log(log::trace, "Setting state to: ", newState, ", current state: ", previous);
    notifyStateListeners(listeners, previous, newState, logger_);
}

Future<std::shared_ptr<Subscription>> MessageServiceClientImpl::listenStateChange(
    std::function<void(const StateChangeEvent&)> callback) {
    std::weak_ptr<Unsubscribeable> self =
        std::static_pointer_cast<Unsubscribeable>(shared_from_this());
    common::UniqueLock lock(mutex_);
    const std::uint64_t id = nextSubscriptionId_++;
    stateListeners_.push_back({std::move(callback), id});
    lock.unlock();
    return makeReadyFuture<std::shared_ptr<Subscription>>(
        std::make_shared<SubscriptionImpl2>(id, std::move(self), nullptr));
}

void MessageServiceClientImpl::setReconnectClock(ReconnectClock clock) {
    common::MutexLock lock(mutex_);
    clock_ = std::move(clock);
}

Future<ConnectionState> MessageServiceClientImpl::connect() {
    common::UniqueLock lock(mutex_);
    // A reconnection under way is already connecting.
    if (state_ == ConnectionState::CONNECTED || state_ == ConnectionState::RECONNECTING)
        return makeReadyFuture<ConnectionState>(state_);
    setState(ConnectionState::CONNECTING, lock);

    logger_.log(log::trace, "Connecting transport to: ", endpoint());
    auto apiKey = options_.find("orvapikey");
    if (apiKey != options_.end())
        context_->getState()->set("orvapikey", std::any(std::string(apiKey->second)),
                                  ContextScope::Session);

    std::weak_ptr<MessageServiceClientImpl> weak = shared_from_this();
    return flatten(
        openTransport().then([weak](Future<MessagePtr>&& connected) -> Future<ConnectionState> {
            MessagePtr message;
            try {
                message = connected.get();
            } catch (const std::exception& e) {
                moduleLogger().log(log::error, "Transport connection error: ", e.what());
                throw;
            }
            auto self = weak.lock();
            if (!self)
                throw std::runtime_error("Transport connected but MessageService instance is gone");
            return self->handle(castResponse<ConnectTransportResponse>(std::move(message)));
        }));
}

Future<MessageServiceClientImpl::MessagePtr> MessageServiceClientImpl::openTransport() {
    return context_->deliver(transportAddressFor(endpoint(), address_),
                             makeConnectTransport(options_, cookies_));
}

Future<ConnectionState> MessageServiceClientImpl::handle(
    std::unique_ptr<ConnectTransportResponse>&& response) {
    attachTransport(*response);
    std::weak_ptr<MessageServiceClientImpl> weak = shared_from_this();
    return sendHandshake().then(
        [weak](Future<std::unique_ptr<bayeux::HandshakeResponse>>&& answered) {
            auto self = weak.lock();
            if (!self)
                throw std::runtime_error("Error disconnecting but MessageService instance is gone");
            try {
                auto reply = answered.get();
                common::UniqueLock lock(self->mutex_);
                self->clientId_ = reply->getClientId();
                self->setState(ConnectionState::CONNECTED, lock);
                self->sendMetaConnect();
                self->logger_.log(log::trace, "Handshake successful");
                return self->getState();
            } catch (const std::exception& e) {
                self->logger_.log(log::error, "Handshake error: ", e.what());
                common::UniqueLock lock(self->mutex_);
                self->setState(ConnectionState::DISCONNECTED, lock);
                throw;
            }
        });
}

bool MessageServiceClientImpl::attachTransport(ConnectTransportResponse& response,
                                               std::optional<std::uint64_t> round) {
    logger_.log(log::trace, "Transport connected");
    if (!response.getInbound() || !response.getOutbound())
        throw std::runtime_error("Transport connected without message streams: " + endpoint());
    std::weak_ptr<MessageServiceClientImpl> weak = shared_from_this();
    common::UniqueLock lock(mutex_);
    if (round && !roundIsCurrent(*round))
        return false;  // the response, dropped by the caller, closes the transport
    const std::uint64_t generation = ++transportGeneration_;
    auto outbound = std::make_shared<OutboundPublisher>(
        [weak, generation] {
            if (auto self = weak.lock())
                self->transportEnded(generation, "Cached publisher done");
        },
        -1);
    auto inbound = std::make_shared<InboundSubscriber>([weak](MessagePtr message) {
        auto self = weak.lock();
        if (!self) {
            moduleLogger().log(log::trace, "Message received but MessageService is gone");
            return;
        }
        try {
            self->deliver(std::move(message));
        } catch (const std::exception& e) {
            // A malformed message from the network must not take the transport thread down.
            self->logger_.log(log::error, "Error handling inbound message: ", e.what());
        }
    });
    // A transport replaced by a new connect goes away only after the lock is released: its
    // teardown calls into the old transport and back into this instance.
    auto replacedOutbound = std::exchange(outboundPublisher_, outbound);
    auto replacedInbound = std::exchange(inboundSubscriber_, inbound);
    lock.unlock();
    replacedInbound.reset();
    replacedOutbound.reset();

    // The transport is called with no lock held: it may deliver at once on its own thread.
    outbound->subscribe(response.getOutbound());
    inbound->done().then([weak, generation](Future<bool>&& done) {
        bool ended = true;
        try {
            ended = done.get();
        } catch (...) {
        }
        if (!ended)
            return;  // cancelled by this side: the instance is going or reconnecting
        if (auto self = weak.lock())
            self->transportEnded(generation, "Inbound stream completed");
    });
    response.getInbound()->subscribe(inbound);
    return true;
}

Future<std::unique_ptr<bayeux::HandshakeResponse>> MessageServiceClientImpl::sendHandshake() {
    auto handshake = std::make_unique<bayeux::HandshakeRequest>(
        "1.0", "1.0", std::vector<std::string>{connectionTypeFor(endpoint())});
    logger_.log(log::trace, "Sending handshake");
    return send<bayeux::HandshakeResponse>(std::move(handshake));
}

void MessageServiceClientImpl::sendMetaConnect() {
    common::UniqueLock lock(mutex_);
    if (state_ != ConnectionState::CONNECTED) {
        lock.unlock();
        logger_.log(log::trace, "Not connected, not sending meta connect request");
        return;
    }
    auto request = std::make_unique<bayeux::ConnectRequest>(connectionTypeFor(endpoint()));
    request->setClientId(clientId_);
    const std::uint64_t generation = transportGeneration_;
    lock.unlock();
    logger_.log(log::trace, "Sending meta connect");

    std::weak_ptr<MessageServiceClientImpl> weak = shared_from_this();
    send<bayeux::ConnectStreamResponse>(std::move(request))
        .then([weak,
               generation](Future<std::unique_ptr<bayeux::ConnectStreamResponse>>&& answered) {
            auto self = weak.lock();
            if (!self)
                throw std::runtime_error("Error disconnecting but MessageService instance is gone");
            std::unique_ptr<bayeux::ConnectStreamResponse> reply;
            try {
                reply = answered.get();
            } catch (const std::exception& e) {
                self->logger_.log(log::error, "Meta connect error: ", e.what());
                if (self->reconnect_.enabled)
                    self->metaConnectFailed(generation, e);
                throw;
            }
            if (self->reconnect_.enabled)
                self->metaConnectAnswered(generation, *reply);
            else
                self->sendMetaConnect();
        });
}

void MessageServiceClientImpl::transportEnded(std::uint64_t generation, const char* why) {
    common::UniqueLock lock(mutex_);
    if (generation != transportGeneration_ || !outboundPublisher_)
        return;
    // Later sends fail at once instead of waiting for a socket that is gone.
    auto publisher = std::move(outboundPublisher_);
    auto pending = std::move(pendingRequests_);
    pendingRequests_.clear();
    const bool resume = reconnect_.enabled && (state_ == ConnectionState::CONNECTED ||
                                               state_ == ConnectionState::RECONNECTING);
    logger_.log(log::trace, why);
    if (resume && state_ == ConnectionState::CONNECTED)
        startReconnecting(lock, std::chrono::milliseconds(0));
    else if (resume)
        scheduleAttempt(lock, std::chrono::milliseconds(0));  // the attempt's transport closed
    else if (state_ != ConnectionState::DISCONNECTED)
        setState(ConnectionState::DISCONNECTED, lock);
    else
        lock.unlock();
    const std::string text = "Connection to " + endpoint() + " closed";
    for (std::size_t i = 0; i < pending.size(); ++i)
        pending[i].fail(text);
}

Future<DisconnectResult> MessageServiceClientImpl::disconnect() {
    common::UniqueLock lock(mutex_);
    if (state_ == ConnectionState::DISCONNECTED)
        return makeReadyFuture<DisconnectResult>(true);
    if (state_ == ConnectionState::RECONNECTING) {
        // No session on the server to end: the reconnection is dropped here and now.
        stopReconnecting(lock, ConnectionState::DISCONNECTING, "disconnected");
        lock.lock();
        setState(ConnectionState::DISCONNECTED, lock);
        return makeReadyFuture<DisconnectResult>(true);
    }
    // A meta connect waiting out an advised interval is not sent.
    common::TickManager::Canceller interval = std::move(timer_);
    logger_.log(log::trace, "Disconnecting from: ", endpoint(), ", ", clientId_);
    // The drained subscriptions are released once the disconnect has been answered.
    auto drained = std::make_shared<TakenHolders>(takeAllHolders(subscriptions_));
    wildcardHolders_ = 0;
    auto request = std::make_unique<bayeux::DisconnectRequest>(clientId_);
    std::weak_ptr<MessageServiceClientImpl> weak = weak_from_this();
    setState(ConnectionState::DISCONNECTING, lock);
    interval.cancel();

    return send<bayeux::DisconnectResponse>(std::move(request))
        .then([weak, drained](Future<std::unique_ptr<bayeux::DisconnectResponse>>&& answered) {
            // A disconnect started by the destructor ends here, its pending answer abandoned.
            auto self = weak.lock();
            if (!self)
                throw std::runtime_error("Disconnected but MessageService instance is gone");
            try {
                answered.get();
            } catch (const std::exception& e) {
                moduleLogger().log(log::error, "Error disconnecting: ", e.what());
                throw;
            }
            common::UniqueLock lock(self->mutex_);
            // The server may close the connection before this runs, which ends it already.
            if (self->state_ == ConnectionState::DISCONNECTING)
                self->setState(ConnectionState::DISCONNECTED, lock);
            return DisconnectResult(true);
        });
}

}  // namespace connector::message_service
