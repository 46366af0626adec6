// The inbound stream of a connection: demand, queueing, completion after the queue, cancel,
// and delivery on the executor's thread only.

#include "transport/inbound_publisher.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <future>
#include <thread>

#include "log_capture.h"

namespace connector::bayeux::transport {
namespace {

using orvale::test::waitUntil;

// One worker thread running posted tasks in order, like the transport's I/O thread.
class Worker {
  public:
    Worker() : thread_([this] { run(); }) {}
    ~Worker() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    InboundPublisher::Executor executor() {
        return [this](std::function<void()> task) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                tasks_.push_back(std::move(task));
            }
            wake_.notify_all();
        };
    }
    std::thread::id id() const { return thread_.get_id(); }
    InboundPublisher::OnExecutorThread onThread() const {
        return [id = id()] { return std::this_thread::get_id() == id; };
    }
    // Runs `task` on the worker and waits (bounded) for it; false when it did not finish.
    bool run(std::function<void()> task) {
        auto finished = std::make_shared<std::promise<void>>();
        auto done = finished->get_future();
        executor()([task = std::move(task), finished] {
            task();
            finished->set_value();
        });
        return done.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    }

  private:
    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
            if (tasks_.empty())
                return;
            auto task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            task();
            lock.lock();
        }
    }

    std::mutex mutex_;  // guards tasks_ and stopping_
    std::condition_variable wake_;
    std::deque<std::function<void()>> tasks_;
    bool stopping_ = false;
    std::thread thread_;
};

// Records every signal; checks they all come from the worker thread.
class Recorder : public reactive_streams::Subscriber<MessagePtr> {
  public:
    explicit Recorder(std::thread::id deliveryThread) : deliveryThread_(deliveryThread) {}

    void onSubscribe(std::shared_ptr<reactive_streams::Subscription> subscription) override {
        check();
        std::lock_guard<std::mutex> lock(mutex_);
        subscription_ = std::move(subscription);
    }
    void onNext(MessagePtr&& message) override {
        check();
        auto* publish = dynamic_cast<PublishRequest*>(message.get());
        std::lock_guard<std::mutex> lock(mutex_);
        channels_.push_back(publish ? publish->getChannel() : "?");
    }
    void onComplete() override {
        check();
        std::lock_guard<std::mutex> lock(mutex_);
        ++completions_;
    }
    void onError(std::exception_ptr) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++errors_;
    }
    Future<bool> done() override { return makeReadyFuture<bool>(true); }

    std::shared_ptr<reactive_streams::Subscription> subscription() {
        std::lock_guard<std::mutex> lock(mutex_);
        return subscription_;
    }
    std::vector<std::string> channels() {
        std::lock_guard<std::mutex> lock(mutex_);
        return channels_;
    }
    int completions() {
        std::lock_guard<std::mutex> lock(mutex_);
        return completions_;
    }
    int errors() {
        std::lock_guard<std::mutex> lock(mutex_);
        return errors_;
    }
    bool wrongThread() const { return wrongThread_.load(); }

  private:
    void check() {
        if (std::this_thread::get_id() != deliveryThread_)
            wrongThread_ = true;
    }
    const std::thread::id deliveryThread_;
    std::atomic<bool> wrongThread_{false};
    std::mutex mutex_;  // guards the members below
    std::shared_ptr<reactive_streams::Subscription> subscription_;
    std::vector<std::string> channels_;
    int completions_ = 0;
    int errors_ = 0;
};

MessagePtr publish(const std::string& channel) {
    return std::make_unique<PublishRequest>(channel, std::string("1"));
}

TEST(InboundPublisher, DeliversOnlyWhatWasRequestedInOrder) {
    Worker worker;
    auto publisher = std::make_shared<InboundPublisher>(worker.executor(), nullptr);
    publisher->push(publish("/a"));
    publisher->push(publish("/b"));
    publisher->push(publish("/c"));

    auto recorder = std::make_shared<Recorder>(worker.id());
    publisher->subscribe(recorder);
    ASSERT_TRUE(waitUntil([&] { return recorder->subscription() != nullptr; }));
    EXPECT_TRUE(recorder->channels().empty());  // nothing without demand

    recorder->subscription()->request(2);
    ASSERT_TRUE(waitUntil([&] { return recorder->channels().size() == 2; }));
    publisher->push(publish("/d"));
    // A round trip through the worker shows that no third message slipped out.
    ASSERT_TRUE(worker.run([] {}));
    EXPECT_EQ(recorder->channels(), (std::vector<std::string>{"/a", "/b"}));

    recorder->subscription()->request(UINT64_MAX);
    recorder->subscription()->request(UINT64_MAX);  // saturates rather than wrapping to little
    ASSERT_TRUE(waitUntil([&] { return recorder->channels().size() == 4; }));
    publisher->push(publish("/e"));
    ASSERT_TRUE(waitUntil([&] { return recorder->channels().size() == 5; }));
    EXPECT_EQ(recorder->channels(), (std::vector<std::string>{"/a", "/b", "/c", "/d", "/e"}));
    EXPECT_FALSE(recorder->wrongThread());
}

