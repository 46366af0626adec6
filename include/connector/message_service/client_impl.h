#pragma once
// A message service that speaks Bayeux to a remote endpoint through a transport service of the
// Context: it opens the transport, handshakes, keeps one meta connect outstanding while it is
// connected, and matches responses to its pending requests by message id.
//
// No request is sent, no promise resolved and no callback or listener run while `mutex_` is
// held: the code copies under the lock, releases, then calls, so that any of them may call back
// into the service. Continuations hold the instance only weakly. The client has no timers and no
// automatic reconnection.
//
// Thread safety: may be called from any thread at once. Subscription callbacks, listeners and
// futures run on the transport's thread; a state listener also runs on the thread whose call
// (connect, disconnect) changed the state.

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "connector/bayeux/messages.h"
#include "connector/common/mutex.h"
#include "connector/common/ring_queue.h"
#include "connector/log/diagnostic_logger.h"
#include "connector/message_service/cached_value_publisher.h"
#include "connector/message_service/message_service.h"
#include "connector/message_service/subscription.h"

namespace connector::message_service {

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

  private:
    using MessagePtr = std::unique_ptr<Message>;
    using OutboundPublisher = reactive_streams::CachedValuePublisher<MessagePtr>;
    using InboundSubscriber = reactive_streams::CallbackSubscriber<MessagePtr>;

    // A publish completes its caller's promise straight from the answer, with no chain of
    // futures: it checks the answer's type and logs a failure on the module logger itself.
    struct PendingPublish {
        PendingPublish(Promise<PublishResult>&& promise, const std::string& channel)
            : promise(std::move(promise)), channel(channel) {}
        PendingPublish(PendingPublish&&) = default;
        PendingPublish& operator=(PendingPublish&&) = default;
        // Still pending here only when the service is destroyed: fails like an abandoned promise.
        ~PendingPublish();

        Promise<PublishResult> promise;
        std::string channel;  // as the caller named it, for the failure line
    };
    // A request waiting for its answer: any other request resolves a promise of the raw answer.
    struct PendingRequest {
        std::string id;
        std::variant<Promise<MessagePtr>, PendingPublish> completion;

        // The successful answer; never called with mutex_ held.
        void succeed(MessagePtr&& answer);
        // A failed answer or the end of the connection; never called with mutex_ held.
        void fail(const std::string& text);
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
    Future<ConnectionState> handle(std::unique_ptr<bayeux::ConnectTransportResponse>&& response);
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
    // The transport of `generation` has gone: fail what is pending and become DISCONNECTED.
    void transportEnded(std::uint64_t generation, const char* why) ORVALE_EXCLUDES(mutex_);

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
};

}  // namespace connector::message_service
