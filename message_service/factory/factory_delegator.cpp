#include "connector/message_service/factory_delegator.h"

#include <stdexcept>

#include "common/channel_rules.h"
#include "common/module_logger.h"

namespace connector::message_service {

namespace log = foundation::log;

std::exception_ptr checkServiceName(const std::string& name) {
    if (name.empty())
        return std::make_exception_ptr(
            std::invalid_argument("Invalid message service name, must not be an empty string."));
    if (!isValidName(name))
        return std::make_exception_ptr(std::invalid_argument(
            "Message service name must be alpha numeric ([_:-] also allowed): " + name));
    return nullptr;
}

MessageServiceFactoryDelegatorImpl::MessageServiceFactoryDelegatorImpl(
    std::shared_ptr<MessageServiceFactoryDelegate> serverDelegate,
    std::shared_ptr<MessageServiceFactoryDelegate> clientDelegate)
    : serverDelegate_(std::move(serverDelegate)), clientDelegate_(std::move(clientDelegate)) {
    moduleLogger().log(log::trace, "Constructing the message service factory delegator");
}

MessageServiceFactoryDelegatorImpl::~MessageServiceFactoryDelegatorImpl() {
    moduleLogger().log(log::trace, "Destructing the message service factory delegator");
}

std::shared_ptr<MessageService> MessageServiceFactoryDelegatorImpl::getMessageService(
    const std::string& name) {
    if (auto service = serverDelegate_->getMessageService(name))
        return service;
    return clientDelegate_->getMessageService(name);
}

Future<std::shared_ptr<MessageService>> MessageServiceFactoryDelegatorImpl::createMessageService(
    const std::string& name, const Options& options) {
    if (auto existing = getMessageService(name)) {
        moduleLogger().log(log::trace, "Found existing message service instance: ", name);
        return makeReadyFuture<std::shared_ptr<MessageService>>(std::move(existing));
    }
    common::MutexLock lock(mutex_);
    if (auto error = checkServiceName(name))
        return makeFailedFuture<std::shared_ptr<MessageService>>(error);

    Options working = options;
    working["name"] = name;
    for (const auto& mapping : optionsMappings_) {
        auto found = working.find(mapping.optionKey);
        if (found == working.end() || found->second != mapping.optionValue)
            continue;
        moduleLogger().log(log::trace, "Found options mapping: ", mapping.optionKey, " = ",
                           mapping.optionValue);
        for (const auto& extra : mapping.extraOptions)
            working.emplace(extra.first, extra.second);
        break;
    }

    if (working.count("endpoint")) {
        moduleLogger().log(log::trace, "Using client factory to create message service: ", name);
        return clientDelegate_->createMessageService(name, working);
    }
    moduleLogger().log(log::trace, "Using server factory to create message service: ", name);
    return serverDelegate_->createMessageService(name, working);
}

void MessageServiceFactoryDelegatorImpl::setFactoryOptionsMappings(
    std::vector<OptionsMapping> mappings) {
    if (moduleLogger().enabled(log::trace)) {
        std::string text;
        for (const auto& mapping : mappings) {
            text += "{optionKey:" + mapping.optionKey + ",optionValue:" + mapping.optionValue +
                    ",extraOptions:{";
            for (const auto& extra : mapping.extraOptions)
                text += extra.first + ":" + extra.second + ",";
            text += "}},";
        }
        moduleLogger().log(log::trace, "Setting options mappings: [", text, "]");
    }
    common::MutexLock lock(mutex_);
    optionsMappings_ = std::move(mappings);
}

std::vector<OptionsMapping> MessageServiceFactoryDelegatorImpl::getFactoryOptionsMappings() {
    common::MutexLock lock(mutex_);
    return optionsMappings_;
}

}  // namespace connector::message_service
