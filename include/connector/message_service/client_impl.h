#pragma once
// A message service that speaks Bayeux to a remote endpoint through a transport service of the
// Context: it opens the transport, handshakes, keeps one meta connect outstanding while it is
// connected, and matches responses to its pending requests by message id.
//
// No request is sent, no promise resolved and no callback or listener run while `mutex_` is
// held: the code copies under the lock, releases, then calls, so that any of them may call back
// into the service. Continuations hold the instance only weakly.
//
// Without the option "reconnect" = "on" the client never reconnects: a lost
// transport leaves it DISCONNECTED, a failed meta connect ends the loop. With it, a connection
// once established is resumed: on a lost transport, a failed meta connect or a server's advice
// to handshake it becomes RECONNECTING, opens a new transport and handshakes after a backoff
// with full jitter, subscribes every live subscription again and becomes CONNECTED, the
// caller's Subscription handles still working. Advice "none", or a handshake refused as 401 or
// 403, stops it at DISCONNECTED. Each attempt has a round number; an answer or timer of an
// earlier round finds a newer one and does nothing.
//
// Thread safety: may be called from any thread at once. Subscription callbacks, listeners and
// futures run on the transport's thread; a state listener also runs on the thread whose call
// (connect, disconnect) changed the state.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "connector/bayeux/messages.h"
#include "connector/common/delay.h"
#include "connector/common/mutex.h"
#include "connector/common/ring_queue.h"
#include "connector/log/diagnostic_logger.h"
#include "connector/message_service/cached_value_publisher.h"
#include "connector/message_service/message_service.h"
#include "connector/message_service/subscription.h"

