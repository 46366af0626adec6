#pragma once
// A message service that is a session of an in-process Bayeux server: its subscriptions,
// listeners and publications go straight to the server, and the server delivers to it on the
// server's own threads.
//
// name_, id_, context_, the loggers and bayeuxServer_ never change after construction. No
// callback, listener or server operation runs with `mutex_` held, so that any of them may call
// back into the service. `registerMutex_` guards no data: it is held only across the server's
// register call, so that an operation that finds the session registered never overtakes a
// registration still in flight.
//
// Thread safety: may be called from any thread at once. Subscription callbacks and subscribe
// and unsubscribe listeners run on the server's delivery threads; state listeners run on the
// thread whose call changed the state (disconnect, or the destructor).

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "connector/bayeux/server.h"
#include "connector/common/mutex.h"
#include "connector/log/diagnostic_logger.h"
#include "connector/message_service/message_service.h"
#include "connector/message_service/subscription.h"

namespace connector::message_service {

class MessageServiceServerImpl : public MessageService,
                                 public Unsubscribeable,
                                 public bayeux::BayeuxSession,
                                 public std::enable_shared_from_this<MessageServiceServerImpl> {
  public:
    MessageServiceServerImpl(const std::string& name, std::shared_ptr<bayeux::BayeuxServer> server);
    ~MessageServiceServerImpl() override;

    // MessageService
    std::string getName() override { return name_; }
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

    // BayeuxSession
    std::shared_ptr<common::ContextState> getContext() override { return context_; }
    std::string getId() override { return id_; }
    void deliver(const std::shared_ptr<const bayeux::UnsubscribeRequest>& request) override;
    void deliver(const std::shared_ptr<const bayeux::SubscribeRequest>& request) override;
    void deliver(const std::vector<std::string>& channels,
                 const std::shared_ptr<const bayeux::PublishRequest>& request) override;

    // Whether `channel` matches `pattern`: exact, or a last segment "*" (one level) or "**"
    // (one level or more).
    static bool matches(const std::string& channel, const std::string& pattern);

  private:
    template <class Event>
    struct ListenerRecord {
        std::string channel;  // "/orvale" + the caller's pattern
        std::function<void(const Event&)> callback;
        std::uint64_t id;
    };

    // Registers the session with the server once, the call made after `lock` is released;
    // waits for a registration in flight on another thread.
    void ensureRegisteredWithService(common::UniqueLock& lock) ORVALE_REQUIRES(mutex_)
        ORVALE_RELEASE(lock) ORVALE_EXCLUDES(registerMutex_);
    // Changes the state, releases `lock`, then tells the state listeners.
    void setState(ConnectionState newState, common::UniqueLock& lock) ORVALE_REQUIRES(mutex_)
        ORVALE_RELEASE(lock);
    void doDisconnect(bool unregister) ORVALE_EXCLUDES(mutex_);
    // The subscribe or the unsubscribe listeners, by event type.
    template <class Event>
    std::vector<ListenerRecord<Event>>& listeners() ORVALE_REQUIRES(mutex_);
    template <class Event>
    Future<std::shared_ptr<Subscription>> addListener(const std::string& pattern,
                                                      std::function<void(const Event&)> callback)
        ORVALE_EXCLUDES(mutex_);
    template <class Event, class Request>
    void notifyListeners(const Request& request, const char* errorText,
                         const char* unknownErrorText) ORVALE_EXCLUDES(mutex_);

    common::Mutex mutex_;
    const std::string name_;
    const std::string id_;
    const std::shared_ptr<common::ContextState> context_;  // never set: always empty
    const foundation::log::basic_diagnostic_logger<char> logger_;
    const foundation::log::basic_diagnostic_logger<char, foundation::log::json_tagger> jsonLogger_;
    const std::shared_ptr<bayeux::BayeuxServer> bayeuxServer_;
    SubscriptionTable subscriptions_ ORVALE_GUARDED_BY(mutex_);
    std::vector<ListenerRecord<SubscribeEvent>> subscribeListeners_ ORVALE_GUARDED_BY(mutex_);
    std::vector<ListenerRecord<UnsubscribeEvent>> unsubscribeListeners_ ORVALE_GUARDED_BY(mutex_);
    std::vector<StateListenerRecord> stateListeners_ ORVALE_GUARDED_BY(mutex_);
    ConnectionState state_ ORVALE_GUARDED_BY(mutex_) = ConnectionState::CONNECTED;
    std::uint64_t nextId_ ORVALE_GUARDED_BY(mutex_) = 0;
    bool registered_ ORVALE_GUARDED_BY(mutex_) = false;
    common::Mutex registerMutex_ ORVALE_ACQUIRED_AFTER(mutex_);
};

}  // namespace connector::message_service
