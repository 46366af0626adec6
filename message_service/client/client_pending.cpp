// Pending requests of the client service: numbering and filing them, and completing them when
// their answer arrives or their connection ends.

#include <stdexcept>
#include <typeinfo>
#include <utility>

#include "common/module_logger.h"
#include "connector/message_service/client_impl.h"
#include "reconnect_policy.h"

namespace connector::message_service {

namespace log = foundation::log;

namespace {

void failPublish(Promise<PublishResult>&& pending, const std::string& channel,
                 const std::string& text) {
    // Taken out of the entry, whose destructor then finds nothing left to fail.
    Promise<PublishResult> promise = std::move(pending);
    moduleLogger().log(log::error, "Error publishing on ", channel, ", ", text);
    promise.setException(std::runtime_error(text));
}

}  // namespace

MessageServiceClientImpl::PendingPublish::~PendingPublish() {
    if (promise.valid())
        failPublish(std::move(promise), channel, "Promise destroyed before it provided a value.");
}

void MessageServiceClientImpl::PendingRequest::succeed(MessagePtr&& answer) {
    if (auto* raw = std::get_if<Promise<MessagePtr>>(&completion)) {
        Promise<MessagePtr> promise = std::move(*raw);
        promise.setValue(std::move(answer));
        return;
    }
    auto& publish = std::get<PendingPublish>(completion);
    publish.counted.release();
    const Message& received = *answer;  // typeid of a plain reference: no call to evaluate
    if (typeid(received) != typeid(bayeux::PublishResponse) &&
        !dynamic_cast<const bayeux::PublishResponse*>(answer.get())) {
        failPublish(std::move(publish.promise), publish.channel,
                    "Incorrect response message type, id: " + id);
        return;
    }
    Promise<PublishResult> promise = std::move(publish.promise);
    promise.setValue(PublishResult(true));
}

void MessageServiceClientImpl::PendingRequest::fail(const std::string& text,
                                                    const bayeux::BayeuxResponse* answer) {
    if (auto* raw = std::get_if<Promise<MessagePtr>>(&completion)) {
        Promise<MessagePtr> promise = std::move(*raw);
        if (answer)
            promise.setException(BayeuxFailure(text, *answer));
        else
            promise.setException(std::runtime_error(text));
        return;
    }
    auto& publish = std::get<PendingPublish>(completion);
    publish.counted.release();
    failPublish(std::move(publish.promise), publish.channel, text);
}

std::shared_ptr<MessageServiceClientImpl::OutboundPublisher> MessageServiceClientImpl::file(
    bayeux::BayeuxMessage& request, PendingRequest&& pending) {
    common::UniqueLock lock(mutex_);
    if (!outboundPublisher_) {
        lock.unlock();
        pending.fail("Failed to send message, not connected");
        return nullptr;
    }
    pending.id = std::to_string(nextMessageId_.fetch_add(1));
    request.setId(pending.id);
    if (requestTimeout_ && !dynamic_cast<const bayeux::ConnectRequest*>(&request))
        pending.deadline = common::delay(
            [weak = weak_from_this(), id = pending.id](std::int64_t) {
                if (auto self = weak.lock())
                    self->requestTimedOut(id);
            },
            requestTimeout_->count());
    request.setClientId(clientId_);
    pendingRequests_.push_back(std::move(pending));
    return outboundPublisher_;
}

void MessageServiceClientImpl::requestTimedOut(const std::string& id) {
    std::optional<PendingRequest> expired;
    {
        common::MutexLock lock(mutex_);
        for (std::size_t i = 0; i < pendingRequests_.size() && !expired; ++i)
            if (pendingRequests_[i].id == id)
                expired = pendingRequests_.take(i);
    }
    // Released here, on the timer thread, whose own timer it cancels without waiting.
    if (expired)
        expired->fail("Bayeux message " + id + " was not answered within " +
                      std::to_string(requestTimeout_->count()) + " ms");
}

}  // namespace connector::message_service
