#pragma once
// What the client service's source files share: the generic request path (a pending promise
// of the raw answer and the response type check) and the shape of subscription keys.

#include <stdexcept>
#include <string>

#include "connector/bayeux/channel.h"
#include "connector/log/diagnostic_logger.h"
#include "connector/message_service/client_impl.h"

namespace connector::message_service {

template <class Resp, class Req>
Future<std::unique_ptr<Resp>> MessageServiceClientImpl::send(std::unique_ptr<Req> request) {
    Promise<MessagePtr> promise;
    Future<MessagePtr> response = promise.getFuture();
    std::string id;
    if (auto publisher = file(*request, PendingRequest{{}, std::move(promise), {}})) {
        id = request->getId();
        publisher->next(std::move(request));
    }
    return response.then([id = std::move(id)](Future<MessagePtr>&& arrived) {
        MessagePtr message = arrived.get();
        if (auto* typed = dynamic_cast<Resp*>(message.get())) {
            message.release();
            return std::unique_ptr<Resp>(typed);
        }
        throw std::runtime_error("Incorrect response message type, id: " + id);
    });
}

// A subscription key ending in "/*" or "/**", which deeper channels match too.
inline bool isWildcardKey(const std::string& key) {
    return bayeux::ChannelName(key).isPattern();
}

// Casts a response to the expected type, naming both types when it is something else.
template <class Expected>
std::unique_ptr<Expected> castResponse(std::unique_ptr<Message>&& message) {
    if (auto* typed = dynamic_cast<Expected*>(message.get())) {
        message.release();
        return std::unique_ptr<Expected>(typed);
    }
    const std::string actual = message ? foundation::log::typeName(*message) : "null";
    throw std::runtime_error("Unable to cast response message type: " + actual + " to " +
                             foundation::log::demangle(typeid(Expected).name()));
}

}  // namespace connector::message_service
