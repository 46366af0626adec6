#include "connector/message_service/client_delegate.h"

#include <chrono>
#include <stdexcept>
#include <vector>

#include "common/module_logger.h"
#include "connector/message_service/client_impl.h"
#include "connector/message_service/factory_delegator.h"

namespace connector::message_service {

MessageServiceFactoryClientDelegate::MessageServiceFactoryClientDelegate(
    std::shared_ptr<Connector> connector)
    : MessageServiceFactoryClientDelegate(connector->getContext()) {}

MessageServiceFactoryClientDelegate::MessageServiceFactoryClientDelegate(
    std::shared_ptr<Context> context)
    : transportAddress_("connector/bayeux/webSocket/client", "connector/http/client"),
      context_(std::move(context)) {}

MessageServiceFactoryClientDelegate::~MessageServiceFactoryClientDelegate() {
    moduleLogger().log(foundation::log::trace, "Destructing the message service factory");
    std::vector<std::shared_ptr<MessageService>> live;
    {
        common::MutexLock lock(instancesMutex_);
        for (auto& entry : instances_)
            if (auto instance = entry.second.lock())
                live.push_back(std::move(instance));
    }
    for (auto& instance : live) {
        try {
            instance->disconnect().waitFor(std::chrono::milliseconds(200));
        } catch (...) {
            // A disconnect that cannot even start leaves nothing to wait for.
        }
    }
}

Future<std::shared_ptr<MessageService>> MessageServiceFactoryClientDelegate::createMessageService(
    const std::string& name, const Options& options) {
    using Result = std::shared_ptr<MessageService>;
    common::MutexLock lock(mutex_);
    if (auto error = checkServiceName(name))
        return makeFailedFuture<Result>(error);
    {
        common::MutexLock registry(instancesMutex_);
        if (auto existing = instances_[name].lock())
            return makeReadyFuture<Result>(std::move(existing));
    }
    Options copy = options;
    auto instance = std::make_shared<MessageServiceClientImpl>(name, std::move(copy), context_,
                                                               transportAddress_);
    std::weak_ptr<MessageServiceFactoryClientDelegate> weak = shared_from_this();
    return instance->connect().then(
        [weak, name, instance](Future<ConnectionState>&& connected) -> Result {
            auto self = weak.lock();
            const ConnectionState state = connected.get();
            if (!self || state != ConnectionState::CONNECTED)
                throw std::runtime_error("Unknown error connecting message service.");
            {
                common::MutexLock registry(self->instancesMutex_);
                self->instances_[name] = instance;
            }
            return instance;
        });
}

std::shared_ptr<MessageService> MessageServiceFactoryClientDelegate::getMessageService(
    const std::string& name) {
    common::MutexLock lock(mutex_);
    common::MutexLock registry(instancesMutex_);
    return instances_[name].lock();
}

}  // namespace connector::message_service
