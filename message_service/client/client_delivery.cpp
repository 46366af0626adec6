// Inbound delivery of the client service: responses complete pending requests, batches are
// unpacked in order, and published messages reach the matching subscription callbacks.

#include <boost/container/small_vector.hpp>
#include <typeinfo>

#include "common/callback_runner.h"
#include "common/channel_rules.h"
#include "common/module_logger.h"
#include "connector/bayeux/channel.h"
#include "connector/message_service/client_impl.h"

namespace connector::message_service {

namespace log = foundation::log;

namespace {
// Slots for the answers of one frame that a thread keeps between frames (about 100 bytes each).
constexpr std::size_t kKeptAnswerSlots = 2048;

// True when `message` is a T for certain: the same type_info object. Unlike a full type test,
// a mismatch costs no comparison of type names; a false answer is therefore not final.
template <class T>
bool surely(const Message& message) {
    return &typeid(message) == &typeid(T);
}
}  // namespace

void MessageServiceClientImpl::deliver(MessagePtr&& message) {
    // The type name is demangled only when the line is wanted: this runs for every message.
    if (logger_.enabled(log::trace))
        logger_.log(log::trace, "Message received: ", log::typeName(*message));
    // Deliveries are most of the traffic; their exact type is checked before any cast.
    const Message& received = *message;  // typeid of a plain reference: no call to evaluate
    if (typeid(received) == typeid(bayeux::PublishRequest)) {
        handle(std::unique_ptr<bayeux::PublishRequest>(
            static_cast<bayeux::PublishRequest*>(message.release())));
        return;
    }
    if (const bayeux::BayeuxResponse* response = responseOf(*message)) {
        common::UniqueLock lock(mutex_);
        std::optional<PendingRequest> answered = takeAnsweredLocked(*response);
        lock.unlock();
        if (answered) {
            complete(std::move(*answered), std::move(message));
            return;
        }
    }
    if (typeid(received) == typeid(bayeux::BayeuxContainer)) {
        handle(std::unique_ptr<bayeux::BayeuxContainer>(
            static_cast<bayeux::BayeuxContainer*>(message.release())));
    } else {
        logger_.log(log::error, "Unexpected message: ", log::typeName(*message));
    }
}

void MessageServiceClientImpl::handle(std::unique_ptr<bayeux::BayeuxContainer>&& container) {
    auto& messages = container->messages();
    // The answers of a frame are matched to their requests under one lock, so a frame of publish
    // answers does not contend with the publishing thread once per answer. They are completed
    // in frame order among the deliveries.
    // Each thread keeps its list from frame to frame; a nested batch, if any, makes its own.
    thread_local std::vector<std::optional<PendingRequest>> kept;
    std::vector<std::optional<PendingRequest>> answered;
    answered.swap(kept);
    answered.resize(messages.size());
    {
        common::MutexLock lock(mutex_);
        for (std::size_t i = 0; i < messages.size(); ++i) {
            // Deliveries answer nothing; they are most of what a subscriber receives.
            if (!messages[i] || surely<bayeux::PublishRequest>(*messages[i]))
                continue;
            if (const bayeux::BayeuxResponse* response = responseOf(*messages[i]))
                answered[i] = takeAnsweredLocked(*response);
        }
    }
    for (std::size_t i = 0; i < messages.size(); ++i) {
        if (answered[i]) {
            if (logger_.enabled(log::trace))
                logger_.log(log::trace, "Message received: ", log::typeName(*messages[i]));
            complete(std::move(*answered[i]), std::move(messages[i]));
        } else if (messages[i]) {
            deliver(std::move(messages[i]));
        }
    }
    answered.clear();
    if (answered.capacity() <= kKeptAnswerSlots)
        kept.swap(answered);
}

const bayeux::BayeuxResponse* MessageServiceClientImpl::responseOf(const Message& message) {
    // Publish answers are the most common: their exact type spares the cast's hierarchy walk.
    if (surely<bayeux::PublishResponse>(message))
        return static_cast<const bayeux::PublishResponse*>(&message);
    return dynamic_cast<const bayeux::BayeuxResponse*>(&message);
}

std::optional<MessageServiceClientImpl::PendingRequest>
MessageServiceClientImpl::takeAnsweredLocked(const bayeux::BayeuxResponse& response) {
    for (std::size_t i = 0; i < pendingRequests_.size(); ++i)
        if (pendingRequests_[i].id == response.getId())
            return pendingRequests_.take(i);
    return std::nullopt;
}

void MessageServiceClientImpl::complete(PendingRequest&& answered, MessagePtr&& answer) {
    const auto& response = static_cast<const bayeux::BayeuxResponse&>(*answer);
    if (!response.isSuccessful())
        answered.fail(
            "Bayeux message " + response.getId() + " failed, error: " + response.getError(),
            &response);
    else
        answered.succeed(std::move(answer));
}

void MessageServiceClientImpl::handle(std::unique_ptr<bayeux::PublishRequest>&& request) {
    const std::string& wire = request->getChannel();
    // Most channels have a few holders: these stay off the heap.
    boost::container::small_vector<std::shared_ptr<SubscriptionHolder>, 4> holders;
    {
        common::MutexLock lock(mutex_);
        auto collect = [&](const std::string& key) ORVALE_REQUIRES(mutex_) {
            auto found = subscriptions_.find(key);
            if (found != subscriptions_.end())
                holders.insert(holders.end(), found->second.begin(), found->second.end());
        };
        if (wildcardHolders_ > 0) {
            // Shallower wildcard keys first, "/*" before "/**" at each depth, the channel
            // itself last; every key is built in the one buffer.
            std::string key;
            key.reserve(wire.size() + 3);
            for (std::string_view segment : bayeux::ChannelName(wire).segments()) {
                if (segment.empty())
                    continue;
                const std::size_t prefix = key.size();
                collect(key.append("/*"));
                collect(key.append("*"));
                key.resize(prefix);
                key.append("/").append(segment);
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
