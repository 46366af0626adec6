#pragma once
// The message service interface: a named publish/subscribe service, either a client of a remote
// Bayeux server or a session of an in-process one. Every operation reports through a Future;
// bad input gives a failed future, never an exception.
//
// Thread safety: services and factories may be called from any thread at once. Callbacks,
// listeners and futures run on the service's delivery threads, or on the calling thread when a
// call settles at once; never under a service lock, so they may call the service again.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "connector/common/data_buffer.h"
#include "connector/core.h"
#include "connector/future.h"
#include "connector/message_service/subscription.h"
#include "connector/message_service/types.h"

namespace connector::message_service {

class MessageService {
  public:
    virtual ~MessageService() = default;
    virtual std::string getName() = 0;
    virtual Future<std::shared_ptr<Subscription>> subscribe(
        const std::string& channel, std::function<void(const JsonMessage&)> callback) = 0;
    virtual Future<PublishResult> publish(const std::string& channel,
                                          common::DataBuffer&& data) = 0;
    virtual Future<DisconnectResult> disconnect() = 0;
    virtual Future<std::shared_ptr<Subscription>> listenSubscribe(
        const std::string& channelPattern, std::function<void(const SubscribeEvent&)> callback) = 0;
    virtual Future<std::shared_ptr<Subscription>> listenUnsubscribe(
        const std::string& channelPattern,
        std::function<void(const UnsubscribeEvent&)> callback) = 0;
    virtual Future<std::shared_ptr<Subscription>> listenStateChange(
        std::function<void(const StateChangeEvent&)> callback) = 0;
    virtual ConnectionState getState() = 0;
    virtual Future<PublishResult> publishWithContext(
        const std::string& channel, common::DataBuffer&& data,
        std::shared_ptr<common::ContextState>& context) = 0;
    virtual Future<std::shared_ptr<Subscription>> subscribeWithContext(
        const std::string& channel, std::function<void(const JsonMessage&)> callback,
        const std::shared_ptr<common::ContextState>& context) = 0;
};

using Options = std::unordered_map<std::string, std::string>;

// Extra options given to a request when one of its options has a given value.
struct OptionsMapping {
    std::string optionKey;
    std::string optionValue;
    std::unordered_map<std::string, std::string> extraOptions;
};

class MessageServiceFactory {
  public:
    virtual ~MessageServiceFactory() = default;
    virtual Future<std::shared_ptr<MessageService>> createMessageService(
        const std::string& name, const Options& options) = 0;
    virtual std::shared_ptr<MessageService> getMessageService(const std::string& name) = 0;
    virtual void setFactoryOptionsMappings(std::vector<OptionsMapping> mappings) = 0;
    virtual std::vector<OptionsMapping> getFactoryOptionsMappings() = 0;
};

// Makes one kind of service (client or server); the delegator chooses between two of them.
class MessageServiceFactoryDelegate {
  public:
    virtual ~MessageServiceFactoryDelegate() = default;
    virtual Future<std::shared_ptr<MessageService>> createMessageService(
        const std::string& name, const Options& options) = 0;
    virtual std::shared_ptr<MessageService> getMessageService(const std::string& name) = 0;
};

}  // namespace connector::message_service
