#pragma once
// A message service that is a session of an in-process Bayeux server: its subscriptions,
// listeners and publications go straight to the server, and the server delivers to it on the
// server's own threads.
//
// `mutex_` guards subscriptions_, the three listener lists, state_, nextId_ and registered_;
// name_, id_, context_, the loggers and bayeuxServer_ never change after construction. No
// callback, listener or server operation runs with `mutex_` held. `registerMutex_` is held only
// across the server's register call, so that an operation that finds the session registered
// never overtakes a registration still in flight.

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "connector/bayeux/server.h"
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

    void ensureRegisteredWithService(std::unique_lock<std::mutex>& lock);
    void setState(ConnectionState newState, std::unique_lock<std::mutex>& lock);
    void doDisconnect(bool unregister);
    template <class Event>
    Future<std::shared_ptr<Subscription>> addListener(std::vector<ListenerRecord<Event>>& list,
                                                      const std::string& pattern,
                                                      std::function<void(const Event&)> callback);
    template <class Event, class Request>
    void notifyListeners(const std::vector<ListenerRecord<Event>>& list, const Request& request,
                         const char* errorText, const char* unknownErrorText);

    std::mutex mutex_;
    const std::string name_;
    const std::string id_;
    const std::shared_ptr<common::ContextState> context_;  // never set: always empty
    const foundation::log::basic_diagnostic_logger<char> logger_;
    const foundation::log::basic_diagnostic_logger<char, foundation::log::json_tagger> jsonLogger_;
    const std::shared_ptr<bayeux::BayeuxServer> bayeuxServer_;
    SubscriptionTable subscriptions_;
    std::vector<ListenerRecord<SubscribeEvent>> subscribeListeners_;
    std::vector<ListenerRecord<UnsubscribeEvent>> unsubscribeListeners_;
    std::vector<StateListenerRecord> stateListeners_;
    ConnectionState state_ = ConnectionState::CONNECTED;
    std::uint64_t nextId_ = 0;
    bool registered_ = false;
    std::mutex registerMutex_;
};

}  // namespace connector::message_service