TEST(InboundPublisher, CompletesAfterTheQueuedMessagesAndResolvesDone) {
    Worker worker;
    auto publisher = std::make_shared<InboundPublisher>(worker.executor(), nullptr);
    auto done = publisher->done();
    auto recorder = std::make_shared<Recorder>(worker.id());
    publisher->subscribe(recorder);
    ASSERT_TRUE(waitUntil([&] { return recorder->subscription() != nullptr; }));
    publisher->push(publish("/last"));
    publisher->complete(false);
    publisher->push(publish("/after"));  // ignored: the stream has ended

    ASSERT_TRUE(worker.run([] {}));
    EXPECT_EQ(recorder->completions(), 0);  // the reply queued before the close comes first
    EXPECT_FALSE(done.isReady());

    recorder->subscription()->request(5);
    ASSERT_TRUE(waitUntil([&] { return recorder->completions() == 1; }));
    EXPECT_EQ(recorder->channels(), std::vector<std::string>{"/last"});
    ASSERT_TRUE(done.waitFor(std::chrono::seconds(5)));
    EXPECT_FALSE(done.get());  // completed after an unclean close
    EXPECT_TRUE(publisher->done().get() == false);
    EXPECT_FALSE(recorder->wrongThread());
}

TEST(InboundPublisher, CancelStopsDeliveryAndCallsBack) {
    Worker worker;
    std::atomic<int> cancels{0};
    auto publisher = std::make_shared<InboundPublisher>(worker.executor(), [&] { ++cancels; });
    auto recorder = std::make_shared<Recorder>(worker.id());
    publisher->subscribe(recorder);
    ASSERT_TRUE(waitUntil([&] { return recorder->subscription() != nullptr; }));
    recorder->subscription()->cancel();
    recorder->subscription()->cancel();
    EXPECT_EQ(cancels.load(), 1);
    EXPECT_TRUE(publisher->done().get());

    publisher->push(publish("/dropped"));
    recorder->subscription()->request(10);
    publisher->complete(true);
    ASSERT_TRUE(worker.run([] {}));
    EXPECT_TRUE(recorder->channels().empty());
    EXPECT_EQ(recorder->completions(), 0);
}

TEST(InboundPublisher, RefusesASecondSubscriber) {
    Worker worker;
    auto publisher = std::make_shared<InboundPublisher>(worker.executor(), nullptr);
    auto first = std::make_shared<Recorder>(worker.id());
    auto second = std::make_shared<Recorder>(std::this_thread::get_id());
    publisher->subscribe(first);
    publisher->subscribe(second);
    EXPECT_EQ(second->errors(), 1);
    EXPECT_NE(second->subscription(), nullptr);
    EXPECT_THROW(publisher->subscribe(nullptr), std::invalid_argument);

    ASSERT_TRUE(waitUntil([&] { return first->subscription() != nullptr; }));
    first->subscription()->request(1);
    publisher->push(publish("/x"));
    ASSERT_TRUE(waitUntil([&] { return first->channels().size() == 1; }));
    EXPECT_TRUE(second->channels().empty());
}

// A subscriber that throws from onNext is cancelled, with an error line, and the thread lives on.
TEST(InboundPublisher, SubscriberThatThrowsIsCancelled) {
    orvale::test::LogCapture logs;
    Worker worker;
    std::atomic<int> cancels{0};
    auto publisher = std::make_shared<InboundPublisher>(worker.executor(), [&] { ++cancels; });

    class Throwing : public Recorder {
      public:
        using Recorder::Recorder;
        void onNext(MessagePtr&&) override { throw std::runtime_error("boom"); }
    };
    auto recorder = std::make_shared<Throwing>(worker.id());
    publisher->subscribe(recorder);
    ASSERT_TRUE(waitUntil([&] { return recorder->subscription() != nullptr; }));
    recorder->subscription()->request(10);
    publisher->push(publish("/a"));
    publisher->push(publish("/b"));
    ASSERT_TRUE(waitUntil([&] { return cancels.load() == 1; }));
    EXPECT_EQ(logs.count("Inbound subscriber threw: boom"), 1u);
}

