// Publishing into the in-process server, and the server's deliveries to this service's
// subscriptions with the slow-callback watchdog.

#include <boost/container/small_vector.hpp>
#include <stdexcept>

#include "common/callback_runner.h"
#include "common/channel_rules.h"
#include "common/module_logger.h"
#include "common/service_records.h"
#include "connector/message_service/server_impl.h"

namespace connector::message_service {

namespace log = foundation::log;

Future<PublishResult> MessageServiceServerImpl::publish(const std::string& channel,
                                                        common::DataBuffer&& data) {
    std::shared_ptr<common::ContextState> context = context_;
    return publishWithContext(channel, std::move(data), context);
}

Future<PublishResult> MessageServiceServerImpl::publishWithContext(
    const std::string& channel, common::DataBuffer&& data,
    std::shared_ptr<common::ContextState>& context) {
    const bool valid = name_ == kSharedServiceName ? isValidSharedPublishChannel(channel)
                                                   : isValidPublishChannel(channel);
    if (auto refused = beginPublish(valid, channel, *this, jsonLogger_, data))
        return std::move(*refused);

    auto request =
        std::make_shared<bayeux::PublishRequest>(toWireChannel(channel), std::move(data));
    request->setClientId(id_);
    request->setContextState(context);
    bayeuxServer_->acceptPublish(std::move(request));
    return makeReadyFuture<PublishResult>(PublishResult(true));
}

void MessageServiceServerImpl::deliver(
    const std::vector<std::string>& channels,
    const std::shared_ptr<const bayeux::PublishRequest>& request) {
    // Inline room for the common case keeps delivery free of heap allocation.
    boost::container::small_vector<std::shared_ptr<SubscriptionHolder>, 4> holders;
    {
        common::MutexLock lock(mutex_);
        for (const auto& name : channels) {
            auto found = subscriptions_.find(name);
            if (found != subscriptions_.end())
                holders.insert(holders.end(), found->second.begin(), found->second.end());
        }
    }
    const std::string channel = request->getChannel().substr(kWirePrefixLength);
    const JsonMessage message(channel, request);

    runSubscriptionCallbacks(holders, message, CallbackLoggers{&logger_, &moduleLogger()});
}

}  // namespace connector::message_service
