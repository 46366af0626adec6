// The Bayeux side of the endpoint: sessions and the handling of each client message.

#include "hub.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "bayeux/codec.h"
#include "connector/bayeux/channel.h"
#include "connector/common/random_string.h"
#include "connector/log/diagnostic_logger.h"
#include "server/deferred_wakes.h"

namespace connector::bayeux::endpoint {

namespace {

namespace log = foundation::log;

const log::basic_diagnostic_logger<char> logger("connector::bayeux::endpoint");

// 22 characters of 62 kinds from a cryptographic generator: 130 bits, beyond guessing.
constexpr std::uint8_t kClientIdLength = 22;
// How long a client refused for lack of room waits before handshaking again.
constexpr std::int64_t kRetryHandshakeMs = 1000;

// Compares without an early exit, so the time taken says nothing about the key.
bool sameKey(const std::string& given, const std::string& expected) {
    unsigned char difference = given.size() == expected.size() ? 0 : 1;
    for (std::size_t i = 0; i < expected.size(); ++i)
        difference |= static_cast<unsigned char>(expected[i]) ^
                      static_cast<unsigned char>(i < given.size() ? given[i] : 0);
    return difference == 0;
}

// The response class answering `request`, with its id (and subscription) echoed.
std::unique_ptr<BayeuxResponse> responseFor(const BayeuxMessage& request) {
    std::unique_ptr<BayeuxResponse> response;
    switch (request.kind()) {
        case Kind::HandshakeRequest:
            response = std::make_unique<HandshakeResponse>();
            break;
        case Kind::ConnectRequest:
            response = std::make_unique<ConnectStreamResponse>();
            break;
        case Kind::DisconnectRequest:
            response = std::make_unique<DisconnectResponse>();
            break;
        case Kind::SubscribeRequest:
            response = std::make_unique<SubscribeResponse>(
                static_cast<const SubscribeRequest&>(request).getChannel(), std::string());
            break;
        case Kind::UnsubscribeRequest:
            response = std::make_unique<UnsubscribeResponse>(
                static_cast<const UnsubscribeRequest&>(request).getChannel(), std::string());
            break;
        default:
            response = std::make_unique<PublishResponse>(request.bayeuxChannel());
            break;
    }
    response->setId(request.getId());
    return response;
}

std::int64_t steadyNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

// One frame of publishes in this many has its deliveries' latency measured.
constexpr std::uint64_t kTimeEvery = 8;

// How often every session's queue length is sampled.
constexpr std::chrono::seconds kSampleEvery{1};

// The reply to a subscription change or publish on a channel this client may not use, if any.
std::optional<std::string> channelProblem(const ChannelName& name, bool pattern,
                                          const EndpointOptions& options) {
    const std::string_view channel = name.text();
    if (channel.size() > options.maxChannelBytes ||
        static_cast<std::size_t>(std::count(channel.begin(), channel.end(), '/')) >
            options.maxChannelSegments)
        return "405::Channel name too long";
    if (name.isMeta())
        return "403:" + std::string(channel) + ":Forbidden channel";
    if (!name.isValid() || (name.isPattern() && !pattern))
        return "405:" + std::string(channel) + ":Invalid channel";
    return std::nullopt;
}

bool frameLevel(const codec::DecodeError& error) {
    return !error.index;
}

}  // namespace

Hub::Hub(std::shared_ptr<BayeuxServer> server, EndpointOptions options)
    : server_(std::move(server)), options_(std::move(options)) {}

void Hub::refuse(FrameBuilder& out, const BayeuxMessage& request, std::string error,
                 std::optional<Advice> advice) const {
    gauges_->countRefusal(error);
    auto response = responseFor(request);
    response->setSuccessful(false);
    response->setError(std::move(error));
    if (advice)
        response->setAdvice(std::move(*advice));
    appendMessage(out, *response);
}

void Hub::refuseUnknownClient(FrameBuilder& out, const BayeuxMessage& request) const {
    refuse(out, request, "402::Unknown client", Advice{"handshake", 0, -1});
}

QueueBounds Hub::queueBounds() const {
    return QueueBounds{options_.maxQueuePerSession, options_.maxQueueBytes, gauges_};
}

Advice Hub::connectAdvice() const {
    return Advice{"retry", 0, static_cast<std::int64_t>(options_.connectTimeout.count())};
}

Sender Hub::sender(Transport transport, CarriedIds browser, const std::string& address) {
    Sender sender;
    sender.transport = transport;
    sender.connection = lastConnection_.fetch_add(1, std::memory_order_relaxed) + 1;
    sender.browser = std::move(browser);
    sender.sessions = std::make_shared<ConnectionSessions>();
    if (options_.maxSessionsPerAddress > 0)
        sender.address = address;
    return sender;
}

FrameOutcome Hub::handleFrame(std::string_view frame, const std::shared_ptr<Link>& link,
                              const Sender& sender, FrameBuilder& out) {
    FrameOutcome outcome;
    // The delivery threads are woken once for the frame, not once for each publish in it.
    const DeferredWakes wakes;
    gauges_->receivedBytes.fetch_add(frame.size(), std::memory_order_relaxed);
    codec::Decoded decoded = codec::decodeFromClient(frame, options_.maxMessagesPerFrame);
    if (decoded.tooManyMessages) {
        gauges_->countRefusal("413");
        logger.log(log::warning, "Refused a frame of more than ", options_.maxMessagesPerFrame,
                   " messages");
        outcome.tooManyMessages = true;
        return outcome;
    }
    if (!decoded.errors.empty()) {
        outcome.unreadable = std::any_of(decoded.errors.begin(), decoded.errors.end(), frameLevel);
        logger.log(log::trace, "Refused what a client sent: ", decoded.errors.front().text());
        appendDecodeFailures(out, decoded.errors);
        gauges_->countRefusal("400", decoded.errors.size());
    }
    gauges_->receivedMessages.fetch_add(decoded.messages.size() + decoded.errors.size(),
                                        std::memory_order_relaxed);
    // The sender of the previous message: a frame's messages nearly always share one.
    std::shared_ptr<RemoteSession> session;
    FramePublishes publishes;
    bool subscribed = false;
    for (auto& message : decoded.messages) {
        const Kind kind = message->kind();
        if (kind == Kind::HandshakeRequest) {
            handshake(static_cast<const HandshakeRequest&>(*message), sender, out, outcome);
            continue;
        }
        if (!session || session->id() != message->getClientId()) {
            session = find(message->getClientId());
            // Knowing a client id is not enough: the request must come from the session's owner.
            const std::string_view polling = sender.browser.empty()
                                                 ? std::string_view(outcome.issuedBrowser)
                                                 : std::string_view(sender.browser.polling);
            if (session && !session->admits(sender.connection, polling, sender.browser.webSocket)) {
                if (sender.upgradeCarriedNone && !session->boundToConnection() &&
                    &message == &decoded.messages.front() && session->firstCloseForCookie()) {
                    // The upgrade left before the long-polling handshake's answer set the
                    // cookie, as a client's probe while it handshakes does. Closed with the
                    // frame unanswered (and nothing of it done), the client sends it again over
                    // a new WebSocket, with the cookie.
                    logger.log(log::trace, "Closing a WebSocket without the cookie of session ",
                               session->id());
                    outcome.closeForCookie = true;
                    break;
                }
                logger.log(log::trace, "Refused a request for session ", session->id(),
                           " from a connection not bound to it");
                session.reset();
            }
        }
        if (!session) {
            refuseUnknownClient(out, *message);
            continue;
        }
        switch (kind) {
            case Kind::ConnectRequest:
                connect(static_cast<const ConnectRequest&>(*message), session, link,
                        sender.transport, out, outcome);
                break;
            case Kind::DisconnectRequest:
                disconnect(static_cast<const DisconnectRequest&>(*message), session, out);
                session.reset();  // what follows from this id is from an unknown client
                break;
            case Kind::SubscribeRequest:
                subscribed |= changeSubscription<SubscribeRequest, SubscribeResponse>(
                    static_cast<const SubscribeRequest&>(*message), session, out);
                break;
            case Kind::UnsubscribeRequest:
                changeSubscription<UnsubscribeRequest, UnsubscribeResponse>(
                    static_cast<const UnsubscribeRequest&>(*message), session, out);
                break;
            case Kind::PublishRequest:
                publish(std::unique_ptr<PublishRequest>(
                            static_cast<PublishRequest*>(message.release())),
                        out, publishes);
                break;
            default:
                refuse(out, *message, "400::Not a client message");
                break;
        }
    }
    if (publishes.accepted != 0) {
        gauges_->publishedMessages.fetch_add(publishes.accepted, std::memory_order_relaxed);
        countPublishes(publishes);
    }
    // Answered once the whole cluster would deliver to the new subscriptions, as one server
    // would as soon as it answers.
    if (subscribed && link)
        outcome.awaitingCluster = awaitCluster(link);
    return outcome;
}

bool Hub::awaitCluster(const std::shared_ptr<Link>& link) {
    ClusterWaits& waits = *clusterWaits_;
    {
        common::MutexLock lock(waits.mutex);
        if (!waits.open)
            return false;
        waits.links[link.get()] = link;
    }
    const bool waiting =
        server_->whenSubscriptionsShared([waits = clusterWaits_, key = link.get()] {
            common::MutexLock lock(waits->mutex);
            const auto it = waits->links.find(key);
            if (it == waits->links.end())
                return;
            it->second->subscriptionsShared();
            waits->links.erase(it);  // the wake the link posted holds it now
        });
    if (!waiting) {
        common::MutexLock lock(waits.mutex);
        waits.links.erase(link.get());
    }
    return waiting;
}

bool Hub::takeSession(const HandshakeRequest& request, const Sender& sender, FrameBuilder& out) {
    if (!sender.address.empty() &&
        !gauges_->sessionsByAddress.add(sender.address, options_.maxSessionsPerAddress)) {
        if (const std::uint64_t n = refusedByAddress_.next())
            logger.log(log::warning, "Refused a handshake from ", sender.address, ", which has ",
                       options_.maxSessionsPerAddress, " sessions already (", n,
                       " refused so far)");
        gauges_->countHandshake(HandshakeOutcome::AddressLimit);
        refuse(out, request, "503::Too many sessions from this address",
               Advice{"handshake", kRetryHandshakeMs, -1});
        return false;
    }
    if (sender.sessions->live.fetch_add(1, std::memory_order_relaxed) <
        options_.maxSessionsPerConnection)
        return true;
    giveBackSession(sender);
    // Once for each connection: a flood of handshakes does not flood the log.
    if (!sender.sessions->refused.exchange(true, std::memory_order_relaxed))
        logger.log(log::warning, "Refused handshakes over a connection that has ",
                   options_.maxSessionsPerConnection, " sessions already");
    gauges_->countHandshake(HandshakeOutcome::ConnectionLimit);
    refuse(out, request, "503::Too many sessions on this connection",
           Advice{"handshake", kRetryHandshakeMs, -1});
    return false;
}

void Hub::giveBackSession(const Sender& sender) {
    sender.sessions->live.fetch_sub(1, std::memory_order_relaxed);
    if (!sender.address.empty())
        gauges_->sessionsByAddress.remove(sender.address);
}

void Hub::handshake(const HandshakeRequest& request, const Sender& sender, FrameBuilder& out,
                    FrameOutcome& outcome) {
    if (!options_.apiKey.empty() && !sameKey(apiKeyOf(request.getExt()), options_.apiKey)) {
        logger.log(log::warning, "Refused a handshake without the right API key");
        gauges_->countHandshake(HandshakeOutcome::Unauthorized);
        refuse(out, request, "403::Unauthorized", Advice{"none", 0, -1});
        return;
    }
    if (!takeSession(request, sender, out))
        return;
    RemoteSession::Owner owner;
    owner.connection = sender.transport == Transport::WebSocket ? sender.connection : 0;
    owner.madeBy = sender.sessions;
    owner.address = sender.address;
    if (!sender.browser.empty()) {
        owner.browser =
            sender.browser.polling.empty() ? sender.browser.webSocket : sender.browser.polling;
    } else if (sender.transport == Transport::LongPolling) {
        // Long-polling requests come over any connection: the cookie set now is what binds them.
        if (outcome.issuedBrowser.empty())
            outcome.issuedBrowser = browsers_.issue();
        owner.browser = outcome.issuedBrowser;
    }
    std::shared_ptr<RemoteSession> session;
    {
        common::WriterLock lock(mutex_);
        if (!accepting_) {
            lock.unlock();
            giveBackSession(sender);
            gauges_->countHandshake(HandshakeOutcome::ShuttingDown);
            refuse(out, request, "503::Shutting down", Advice{"handshake", kRetryHandshakeMs, -1});
            return;
        }
        if (sessions_.size() >= options_.maxSessions) {
            lock.unlock();
            giveBackSession(sender);
            logger.log(log::warning, "Refused a handshake: ", options_.maxSessions,
                       " sessions already");
            gauges_->countHandshake(HandshakeOutcome::SessionLimit);
            refuse(out, request, "503::Too many sessions",
                   Advice{"handshake", kRetryHandshakeMs, -1});
            return;
        }
        std::string id;
        do {
            id = common::randomString(kClientIdLength);
        } while (sessions_.count(id) != 0);
        session =
            std::make_shared<RemoteSession>(id, std::move(owner), queueBounds(), Clock::now());
        sessions_.emplace(std::move(id), session);
    }
    session->runServerCalls(*server_);
    gauges_->countHandshake(HandshakeOutcome::Accepted);
    logger.log(log::trace, "Session ", session->id(), " opened");

    HandshakeResponse response;
    response.setId(request.getId());
    response.setClientId(session->id());
    response.setVersion("1.0");
    // Browser clients on another origin name long-polling after the way they make requests.
    response.setSupportedConnectionTypes(
        {"websocket", "long-polling", "cross-origin-long-polling", "callback-polling"});
    response.setAdvice(connectAdvice());
    appendMessage(out, response);
}

void Hub::connect(const ConnectRequest& request, const std::shared_ptr<RemoteSession>& session,
                  const std::shared_ptr<Link>& link, Transport transport, FrameBuilder& out,
                  FrameOutcome& outcome) {
    std::chrono::milliseconds hold = options_.connectTimeout;
    if (request.getAdvice() && request.getAdvice()->timeout >= 0)
        hold = std::min(hold, std::chrono::milliseconds(request.getAdvice()->timeout));
    std::uint64_t token = 0;
    const auto answer = session->connect(link, transport == Transport::WebSocket, request.getId(),
                                         hold, Clock::now(), token);
    switch (answer) {
        case RemoteSession::ConnectAnswer::Closed:
            refuseUnknownClient(out, request);
            break;
        case RemoteSession::ConnectAnswer::Held:
            outcome.heldSession = session;
            outcome.heldToken = token;
            break;
        case RemoteSession::ConnectAnswer::Now:
            appendConnectAnswer(*session, link, transport,
                                ConnectRelease{request.getId(), token, ReleaseReason::Due}, out);
            break;
    }
}

void Hub::appendConnectAnswer(RemoteSession& session, const std::shared_ptr<Link>& link,
                              Transport transport, const ConnectRelease& release,
                              FrameBuilder& out) const {
    if (transport == Transport::LongPolling) {
        std::vector<Delivery> deliveries;
        session.takeDeliveries(link, true, deliveries);
        appendCounted(deliveries, out);
    } else {
        appendDeliveries(session, link, out);
    }
    ConnectStreamResponse response;
    response.setId(release.id);
    response.setClientId(session.id());
    response.setAdvice(release.reason == ReleaseReason::Ended ? Advice{"none", 0, -1}
                       : release.reason == ReleaseReason::Stopping
                           ? Advice{"handshake", kRetryHandshakeMs, -1}
                           : connectAdvice());
    // A client whose queue overflowed learns how many messages it lost since the last answer.
    if (const std::uint64_t dropped = session.takeUnreportedDrops())
        response.setExt("{\"dropped\":" + std::to_string(dropped) + "}");
    appendMessage(out, response);
}

void Hub::appendDeliveries(RemoteSession& session, const std::shared_ptr<Link>& link,
                           FrameBuilder& out) const {
    std::vector<Delivery> deliveries;
    session.takeDeliveries(link, false, deliveries);
    appendCounted(deliveries, out);
}

void Hub::appendCounted(const std::vector<Delivery>& deliveries, FrameBuilder& out) const {
    if (deliveries.empty())
        return;
    std::int64_t now = 0;  // read only when a timed delivery is among them
    Histogram<kLatencyBounds.size()>::Batch latency(gauges_->latency);
    for (const auto& delivery : deliveries) {
        appendDelivery(out, *delivery);
        if (const std::int64_t received = delivery->getReceivedAt(); received != 0) {
            if (now == 0)
                now = steadyNanoseconds();
            latency.observe(static_cast<std::uint64_t>(std::max<std::int64_t>(now - received, 0)));
        }
    }
    gauges_->deliveredMessages.fetch_add(deliveries.size(), std::memory_order_relaxed);
    gauges_->latency.add(latency);
}

void Hub::disconnect(const DisconnectRequest& request,
                     const std::shared_ptr<RemoteSession>& session, FrameBuilder& out) {
    remove(session, "disconnected");
    DisconnectResponse response;
    response.setId(request.getId());
    response.setClientId(session->id());
    appendMessage(out, response);
}

template <class Request, class Response>
bool Hub::changeSubscription(const Request& request, const std::shared_ptr<RemoteSession>& session,
                             FrameBuilder& out) {
    const std::string& channel = request.getChannel();
    if (auto problem = channelProblem(ChannelName(channel), true, options_)) {
        refuse(out, request, std::move(*problem));
        return false;
    }
    const auto change = std::is_same_v<Request, SubscribeRequest>
                            ? session->subscribe(channel, options_.maxSubscriptionsPerSession)
                            : session->unsubscribe(channel);
    if (change == RemoteSession::Change::Closed) {
        refuseUnknownClient(out, request);
        return false;
    }
    if (change == RemoteSession::Change::Full) {
        refuse(out, request, "403:" + channel + ":Too many subscriptions");
        return false;
    }
    if (change == RemoteSession::Change::Done) {
        session->runServerCalls(*server_);
        countSubscriptions({channel}, std::is_same_v<Request, SubscribeRequest>);
    }
    Response response(channel, session->id());
    response.setId(request.getId());
    appendMessage(out, response);
    return change == RemoteSession::Change::Done;
}

void Hub::publish(std::unique_ptr<PublishRequest> request, FrameBuilder& out,
                  FramePublishes& publishes) {
    const ChannelName channel(request->getChannel());
    if (auto problem = channelProblem(channel, false, options_)) {
        refuse(out, *request, std::move(*problem));
        return;
    }
    appendPublishAck(out, request->getChannel(), request->getId());
    // Past its answer, a publish needs only its channel and data: what else its client sent goes
    // now, before the message waits in queues whose bound counts what they deliver.
    if (!request->getId().empty())
        request->setId({});
    if (!request->getExt().empty())
        request->setExt({});
    if (request->getAdvice() && !request->getAdvice()->reconnect.empty())
        request->setAdvice({});
    ++publishes.accepted;
    if (publishes.run != 0 && publishes.channel != request->getChannel())
        countPublishes(publishes);
    if (publishes.run++ == 0)
        publishes.channel.assign(request->getChannel());
    // A message on a service channel is meant for the server alone: no subscriber receives it.
    if (channel.isService())
        return;
    // One frame of publishes in kTimeEvery is timed: a sample of the latency that spares the
    // others two clock reads.
    if (publishes.timed == FramePublishes::Timed::Unknown) {
        const bool timed = timedFrames_.fetch_add(1, std::memory_order_relaxed) % kTimeEvery == 0;
        publishes.timed = timed ? FramePublishes::Timed::Yes : FramePublishes::Timed::No;
        if (timed)
            publishes.receivedAt = steadyNanoseconds();
    }
    request->setReceivedAt(publishes.receivedAt);
    server_->acceptPublish(std::shared_ptr<const PublishRequest>(std::move(request)));
}

void Hub::countPublishes(FramePublishes& publishes) const {
    if (publishes.run != 0)
        gauges_->channels.count(publishes.channel, std::exchange(publishes.run, 0));
}

std::shared_ptr<RemoteSession> Hub::find(const std::string& id) const {
    if (id.empty())
        return nullptr;
    common::ReaderLock lock(mutex_);
    auto it = sessions_.find(id);
    return it == sessions_.end() ? nullptr : it->second;
}

void Hub::remove(const std::shared_ptr<RemoteSession>& session, std::string_view why,
                 bool expired) {
    RemoteSession::Ending ending;
    if (!session->close(ReleaseReason::Ended, &ending))
        return;
    if (expired && ending.discarded != 0)
        gauges_->expiredMessages.fetch_add(ending.discarded, std::memory_order_relaxed);
    countSubscriptions(ending.subscriptions, false);
    {
        common::WriterLock lock(mutex_);
        auto it = sessions_.find(session->id());
        if (it != sessions_.end() && it->second == session)
            sessions_.erase(it);
    }
    logger.log(log::trace, "Session ", session->id(), " ", why);
    session->runServerCalls(*server_);
}

void Hub::sweep(Clock::time_point now) {
    std::vector<std::pair<std::shared_ptr<RemoteSession>, RemoteSession::Expiry>> expired;
    const bool sample = now - lastSample_ >= kSampleEvery;
    if (sample)
        lastSample_ = now;
    Histogram<kQueueBounds.size()>::Batch lengths(gauges_->queueLengths);
    {
        common::ReaderLock lock(mutex_);
        for (const auto& entry : sessions_) {
            if (sample)
                lengths.observe(entry.second->queuedCount());
            const auto expiry =
                entry.second->sweep(now, options_.sessionTimeout, options_.connectGrace);
            if (expiry != RemoteSession::Expiry::None)
                expired.emplace_back(entry.second, expiry);
        }
    }
    gauges_->queueLengths.add(lengths);
    for (const auto& [session, expiry] : expired)
        remove(session,
               expiry == RemoteSession::Expiry::Idle ? "expired"
                                                     : "expired without ever sending /meta/connect",
               true);
}

void Hub::shutdown() {
    std::unordered_map<std::string, std::shared_ptr<RemoteSession>> sessions;
    {
        common::WriterLock lock(mutex_);
        accepting_ = false;
        sessions.swap(sessions_);
    }
    // Their replies go nowhere now: the connections are let go, to close with the rest.
    std::unordered_map<const Link*, std::shared_ptr<Link>> waiting;
    {
        common::MutexLock lock(clusterWaits_->mutex);
        clusterWaits_->open = false;
        waiting.swap(clusterWaits_->links);
    }
    for (const auto& entry : sessions) {
        RemoteSession::Ending ending;
        if (entry.second->close(ReleaseReason::Stopping, &ending)) {
            countSubscriptions(ending.subscriptions, false);
            entry.second->runServerCalls(*server_);
        }
    }
}

}  // namespace connector::bayeux::endpoint
