#include "connector/message_service/server_delegate.h"

#include "common/channel_rules.h"
#include "common/module_logger.h"
#include "connector/message_service/factory_delegator.h"
#include "connector/message_service/server_impl.h"

namespace connector::message_service {

MessageServiceFactoryServerDelegate::MessageServiceFactoryServerDelegate(
    std::shared_ptr<bayeux::BayeuxServer> server)
    : bayeuxServer_(std::move(server)) {}

MessageServiceFactoryServerDelegate::~MessageServiceFactoryServerDelegate() {
    moduleLogger().log(foundation::log::trace, "Destructing the message service factory");
    std::vector<std::shared_ptr<MessageServiceServerImpl>> live;
    {
        common::MutexLock lock(mutex_);
        if (sharedInstance_)
            live.push_back(sharedInstance_);
        for (auto& entry : instances_)
            if (auto instance = entry.second.lock())
                live.push_back(std::move(instance));
    }
    // Disconnecting runs listeners, so it happens with the registry unlocked.
    for (auto& instance : live)
        instance->disconnect();
}

Future<std::shared_ptr<MessageService>> MessageServiceFactoryServerDelegate::createMessageService(
    const std::string& name, const Options& /*options*/) {
    common::MutexLock lock(mutex_);
    if (name.empty())
        return makeFailedFuture<std::shared_ptr<MessageService>>(checkServiceName(name));
    if (name == kSharedServiceName) {
        if (!sharedInstance_)
            sharedInstance_ = std::make_shared<MessageServiceServerImpl>(name, bayeuxServer_);
        return makeReadyFuture<std::shared_ptr<MessageService>>(sharedInstance_);
    }
    if (auto error = checkServiceName(name))
        return makeFailedFuture<std::shared_ptr<MessageService>>(error);
    auto& entry = instances_[name];
    if (auto existing = entry.lock())
        return makeReadyFuture<std::shared_ptr<MessageService>>(existing);
    auto instance = std::make_shared<MessageServiceServerImpl>(name, bayeuxServer_);
    entry = instance;
    Promise<std::shared_ptr<MessageService>> promise;
    auto future = promise.getFuture();
    promise.setValue(std::move(instance));
    return future;
}

std::shared_ptr<MessageService> MessageServiceFactoryServerDelegate::getMessageService(
    const std::string& name) {
    common::MutexLock lock(mutex_);
    return instances_[name].lock();
}

}  // namespace connector::message_service