namespace connector::message_service {

// The waits of reconnection. Replaceable so that a host (or a test) drives them itself.
struct ReconnectClock {
    // Calls `fn` once after `delay`, on any thread; destroying the result cancels the call.
    std::function<common::TickManager::Canceller(std::function<void()> fn,
                                                 std::chrono::milliseconds delay)>
        schedule;
    // A wait drawn uniformly from [0, ceiling].
    std::function<std::chrono::milliseconds(std::chrono::milliseconds ceiling)> draw;
};

// The options "reconnect" ("on" or "off", the default), "reconnect.initialDelayMs" (default
// 500) and "reconnect.maxDelayMs" (default 30000): the ceiling of the n-th wait (from 0) is
// initialDelay * 2^n, at most maxDelay.
struct ReconnectSettings {
    bool enabled = false;
    std::chrono::milliseconds initialDelay{500};
    std::chrono::milliseconds maxDelay{30000};
};

class MessageServiceClientImpl : public MessageService,
                                 public Unsubscribeable,
                                 public std::enable_shared_from_this<MessageServiceClientImpl> {
  public:
    // Throws std::invalid_argument("No endpoint url option specified") without "endpoint".
    MessageServiceClientImpl(const std::string& name, Options&& options,
                             std::shared_ptr<Context> context, Address address);
    ~MessageServiceClientImpl() override;

    // Opens the transport and handshakes; the future holds the state reached.
    Future<ConnectionState> connect();

    // MessageService
    std::string getName() override;
    Future<std::shared_ptr<Subscription>> subscribe(
        const std::string& channel, std::function<void(const JsonMessage&)> callback) override;
    Future<PublishResult> publish(const std::string& channel, common::DataBuffer&& data) override;
    Future<DisconnectResult> disconnect() override;
    Future<std::shared_ptr<Subscription>> listenSubscribe(
        const std::string& channelPattern,
        std::function<void(const SubscribeEvent&)> callback) override;
    Future<std::shared_ptr<Subscription>> listenUnsubscribe(
        const std::string& channelPattern,
        std::function<void(const UnsubscribeEvent&)> callback) override;
    Future<std::shared_ptr<Subscription>> listenStateChange(
        std::function<void(const StateChangeEvent&)> callback) override;
    ConnectionState getState() override;
    Future<PublishResult> publishWithContext(
        const std::string& channel, common::DataBuffer&& data,
        std::shared_ptr<common::ContextState>& context) override;
    Future<std::shared_ptr<Subscription>> subscribeWithContext(
        const std::string& channel, std::function<void(const JsonMessage&)> callback,
        const std::shared_ptr<common::ContextState>& context) override;

    // Unsubscribeable
    Future<CancelResult> unsubscribeId(
        std::uint64_t id, const std::shared_ptr<common::ContextState>& context) override;

    // The Bayeux client id; "unset" before the first successful handshake.
    std::string getId();

    // Replaces the process timer and random draw that reconnection uses; call before connect().
    void setReconnectClock(ReconnectClock clock);

  private:
    using MessagePtr = std::unique_ptr<Message>;
    using OutboundPublisher = reactive_streams::CachedValuePublisher<MessagePtr>;
    using InboundSubscriber = reactive_streams::CallbackSubscriber<MessagePtr>;

    // The bytes of one publish, counted in a total from when it is sent until its entry goes,
    // however it goes: answered, failed, timed out or dropped with its transport.
    class CountedBytes {
      public:
        CountedBytes() = default;
        // Adds `bytes` to `total`; `before` gets what the total was.
        CountedBytes(std::atomic<std::size_t>& total, std::size_t bytes, std::size_t& before)
            : total_(&total), bytes_(bytes) {
            before = total.fetch_add(bytes, std::memory_order_relaxed);
        }
        CountedBytes(CountedBytes&& other) noexcept
            : total_(std::exchange(other.total_, nullptr)), bytes_(other.bytes_) {}
        CountedBytes& operator=(CountedBytes&& other) noexcept {
            std::swap(total_, other.total_);
            std::swap(bytes_, other.bytes_);
            return *this;
        }
        ~CountedBytes() { release(); }
        // Counts the bytes out now: before the publish's caller hears how it went, so that a
        // caller who then publishes again finds the room.
        void release() {
            if (total_)
                total_->fetch_sub(bytes_, std::memory_order_relaxed);
            total_ = nullptr;
        }

      private:
        std::atomic<std::size_t>* total_ = nullptr;
        std::size_t bytes_ = 0;
    };

    // A publish completes its caller's promise straight from the answer, with no chain of
    // futures: it checks the answer's type and logs a failure on the module logger itself.
    struct PendingPublish {
        PendingPublish(Promise<PublishResult>&& promise, const std::string& channel,
                       CountedBytes&& counted)
            : promise(std::move(promise)), channel(channel), counted(std::move(counted)) {}
        PendingPublish(PendingPublish&&) = default;
        PendingPublish& operator=(PendingPublish&&) = default;
        // Still pending here only when the service is destroyed: fails like an abandoned promise.
        ~PendingPublish();

        Promise<PublishResult> promise;
        std::string channel;  // as the caller named it, for the failure line
        CountedBytes counted;
    };
    // A request waiting for its answer: any other request resolves a promise of the raw answer.
    struct PendingRequest {
        std::string id;
        std::variant<Promise<MessagePtr>, PendingPublish> completion;
        // With the option "request.timeoutMs", the timer that fails the request unanswered.
        // Declared last, so that it is cancelled before an abandoned promise fails.
        common::TickManager::Canceller deadline;

        // The successful answer; never called with mutex_ held.
        void succeed(MessagePtr&& answer);
        // A failed answer or the end of the connection; never called with mutex_ held. A
        // failed `answer` gives the raw promise a BayeuxFailure, with its code and advice.
        void fail(const std::string& text, const bayeux::BayeuxResponse* answer = nullptr);
    };

    // Numbers the request, records its pending promise and pushes it to the transport.
    template <class Resp, class Req>
    Future<std::unique_ptr<Resp>> send(std::unique_ptr<Req> request);
    // Numbers `request` and files `pending` under its id; returns the publisher to push it to.
    // With no transport connected nothing is filed, no id is used, `pending` fails and the
    // result is null.
    std::shared_ptr<OutboundPublisher> file(bayeux::BayeuxMessage& request,
                                            PendingRequest&& pending) ORVALE_EXCLUDES(mutex_);
    void sendMetaConnect() ORVALE_EXCLUDES(mutex_);
    // The deadline of the request `id` has passed: it fails, if it is still pending.
    void requestTimedOut(const std::string& id) ORVALE_EXCLUDES(mutex_);
    // Asks the Context for a new transport to the endpoint.
    Future<MessagePtr> openTransport();
    Future<ConnectionState> handle(std::unique_ptr<bayeux::ConnectTransportResponse>&& response);
    // Wires the transport's streams to this instance, replacing any earlier transport. With a
    // `round`, does nothing and returns false when that reconnection round is over.
    bool attachTransport(bayeux::ConnectTransportResponse& response,
                         std::optional<std::uint64_t> round = std::nullopt) ORVALE_EXCLUDES(mutex_);
    Future<std::unique_ptr<bayeux::HandshakeResponse>> sendHandshake();
    // Changes the state, releases `lock`, then tells the state listeners.
    void setState(ConnectionState newState, common::UniqueLock& lock) ORVALE_REQUIRES(mutex_)
        ORVALE_RELEASE(lock);

    void deliver(MessagePtr&& message);
    void handle(std::unique_ptr<bayeux::BayeuxContainer>&& container);
    // The response `message` is, or null.
    static const bayeux::BayeuxResponse* responseOf(const Message& message);
    // Takes the pending request answered by `response` out of pendingRequests_.
    std::optional<PendingRequest> takeAnsweredLocked(const bayeux::BayeuxResponse& response)
        ORVALE_REQUIRES(mutex_);
    // Completes `answered` with its answer; mutex_ not held.
    static void complete(PendingRequest&& answered, MessagePtr&& answer);
    void handle(std::unique_ptr<bayeux::PublishRequest>&& request);
    // The transport of `generation` has gone: fail what is pending and become DISCONNECTED, or
    // RECONNECTING when reconnection is on.
    void transportEnded(std::uint64_t generation, const char* why) ORVALE_EXCLUDES(mutex_);

    // Reconnection (client_reconnect.cpp); all of it only with the option on.
    // What dropping a transport leaves to release once mutex_ is unlocked.
    struct DroppedTransport {
        std::shared_ptr<OutboundPublisher> outbound;
        std::shared_ptr<InboundSubscriber> inbound;
        common::RingQueue<PendingRequest> pending;
        common::TickManager::Canceller timer;
        // Fails what was pending with `text`, then cancels the timer and closes the streams.
        void release(const std::string& text);
    };
    DroppedTransport dropTransportLocked() ORVALE_REQUIRES(mutex_);
    // A meta connect sent over transport `generation` was answered, or failed with `error`.
    void metaConnectAnswered(std::uint64_t generation, const bayeux::BayeuxMessage& reply)
        ORVALE_EXCLUDES(mutex_);
    void metaConnectFailed(std::uint64_t generation, const std::exception& error)
        ORVALE_EXCLUDES(mutex_);
    // CONNECTED becomes RECONNECTING and the first attempt is scheduled; `floor` is the least
    // wait the server advised.
    void startReconnecting(common::UniqueLock& lock, std::chrono::milliseconds floor)
        ORVALE_REQUIRES(mutex_) ORVALE_RELEASE(lock);
    // Schedules the next attempt of a new round after the backoff (at least `floor`).
    void scheduleAttempt(common::UniqueLock& lock, std::chrono::milliseconds floor)
        ORVALE_REQUIRES(mutex_) ORVALE_RELEASE(lock);
    void attempt(std::uint64_t round) ORVALE_EXCLUDES(mutex_);
    void attemptFailed(std::uint64_t round, const std::exception& error) ORVALE_EXCLUDES(mutex_);
    void resubscribe(std::uint64_t round, const bayeux::HandshakeResponse& reply)
        ORVALE_EXCLUDES(mutex_);
    void finishReconnecting(std::uint64_t round) ORVALE_EXCLUDES(mutex_);
    // Unsubscribes the server from `key` when every handle on it was cancelled meanwhile.
    void unsubscribeIfCancelled(const std::string& key) ORVALE_EXCLUDES(mutex_);
    // Asks the server to drop `key` (a channel as sent on the wire); logs a failure.
    Future<CancelResult> sendUnsubscribe(const std::string& key, const std::string& clientId,
                                         const std::shared_ptr<common::ContextState>& context)
        ORVALE_EXCLUDES(mutex_);
    // Ends reconnection and the transport, drops the subscriptions and becomes `last`.
    void stopReconnecting(common::UniqueLock& lock, ConnectionState last, const std::string& why)
        ORVALE_REQUIRES(mutex_) ORVALE_RELEASE(lock);
    bool roundIsCurrent(std::uint64_t round) const ORVALE_REQUIRES(mutex_) {
        return round == reconnectRound_ && state_ == ConnectionState::RECONNECTING;
    }
    // Sends the next meta connect after the server's advised interval, if it gave one.
    void pollAfterInterval(std::uint64_t generation, std::chrono::milliseconds interval)
        ORVALE_EXCLUDES(mutex_);

    const std::string& endpoint() const { return options_.at("endpoint"); }

    common::Mutex mutex_;
    const std::string name_;
    std::string clientId_ ORVALE_GUARDED_BY(mutex_);
    const foundation::log::basic_diagnostic_logger<char> logger_;
    const foundation::log::basic_diagnostic_logger<char, foundation::log::json_tagger> jsonLogger_;
    const Options options_;
    const std::shared_ptr<Context> context_;
    const Address address_;
    // The cookies the endpoint sets, sent back on every request of every transport connected.
    const std::shared_ptr<bayeux::CookieJar> cookies_ = std::make_shared<bayeux::CookieJar>();
    // Empty: no transport connected.
    std::shared_ptr<OutboundPublisher> outboundPublisher_ ORVALE_GUARDED_BY(mutex_);
    std::shared_ptr<InboundSubscriber> inboundSubscriber_ ORVALE_GUARDED_BY(mutex_);
    // Tells a current transport from a replaced one.
    std::uint64_t transportGeneration_ ORVALE_GUARDED_BY(mutex_) = 0;
    // The option "publish.maxPendingBytes": a publish that would take the bytes of publishes
    // sent and not yet answered above it fails at once, unless none is pending. Unset (the
    // default): a host that publishes faster than the connection carries queues without bound.
    const std::optional<std::size_t> maxPendingBytes_;
    // The channel and data bytes of the publishes pending now; counted only with the bound set.
    // Declared before pendingRequests_, whose entries count themselves out when destroyed.
    std::atomic<std::size_t> pendingBytes_{0};
    // In sending order. Answers come mostly in that order behind the one long-held meta connect,
    // so taking one moves at most that connect.
    common::RingQueue<PendingRequest> pendingRequests_ ORVALE_GUARDED_BY(mutex_);
    SubscriptionTable subscriptions_ ORVALE_GUARDED_BY(mutex_);
    // Holders under "/*" and "/**" keys: with none, a delivery looks up its own channel only.
    std::size_t wildcardHolders_ ORVALE_GUARDED_BY(mutex_) = 0;
    std::vector<StateListenerRecord> stateListeners_ ORVALE_GUARDED_BY(mutex_);
    ConnectionState state_ ORVALE_GUARDED_BY(mutex_) = ConnectionState::DISCONNECTED;
    // state_ for getState(), which every publish asks without taking mutex_.
    std::atomic<ConnectionState> stateSeen_{ConnectionState::DISCONNECTED};
    std::atomic<std::uint64_t> nextMessageId_{0};
    std::uint64_t nextSubscriptionId_ ORVALE_GUARDED_BY(mutex_) = 0;

    const ReconnectSettings reconnect_;
    // The option "request.timeoutMs": a request other than the meta connect, which the server
    // holds, fails when it has waited this long for its answer. Unset (the default): requests
    // wait until their answer comes or their connection ends.
    const std::optional<std::chrono::milliseconds> requestTimeout_;
    ReconnectClock clock_ ORVALE_GUARDED_BY(mutex_);
    // Advanced by every attempt and by whatever ends reconnection.
    std::uint64_t reconnectRound_ ORVALE_GUARDED_BY(mutex_) = 0;
    // Attempts since the last connection; sets the backoff's ceiling.
    unsigned attempts_ ORVALE_GUARDED_BY(mutex_) = 0;
    // The pending attempt, or the pending meta connect of an advised interval. Never destroyed
    // with mutex_ held: cancelling waits for a running callback, which may want the lock.
    common::TickManager::Canceller timer_ ORVALE_GUARDED_BY(mutex_);
};

}  // namespace connector::message_service
