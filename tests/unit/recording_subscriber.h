#pragma once
// Records every signal of a connection's inbound stream, from any thread; when given a thread, it
// notes any signal that comes on another one.

#include <atomic>
#include <mutex>
#include <thread>

#include "bayeux/codec.h"
#include "connector/reactive_streams/reactive_streams.h"

namespace connector::bayeux {

class RecordingSubscriber : public reactive_streams::Subscriber<MessagePtr> {
  public:
    // Asks for `demand` messages on subscription, none when 0.
    explicit RecordingSubscriber(std::uint64_t demand = 0, std::thread::id expected = {})
        : demand_(demand), expected_(expected) {}

    void onSubscribe(std::shared_ptr<reactive_streams::Subscription> subscription) override {
        check();
        if (demand_)
            subscription->request(demand_);
        std::lock_guard<std::mutex> lock(mutex_);
        subscription_ = std::move(subscription);
    }
    // Records each element as its encoded frame, "container" before a container's.
    void onNext(MessagePtr&& element) override {
        check();
        std::string text;
        if (auto* container = dynamic_cast<BayeuxContainer*>(element.get())) {
            std::vector<const BayeuxMessage*> inner;
            for (const auto& m : container->messages())
                inner.push_back(dynamic_cast<const BayeuxMessage*>(m.get()));
            text = "container" + codec::encode(inner);
        } else {
            text = codec::encode(dynamic_cast<const BayeuxMessage&>(*element));
        }
        std::lock_guard<std::mutex> lock(mutex_);
        received_.push_back(std::move(text));
    }
    void onComplete() override {
        check();
        ++completions;
    }
    void onError(std::exception_ptr) override { ++errors; }
    Future<bool> done() override { return makeReadyFuture<bool>(true); }

    std::shared_ptr<reactive_streams::Subscription> subscription() {
        std::lock_guard<std::mutex> lock(mutex_);
        return subscription_;
    }
    std::vector<std::string> received() {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }
    std::size_t count() { return received().size(); }
    void cancel() { subscription()->cancel(); }

    std::atomic<int> completions{0}, errors{0};
    std::atomic<bool> wrongThread{false};

  private:
    void check() {
        if (expected_ != std::thread::id() && std::this_thread::get_id() != expected_)
            wrongThread = true;
    }
    const std::uint64_t demand_;
    const std::thread::id expected_;
    std::mutex mutex_;  // guards subscription_ and received_
    std::shared_ptr<reactive_streams::Subscription> subscription_;
    std::vector<std::string> received_;
};

}  // namespace connector::bayeux
