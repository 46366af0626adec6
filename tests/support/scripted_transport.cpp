#include "scripted_transport.h"

#include "connector/core.h"

namespace orvale::test {

using connector::Future;
using connector::Message;

// The transport's outbound side: takes everything the client sends.
class ScriptedTransport::Recorder : public connector::reactive_streams::Subscriber<MessagePtr> {
  public:
    explicit Recorder(std::shared_ptr<ScriptedTransport> owner) : owner_(std::move(owner)) {}
    void onSubscribe(std::shared_ptr<connector::reactive_streams::Subscription> s) override {
        s->request(UINT64_MAX);
        subscription_ = s;
    }
    void onComplete() override {}
    Future<bool> done() override { return connector::makeReadyFuture<bool>(true); }
    void onNext(MessagePtr&& message) override {
        {
            std::lock_guard<std::mutex> lock(owner_->mutex_);
            owner_->sent_.push_back(std::move(message));
        }
        owner_->changed_.notify_all();
    }
    void onError(std::exception_ptr) override {}

  private:
    std::shared_ptr<ScriptedTransport> owner_;
    std::shared_ptr<connector::reactive_streams::Subscription> subscription_;
};

void ScriptedTransport::install(connector::Context& context, std::string fail) {
    std::weak_ptr<ScriptedTransport> weak = shared_from_this();
    context.registerService(
        connector::Address("connector/bayeux/webSocket/client", "connector/http/client"),
        [weak, fail](connector::Context&, MessagePtr) -> Future<MessagePtr> {
            auto self = weak.lock();
            if (!self || !fail.empty())
                return connector::makeFailedFuture<MessagePtr>(std::runtime_error(fail));
            auto inbound =
                std::make_shared<connector::reactive_streams::CachedValuePublisher<MessagePtr>>(
                    [] {}, -1);
            {
                std::lock_guard<std::mutex> lock(self->mutex_);
                self->inbound_ = inbound;
                ++self->connects_;
            }
            MessagePtr response = std::make_unique<connector::bayeux::ConnectTransportResponse>(
                inbound, std::make_shared<Recorder>(self));
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
    std::shared_ptr<connector::reactive_streams::CachedValuePublisher<MessagePtr>> inbound;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        inbound = inbound_;
    }
    if (inbound)
        inbound->next(std::move(message));
}

void ScriptedTransport::close() {
    std::shared_ptr<connector::reactive_streams::CachedValuePublisher<MessagePtr>> inbound;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        inbound = std::move(inbound_);
    }
    if (inbound)
        inbound->complete();
}

}  // namespace orvale::test