// Pushes made on the delivering thread deliver before push() returns, and signals sent back from
// inside a delivery never nest one delivery in another.
TEST(InboundPublisher, PushOnTheDeliveringThreadDeliversAtOnce) {
    Worker worker;
    std::atomic<int> cancels{0};
    auto publisher = std::make_shared<InboundPublisher>(
        worker.executor(), [&] { ++cancels; }, worker.onThread());

    // Asks for one message at a time from onNext, pushes one more from inside the first, and
    // cancels at "/stop"; records the deepest nesting of its signals.
    class Reentrant : public Recorder {
      public:
        Reentrant(std::thread::id thread, InboundPublisher& publisher)
            : Recorder(thread), publisher_(publisher) {}
        void onNext(MessagePtr&& message) override {
            const int depth = ++depth_;
            deepest_ = std::max(deepest_.load(), depth);
            const std::string channel = static_cast<PublishRequest&>(*message).getChannel();
            Recorder::onNext(std::move(message));
            if (channel == "/a")
                publisher_.push(publish("/a2"));
            if (channel == "/stop")
                subscription()->cancel();
            else
                subscription()->request(1);
            --depth_;
        }
        int deepest() const { return deepest_.load(); }

      private:
        InboundPublisher& publisher_;
        std::atomic<int> depth_{0};
        std::atomic<int> deepest_{0};
    };
    auto recorder = std::make_shared<Reentrant>(worker.id(), *publisher);
    publisher->subscribe(recorder);
    ASSERT_TRUE(waitUntil([&] { return recorder->subscription() != nullptr; }));
    recorder->subscription()->request(1);

    std::vector<std::size_t> seenAfterPush;
    ASSERT_TRUE(worker.run([&] {
        publisher->push(publish("/a"));
        seenAfterPush.push_back(recorder->channels().size());
        publisher->push(publish("/b"));
        seenAfterPush.push_back(recorder->channels().size());
    }));
    EXPECT_EQ(seenAfterPush, (std::vector<std::size_t>{2, 3}));
    EXPECT_EQ(recorder->channels(), (std::vector<std::string>{"/a", "/a2", "/b"}));
    EXPECT_EQ(recorder->deepest(), 1);

    // A cancel from inside onNext drops what is pushed after it.
    ASSERT_TRUE(worker.run([&] {
        publisher->push(publish("/stop"));
        publisher->push(publish("/dropped"));
    }));
    EXPECT_EQ(recorder->channels().size(), 4u);
    EXPECT_EQ(cancels.load(), 1);
    EXPECT_TRUE(publisher->done().get());
    ASSERT_TRUE(worker.run([&] { publisher->push(publish("/late")); }));
    EXPECT_EQ(recorder->channels().back(), "/stop");
    EXPECT_FALSE(recorder->wrongThread());
}

TEST(InboundPublisher, PushOnTheDeliveringThreadWaitsForDemandAndKeepsCompletionLast) {
    Worker worker;
    auto publisher =
        std::make_shared<InboundPublisher>(worker.executor(), nullptr, worker.onThread());
    auto recorder = std::make_shared<Recorder>(worker.id());
    publisher->subscribe(recorder);
    ASSERT_TRUE(waitUntil([&] { return recorder->subscription() != nullptr; }));

    ASSERT_TRUE(worker.run([&] {
        publisher->push(publish("/a"));
        publisher->push(publish("/b"));
        publisher->complete(true);
    }));
    EXPECT_TRUE(recorder->channels().empty());  // nothing without demand
    recorder->subscription()->request(1);
    ASSERT_TRUE(waitUntil([&] { return recorder->channels().size() == 1; }));
    EXPECT_EQ(recorder->completions(), 0);
    recorder->subscription()->request(1);
    ASSERT_TRUE(waitUntil([&] { return recorder->completions() == 1; }));
    EXPECT_EQ(recorder->channels(), (std::vector<std::string>{"/a", "/b"}));
    EXPECT_TRUE(publisher->done().get());
    EXPECT_FALSE(recorder->wrongThread());
}

}  // namespace
}  // namespace connector::bayeux::transport
