#include "scripted_transport.h"

#include "connector/core.h"

namespace orvale::test {

using connector::Future;

void ScriptedTransport::install(connector::Context& context, std::string fail) {
    std::weak_ptr<ScriptedTransport> weak = shared_from_this();
    context.registerService(
        connector::Address("connector/bayeux/webSocket/client", "connector/http/client"),
        [weak, fail](connector::Context&, MessagePtr) -> Future<MessagePtr> {
            auto self = weak.lock();
            if (!self || !fail.empty())
                return connector::makeFailedFuture<MessagePtr>(std::runtime_error(fail));
            auto inbound = std::make_shared<Inbound>([] {}, -1);
            {
                std::lock_guard<std::mutex> lock(self->mutex_);
                self->inbound_ = inbound;
                ++self->connects_;
            }
            // The outbound side takes everything the client sends.
            auto outbound =
                std::make_shared<connector::reactive_streams::CallbackSubscriber<MessagePtr>>(
                    [self](MessagePtr m) {
                        {
                            std::lock_guard<std::mutex> lock(self->mutex_);
                            self->sent_.push_back(std::move(m));
                        }
                        self->changed_.notify_all();
                    });
            MessagePtr response = std::make_unique<connector::bayeux::ConnectTransportResponse>(
                inbound, std::move(outbound));
            return connector::makeReadyFuture<MessagePtr>(std::move(response));
        });
}

bool ScriptedTransport::waitSent(std::size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return sent_.size() >= count; });
}

std::size_t ScriptedTransport::sentCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_.size();
}

void ScriptedTransport::reply(MessagePtr message) {
    if (auto stream = inbound(false))
        stream->next(std::move(message));
}

void ScriptedTransport::close() {
    if (auto stream = inbound(true))
        stream->complete();
}

std::shared_ptr<ScriptedTransport::Inbound> ScriptedTransport::inbound(bool release) {
    std::lock_guard<std::mutex> lock(mutex_);
    return release ? std::move(inbound_) : inbound_;
}

}  // namespace orvale::test
