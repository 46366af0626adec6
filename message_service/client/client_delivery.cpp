// Inbound delivery of the client service: responses complete pending requests, batches are
// unpacked in order, and published messages reach the matching subscription callbacks.

#include <boost/container/small_vector.hpp>
#include <typeinfo>

#include "connector/message_service/callback_runner.h"
#include "connector/message_service/channel_rules.h"
#include "connector/message_service/client_impl.h"
#include "connector/message_service/module_logger.h"

namespace connector::message_service {

namespace log = foundation::log;

void MessageServiceClientImpl::deliver(MessagePtr&& message) {
    // The type name is demangled only when the line is wanted: this runs for every message.
    if (logger_.enabled(log::trace))
        logger_.log(log::trace, "Message received: ", log::typeName(*message));
    // Deliveries are most of the traffic; their exact type is checked before any cast.
    if (typeid(*message) == typeid(bayeux::PublishRequest)) {
        handle(std::unique_ptr<bayeux::PublishRequest>(
            static_cast<bayeux::PublishRequest*>(message.release())));
        return;
    }
    // Publish answers are the next most: their exact type spares the cast's hierarchy walk.
    auto* response = typeid(*message) == typeid(bayeux::PublishResponse)
                         ? static_cast<bayeux::PublishResponse*>(message.get())
                         : dynamic_cast<bayeux::BayeuxResponse*>(message.get());
    if (response) {
        std::unique_lock<std::mutex> lock(mutex_);
        for (std::size_t i = 0; i < pendingRequests_.size(); ++i) {
            if (pendingRequests_[i].id != response->getId())
                continue;
            PendingRequest answered = pendingRequests_.take(i);
            lock.unlock();
            if (!response->isSuccessful())
                answered.fail("Bayeux message " + response->getId() +
                              " failed, error: " + response->getError());
            else
                answered.succeed(std::move(message));
            return;
        }
    }
    if (typeid(*message) == typeid(bayeux::BayeuxContainer)) {
        handle(std::unique_ptr<bayeux::BayeuxContainer>(
            static_cast<bayeux::BayeuxContainer*>(message.release())));
    } else {
        logger_.log(log::error, "Unexpected message: ", log::typeName(*message));
    }
}

void MessageServiceClientImpl::handle(std::unique_ptr<bayeux::BayeuxContainer>&& container) {
    for (auto& message : container->messages())
        if (message)
            deliver(std::move(message));
}

void MessageServiceClientImpl::handle(std::unique_ptr<bayeux::PublishRequest>&& request) {
    const std::string& wire = request->getChannel();
    // Most channels have a few holders: these stay off the heap.
    boost::container::small_vector<std::shared_ptr<SubscriptionHolder>, 4> holders;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto collect = [&](const std::string& key) {
            auto found = subscriptions_.find(key);
            if (found != subscriptions_.end())
                holders.insert(holders.end(), found->second.begin(), found->second.end());
        };
        if (wildcardHolders_ > 0) {
            // Shallower wildcard keys first, "/*" before "/**" at each depth, the channel
            // itself last; every key is built in the one buffer.
            std::string key;
            key.reserve(wire.size() + 3);
            std::size_t start = 0;
            while (start < wire.size()) {
                const std::size_t slash = wire.find('/', start);
                const std::size_t end = slash == std::string::npos ? wire.size() : slash;
                if (end > start) {
                    const std::size_t prefix = key.size();
                    collect(key.append("/*"));
                    collect(key.append("*"));
                    key.resize(prefix);
                    key.append("/").append(wire, start, end - start);
                }
                start = end + 1;
            }
        }
        collect(wire);
    }
    const JsonMessage message(wire.substr(kWirePrefixLength),
                              std::shared_ptr<const bayeux::PublishRequest>(std::move(request)));
    logger_.log(log::trace, "Publish request callbacks: ", holders.size());
    runSubscriptionCallbacks(holders, message, CallbackLoggers{&logger_, nullptr});
}

}  // namespace connector::message_service
