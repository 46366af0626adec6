#include "nats_link.h"

#include <nats/nats.h>

#include <stdexcept>

#include "connector/log/diagnostic_logger.h"

namespace connector::bayeux::cluster {

namespace {

namespace log = foundation::log;

const log::basic_diagnostic_logger<char> logger("connector::bayeux::cluster");

// `url` as logs may show it: a user and password before the host become "***".
std::string shown(std::string_view url) {
    const auto scheme = url.find("://");
    const auto start = scheme == std::string_view::npos ? 0 : scheme + 3;
    const auto at = url.find('@', start);
    if (at == std::string_view::npos || url.find('/', start) < at)
        return std::string(url);
    return std::string(url.substr(0, start)).append("***").append(url.substr(at));
}

std::string joined(const std::vector<std::string>& urls) {
    std::string text;
    for (const auto& url : urls)
        text += (text.empty() ? "" : ",") + shown(url);
    return text;
}

// Owns a natsOptions while the connection is made.
struct Options {
    ~Options() { natsOptions_Destroy(handle); }
    natsOptions* handle = nullptr;
};

std::uint64_t droppedBy(natsSubscription* subscription) {
    int64_t dropped = 0;
    natsSubscription_GetDropped(subscription, &dropped);
    return static_cast<std::uint64_t>(dropped);
}

// NATS calls this once each time a subscription starts dropping, not once per drop.
void onAsyncError(natsConnection*, natsSubscription* subscription, natsStatus status, void*) {
    if (status == NATS_SLOW_CONSUMER && subscription)
        logger.log(log::warning,
                   "Cluster link: this member reads the others' messages too slowly, and NATS "
                   "drops them (",
                   droppedBy(subscription), " so far on ",
                   natsSubscription_GetSubject(subscription), ")");
    else
        logger.log(log::warning, "Cluster link: ", natsStatus_GetText(status));
}

void check(natsStatus status, const char* what) {
    if (status != NATS_OK)
        throw std::runtime_error(std::string(what) + ": " + natsStatus_GetText(status));
}

}  // namespace

NatsLink::NatsLink(NatsLinkOptions options, OnMessage onMessage)
    : options_(std::move(options)), onMessage_(std::move(onMessage)) {
    if (options_.urls.empty())
        throw std::runtime_error("Cannot join a cluster without a NATS URL");
    Options made;
    check(natsOptions_Create(&made.handle), "Cannot set up a NATS connection");
    std::vector<const char*> servers;
    for (const auto& url : options_.urls)
        servers.push_back(url.c_str());
    natsOptions* o = made.handle;
    check(natsOptions_SetServers(o, servers.data(), static_cast<int>(servers.size())),
          ("Cannot use the NATS URLs " + joined(options_.urls)).c_str());
    natsOptions_SetName(o, options_.name.c_str());
    natsOptions_SetNoEcho(o, true);
    natsOptions_SetNoRandomize(o, true);
    // A publish goes out at once rather than after the library's flusher has waited for more
    // (about a millisecond): the server hands over a frame's publishes together already.
    natsOptions_SetSendAsap(o, true);
    // One library thread delivers for every subscription, in the order the messages came.
    natsOptions_UseGlobalMessageDelivery(o, true);
    natsOptions_SetMaxReconnect(o, -1);
    natsOptions_SetReconnectWait(o, options_.reconnectWait.count());
    natsOptions_SetReconnectBufSize(o, static_cast<int>(options_.reconnectBufferBytes));
    natsOptions_SetTimeout(o, options_.connectTimeout.count());
    natsOptions_SetDisconnectedCB(o, &NatsLink::onDisconnected, this);
    natsOptions_SetReconnectedCB(o, &NatsLink::onReconnected, this);
    natsOptions_SetClosedCB(o, &NatsLink::onClosed, this);
    natsOptions_SetErrorHandler(o, &onAsyncError, nullptr);
    const natsStatus status = natsConnection_Connect(&connection_, o);
    if (status != NATS_OK)
        throw std::runtime_error("Cannot reach the cluster at " + joined(options_.urls) + ": " +
                                 natsStatus_GetText(status));
    connected_ = true;
    logger.log(log::trace, "Joined the cluster at ", joined(options_.urls));
}

NatsLink::~NatsLink() {
    stop();
    natsConnection_Destroy(connection_);
}

void NatsLink::stop() {
    {
        common::MutexLock lock(mutex_);
        if (stopped_)
            return;
        stopped_ = true;
        for (auto& [pattern, subscription] : subscriptions_)
            natsSubscription_Unsubscribe(subscription.handle);
    }
    // Closing is no outage: nothing to log, not even what a handler publishes meanwhile.
    connected_ = false;
    lossLogged_ = true;
    natsConnection_Close(connection_);
    {
        common::UniqueLock lock(mutex_);
        finished_.wait(lock.native(), [this] {
            mutex_.assumeHeld();
            return running_ == 0 && closed_;
        });
        for (auto& [pattern, subscription] : subscriptions_)
            natsSubscription_Destroy(subscription.handle);
        subscriptions_.clear();
    }
}

void NatsLink::publish(const std::string& subject, std::string_view payload, std::size_t messages) {
    const natsStatus status = natsConnection_Publish(connection_, subject.c_str(), payload.data(),
                                                     static_cast<int>(payload.size()));
    if (status == NATS_OK) {
        published_ += messages;
        return;
    }
    lost_ += messages;
    if (status == NATS_MAX_PAYLOAD) {
        // The link is up: only this message is lost.
        if (const std::uint64_t n = tooLarge_.next())
            logger.log(log::warning, "Cluster: a message of ", payload.size(),
                       " bytes is larger than the NATS servers accept (",
                       natsConnection_GetMaxPayload(connection_),
                       "), and the other members lose it (", n, " so far)");
        return;
    }
    if (!lossLogged_.exchange(true))
        logger.log(log::warning, "Cluster link down: messages for other members are lost (",
                   natsStatus_GetText(status), ")");
}

bool NatsLink::addInterest(const std::string& pattern) {
    common::MutexLock lock(mutex_);
    Subscription& subscription = subscriptions_[pattern];
    if (subscription.uses++ > 0)
        return true;
    // Subscribing under the lock keeps a quick remove from unsubscribing before this is done;
    // nats.c calls nothing of ours from it.
    const natsStatus status = natsConnection_Subscribe(
        &subscription.handle, connection_, pattern.c_str(), &NatsLink::onDelivery, this);
    if (status != NATS_OK) {
        logger.log(log::error, "Cannot subscribe to ", pattern,
                   " in the cluster: ", natsStatus_GetText(status));
        subscriptions_.erase(pattern);
        return false;
    }
    // Counted only when its end will be told: a subscription already closed runs nothing more.
    if (natsSubscription_SetOnCompleteCB(subscription.handle, &NatsLink::onSubscriptionDone,
                                         this) == NATS_OK)
        ++running_;
    natsSubscription_SetPendingLimits(subscription.handle, options_.pendingMessages,
                                      options_.pendingBytes);
    return true;
}

void NatsLink::removeInterest(const std::string& pattern) {
    common::MutexLock lock(mutex_);
    const auto it = subscriptions_.find(pattern);
    if (it == subscriptions_.end() || --it->second.uses > 0)
        return;
    // The handler may still be running on a delivery thread: Destroy only drops this reference.
    droppedBefore_ += droppedBy(it->second.handle);
    natsSubscription_Unsubscribe(it->second.handle);
    natsSubscription_Destroy(it->second.handle);
    subscriptions_.erase(it);
}

NatsLinkStats NatsLink::stats() const {
    NatsLinkStats stats;
    stats.connected = connected_;
    stats.published = published_;
    stats.received = received_;
    stats.lost = lost_;
    stats.reconnects = reconnects_;
    common::MutexLock lock(mutex_);
    stats.subscriptions = subscriptions_.size();
    stats.dropped = droppedBefore_;
    for (const auto& [pattern, subscription] : subscriptions_)
        stats.dropped += droppedBy(subscription.handle);
    return stats;
}

void NatsLink::flush(std::chrono::milliseconds bound) {
    natsConnection_FlushTimeout(connection_, bound.count());
}

void NatsLink::onDelivery(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    auto* self = static_cast<NatsLink*>(closure);
    ++self->received_;
    const std::string_view subject(natsMsg_GetSubject(message));
    const std::string_view payload(natsMsg_GetData(message),
                                   static_cast<std::size_t>(natsMsg_GetDataLength(message)));
    try {
        self->onMessage_(subject, payload);
    } catch (const std::exception& e) {
        logger.log(log::error, "Dropped a message from the cluster: ", e.what());
    } catch (...) {
        // Nothing may pass through nats.c's thread; the message is released all the same.
        logger.log(log::error, "Dropped a message from the cluster: unknown error");
    }
    natsMsg_Destroy(message);
}

void NatsLink::onDisconnected(natsConnection*, void* closure) {
    auto* self = static_cast<NatsLink*>(closure);
    self->lostBeforeOutage_ = self->lost_.load();
    if (self->connected_.exchange(false))
        logger.log(log::warning, "Lost the cluster link; reconnecting");
    if (self->options_.onLinkChange)
        self->options_.onLinkChange(false);
}

void NatsLink::onReconnected(natsConnection* connection, void* closure) {
    auto* self = static_cast<NatsLink*>(closure);
    self->connected_ = true;
    ++self->reconnects_;
    self->lossLogged_ = false;
    char url[256] = "";
    natsConnection_GetConnectedUrl(connection, url, sizeof url);
    const std::uint64_t lost = self->lost_.load();
    logger.log(log::warning, "Cluster link back, through ", shown(url), "; ",
               lost - self->lostBeforeOutage_.load(), " messages lost in the outage, ", lost,
               " since joining");
    if (self->options_.onLinkChange)
        self->options_.onLinkChange(true);
}

void NatsLink::onClosed(natsConnection*, void* closure) {
    auto* self = static_cast<NatsLink*>(closure);
    self->connected_ = false;
    common::MutexLock lock(self->mutex_);
    self->closed_ = true;
    self->finished_.notify_all();
}

void NatsLink::onSubscriptionDone(void* closure) {
    auto* self = static_cast<NatsLink*>(closure);
    common::MutexLock lock(self->mutex_);
    --self->running_;
    self->finished_.notify_all();
}

}  // namespace connector::bayeux::cluster
