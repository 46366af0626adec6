// Reconnection of the client service, with the option "reconnect" = "on": leaving a lost
// connection, the attempts with their backoff, subscribing again, and giving up when told to.

#include <algorithm>
#include <atomic>

#include "client_request.h"
#include "common/channel_rules.h"
#include "common/service_records.h"
#include "connector/message_service/client_impl.h"
#include "reconnect_policy.h"

namespace connector::message_service {

namespace log = foundation::log;
using std::chrono::milliseconds;

namespace {

// A server's advice is honoured up to this: a longer wait outlives any session the server keeps,
// and the client would sit connected, or reconnecting, to nothing.
constexpr milliseconds kLongestAdvisedInterval{60000};

// The least wait a server's advice asks for.
milliseconds advisedInterval(const std::optional<bayeux::Advice>& advice) {
    return milliseconds(
        advice ? std::clamp<std::int64_t>(advice->interval, 0, kLongestAdvisedInterval.count())
               : 0);
}

const BayeuxFailure* bayeuxFailure(const std::exception& error) {
    return dynamic_cast<const BayeuxFailure*>(&error);
}

}  // namespace

void MessageServiceClientImpl::DroppedTransport::release(const std::string& text) {
    for (std::size_t i = 0; i < pending.size(); ++i)
        pending[i].fail(text);
    timer.cancel();
    inbound.reset();
    outbound.reset();
}

MessageServiceClientImpl::DroppedTransport MessageServiceClientImpl::dropTransportLocked() {
    DroppedTransport dropped;
    ++transportGeneration_;  // whatever the old transport still reports is ignored
    dropped.outbound = std::move(outboundPublisher_);
    dropped.inbound = std::move(inboundSubscriber_);
    dropped.pending = std::move(pendingRequests_);
    pendingRequests_.clear();
    dropped.timer = std::move(timer_);
    return dropped;
}

void MessageServiceClientImpl::metaConnectAnswered(std::uint64_t generation,
                                                   const bayeux::BayeuxMessage& reply) {
    const auto& advice = reply.getAdvice();
    common::UniqueLock lock(mutex_);
    if (generation != transportGeneration_)
        return;  // a newer transport has a loop of its own
    if (state_ == ConnectionState::CONNECTED && advisesNone(advice)) {
        logger_.log(log::warning, "The server ended the session at: ", endpoint());
        stopReconnecting(lock, ConnectionState::DISCONNECTED, "advice none");
        return;
    }
    if (state_ == ConnectionState::CONNECTED && advice && advice->reconnect == "handshake") {
        startReconnecting(lock, advisedInterval(advice));
        return;
    }
    // The connection works: a later loss starts its waits afresh. Not before, so that a server
    // that takes handshakes and drops what follows is met with the growing waits.
    attempts_ = 0;
    lock.unlock();
    const milliseconds interval = advisedInterval(advice);
    if (interval.count() > 0)
        pollAfterInterval(generation, interval);
    else
        sendMetaConnect();  // which ends the loop when no longer connected
}

void MessageServiceClientImpl::metaConnectFailed(std::uint64_t generation,
                                                 const std::exception& error) {
    common::UniqueLock lock(mutex_);
    if (generation != transportGeneration_ || state_ != ConnectionState::CONNECTED)
        return;  // the transport's end is already being handled
    const BayeuxFailure* failure = bayeuxFailure(error);
    if (failure && advisesNone(failure->advice())) {
        logger_.log(log::warning, "The server ended the session at: ", endpoint());
        stopReconnecting(lock, ConnectionState::DISCONNECTED, error.what());
        return;
    }
    startReconnecting(lock, failure ? advisedInterval(failure->advice()) : milliseconds(0));
}

void MessageServiceClientImpl::startReconnecting(common::UniqueLock& lock, milliseconds floor) {
    DroppedTransport dropped = dropTransportLocked();
    logger_.log(log::warning, "Connection lost, reconnecting to: ", endpoint());
    setState(ConnectionState::RECONNECTING, lock);
    dropped.release("Connection to " + endpoint() + " closed");
    lock.lock();
    if (state_ != ConnectionState::RECONNECTING) {
        lock.unlock();  // a state listener disconnected meanwhile
        return;
    }
    scheduleAttempt(lock, floor);
}

void MessageServiceClientImpl::scheduleAttempt(common::UniqueLock& lock, milliseconds floor) {
    const std::uint64_t round = ++reconnectRound_;
    const milliseconds ceiling = backoffCeiling(reconnect_, attempts_++);
    const ReconnectClock clock = clock_;
    lock.unlock();
    const milliseconds wait = std::max(floor, clock.draw(ceiling));
    logger_.log(log::trace, "Reconnecting in ", wait.count(), " ms");
    std::weak_ptr<MessageServiceClientImpl> weak = weak_from_this();
    common::TickManager::Canceller timer = clock.schedule(
        [weak, round] {
            if (auto self = weak.lock())
                self->attempt(round);
        },
        wait);
    lock.lock();
    if (round == reconnectRound_)
        std::swap(timer_, timer);
    lock.unlock();
    // `timer` now holds the replaced timer, or this one when its round is over: cancelled here.
}

void MessageServiceClientImpl::attempt(std::uint64_t round) {
    common::UniqueLock lock(mutex_);
    if (!roundIsCurrent(round))
        return;
    DroppedTransport dropped = dropTransportLocked();
    lock.unlock();
    dropped.release("Connection to " + endpoint() + " closed");
    logger_.log(log::trace, "Reconnecting to: ", endpoint());

    std::weak_ptr<MessageServiceClientImpl> weak = weak_from_this();
    openTransport().then([weak, round](Future<MessagePtr>&& opened) {
        auto self = weak.lock();
        if (!self)
            return;
        try {
            auto response = castResponse<bayeux::ConnectTransportResponse>(opened.get());
            if (!self->attachTransport(*response, round))
                return;
            self->sendHandshake().then(
                [weak, round](Future<std::unique_ptr<bayeux::HandshakeResponse>>&& answered) {
                    auto self = weak.lock();
                    if (!self)
                        return;
                    try {
                        self->resubscribe(round, *answered.get());
                    } catch (const std::exception& e) {
                        self->attemptFailed(round, e);
                    }
                });
        } catch (const std::exception& e) {
            self->attemptFailed(round, e);
        }
    });
}

void MessageServiceClientImpl::attemptFailed(std::uint64_t round, const std::exception& error) {
    common::UniqueLock lock(mutex_);
    if (!roundIsCurrent(round))
        return;
    const BayeuxFailure* failure = bayeuxFailure(error);
    if (failure &&
        (failure->code() == 401 || failure->code() == 403 || advisesNone(failure->advice()))) {
        logger_.log(log::warning, "The server refused to reconnect: ", error.what());
        stopReconnecting(lock, ConnectionState::DISCONNECTED, error.what());
        return;
    }
    logger_.log(log::warning, "Reconnect attempt failed: ", error.what());
    scheduleAttempt(lock, failure ? advisedInterval(failure->advice()) : milliseconds(0));
}

void MessageServiceClientImpl::resubscribe(std::uint64_t round,
                                           const bayeux::HandshakeResponse& reply) {
    common::UniqueLock lock(mutex_);
    if (!roundIsCurrent(round))
        return;
    clientId_ = reply.getClientId();
    // One request per channel: the server keeps one subscription per client and channel.
    std::vector<std::unique_ptr<bayeux::SubscribeRequest>> requests;
    for (const auto& entry : subscriptions_)
        requests.push_back(std::make_unique<bayeux::SubscribeRequest>(entry.first, clientId_));
    lock.unlock();
    logger_.log(log::trace, "Handshake successful");
    if (requests.empty()) {
        finishReconnecting(round);
        return;
    }
    // Connected again once the server has answered every one, so that what is published after
    // the state change reaches them.
    auto left = std::make_shared<std::atomic<std::size_t>>(requests.size());
    std::weak_ptr<MessageServiceClientImpl> weak = weak_from_this();
    for (auto& request : requests) {
        std::string key = request->getChannel();
        send<bayeux::SubscribeResponse>(std::move(request))
            .then([weak, round, left, key = std::move(key)](
                      Future<std::unique_ptr<bayeux::SubscribeResponse>>&& answered) {
                auto self = weak.lock();
                if (!self)
                    return;
                try {
                    answered.get();
                    // A handle cancelled while the request was on its way sent nothing then.
                    self->unsubscribeIfCancelled(key);
                } catch (const std::exception& e) {
                    self->logger_.log(log::error,
                                      "Error subscribing again to: ", key.substr(kWirePrefixLength),
                                      ", ", e.what());
                }
                if (left->fetch_sub(1) == 1)
                    self->finishReconnecting(round);
            });
    }
}

void MessageServiceClientImpl::unsubscribeIfCancelled(const std::string& key) {
    common::UniqueLock lock(mutex_);
    if (subscriptions_.count(key) != 0)
        return;
    const std::string clientId = clientId_;
    lock.unlock();
    // Nobody waits for the answer: a failure is logged where it is read.
    sendUnsubscribe(key, clientId, nullptr);
}

void MessageServiceClientImpl::finishReconnecting(std::uint64_t round) {
    common::UniqueLock lock(mutex_);
    if (!roundIsCurrent(round))
        return;
    logger_.log(log::warning, "Reconnected to: ", endpoint());
    setState(ConnectionState::CONNECTED, lock);
    sendMetaConnect();
}

void MessageServiceClientImpl::stopReconnecting(common::UniqueLock& lock, ConnectionState last,
                                                const std::string& why) {
    ++reconnectRound_;
    DroppedTransport dropped = dropTransportLocked();
    // Nothing will bring these back: they go as on a disconnect.
    TakenHolders drained = takeAllHolders(subscriptions_);
    wildcardHolders_ = 0;
    setState(last, lock);
    logger_.log(log::trace, "Reconnection ended: ", why);
    dropped.release("Connection to " + endpoint() + " closed");
}

void MessageServiceClientImpl::pollAfterInterval(std::uint64_t generation, milliseconds interval) {
    common::UniqueLock lock(mutex_);
    const ReconnectClock clock = clock_;
    lock.unlock();
    std::weak_ptr<MessageServiceClientImpl> weak = weak_from_this();
    common::TickManager::Canceller timer = clock.schedule(
        [weak, generation] {
            auto self = weak.lock();
            if (!self)
                return;
            {
                common::MutexLock lock(self->mutex_);
                if (generation != self->transportGeneration_)
                    return;
            }
            self->sendMetaConnect();
        },
        interval);
    lock.lock();
    if (generation == transportGeneration_ && state_ == ConnectionState::CONNECTED)
        std::swap(timer_, timer);
    lock.unlock();
}

}  // namespace connector::message_service
