// The inbound stream of a connection: demand, queueing, completion after the queue, cancel,
// and delivery on the executor's thread only.

#include "transport/inbound_publisher.h"

#include <gtest/gtest.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <future>

#include "log_capture.h"
#include "recording_subscriber.h"

namespace connector::bayeux::transport {
namespace {

using orvale::test::waitUntil;
using Strings = std::vector<std::string>;

// A thread running posted tasks, like the transport's I/O thread, and a publisher delivering on it.
struct Worker {
    explicit Worker(std::function<void()> onCancel = nullptr, bool inline_ = false)
        : publisher(std::make_shared<InboundPublisher>(
              [this](std::function<void()> task) { boost::asio::post(io, std::move(task)); },
              std::move(onCancel),
              inline_ ? InboundPublisher::OnExecutorThread(
                            [this] { return std::this_thread::get_id() == thread.get_id(); })
                      : nullptr)) {}
    ~Worker() {
        work.reset();
        thread.join();
    }
    // Runs `task` on the worker and waits (bounded) for it; false when it did not finish.
    bool run(std::function<void()> task = [] {}) {
        std::promise<void> finished;
        boost::asio::post(io, [&] {
            task();
            finished.set_value();
        });
        return finished.get_future().wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    }
    // Subscribes a recorder of `Subscriber` type and waits for its onSubscribe.
    template <class Subscriber = RecordingSubscriber, class... Args>
    std::shared_ptr<Subscriber> subscribe(Args&&... args) {
        auto s = std::make_shared<Subscriber>(std::forward<Args>(args)..., 0, thread.get_id());
        publisher->subscribe(s);
        EXPECT_TRUE(waitUntil([&] { return s->subscription() != nullptr; }));
        return s;
    }
    template <class... Channels>
    void push(const Channels&... channels) {
        (publisher->push(std::make_unique<PublishRequest>(channels, std::string("1"))), ...);
    }

    boost::asio::io_context io;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{
        io.get_executor()};
    std::thread thread{[this] { io.run(); }};
    std::shared_ptr<InboundPublisher> publisher;
};

// The frames of publishes on `channels`, as a recorder keeps them.
Strings frames(std::initializer_list<const char*> channels) {
    Strings out;
    for (const char* channel : channels)
        out.push_back(std::string(R"([{"channel":")") + channel + R"(","data":1}])");
    return out;
}

// Completion follows the queued messages, with or without inline pushes, and ends done().
TEST(InboundPublisher, CompletesAfterTheQueueDeliversWhatWasRequestedAndPushesOnItsThreadAtOnce) {
    for (const bool inline_ : {false, true}) {
        Worker worker(nullptr, inline_);
        auto done = worker.publisher->done();
        auto recorder = worker.subscribe();
        ASSERT_TRUE(worker.run([&] {
            worker.push("/a", "/b");
            worker.publisher->complete(inline_);
            worker.push("/after");  // ignored: the stream has ended
        }));
        EXPECT_EQ(recorder->count(), 0u);  // nothing without demand
        recorder->subscription()->request(1);
        ASSERT_TRUE(waitUntil([&] { return recorder->count() == 1; }));
        ASSERT_TRUE(worker.run());
        EXPECT_EQ(recorder->completions.load(), 0) << "the reply queued before the close first";
        EXPECT_FALSE(done.isReady());
        recorder->subscription()->request(5);
        ASSERT_TRUE(waitUntil([&] { return recorder->completions == 1; }));
        EXPECT_EQ(recorder->received(), frames({"/a", "/b"}));
        ASSERT_TRUE(done.waitFor(std::chrono::seconds(5)));
        EXPECT_EQ(done.get(), inline_) << "completed after a clean close or not";
        EXPECT_FALSE(recorder->wrongThread.load());
    }

    // Pushes made on the delivering thread deliver before push() returns, and signals sent back
    // from inside a delivery never nest one delivery in another.
    std::atomic<int> cancels{0};
    Worker worker([&] { ++cancels; }, true);
    // Asks for one message at a time from onNext, pushes one more from inside the first, and
    // cancels at "/stop"; records the deepest nesting of its signals.
    struct Reentrant : RecordingSubscriber {
        Reentrant(Worker& worker, std::uint64_t demand, std::thread::id thread)
            : RecordingSubscriber(demand, thread), worker(worker) {}
        void onNext(MessagePtr&& message) override {
            const int depth = ++depth_;
            deepest = std::max(deepest.load(), depth);
            const std::string channel = static_cast<BayeuxMessage&>(*message).bayeuxChannel();
            RecordingSubscriber::onNext(std::move(message));
            if (channel == "/a")
                worker.push("/a2");
            if (channel == "/stop")
                subscription()->cancel();
            else
                subscription()->request(1);
            --depth_;
        }
        Worker& worker;
        std::atomic<int> depth_{0}, deepest{0};
    };
    auto recorder = worker.subscribe<Reentrant>(worker);
    recorder->subscription()->request(1);
    std::vector<std::size_t> seenAfterPush;
    ASSERT_TRUE(worker.run([&] {
        worker.push("/a");
        seenAfterPush.push_back(recorder->count());
        worker.push("/b");
        seenAfterPush.push_back(recorder->count());
    }));
    EXPECT_EQ(seenAfterPush, (std::vector<std::size_t>{2, 3}));
    EXPECT_EQ(recorder->received(), frames({"/a", "/a2", "/b"}));
    EXPECT_EQ(recorder->deepest.load(), 1);

    // A cancel from inside onNext drops what is pushed after it.
    ASSERT_TRUE(worker.run([&] { worker.push("/stop", "/dropped"); }));
    ASSERT_TRUE(worker.run([&] { worker.push("/late"); }));
    EXPECT_EQ(recorder->received(), frames({"/a", "/a2", "/b", "/stop"}));
    EXPECT_EQ(cancels.load(), 1);
    EXPECT_TRUE(worker.publisher->done().get());
    EXPECT_FALSE(recorder->wrongThread.load());

    // Only what was requested is delivered, in order, until a cancel (one callback); a second
    // subscriber is refused; one throwing from onNext is cancelled and logged, the thread lives on.
    orvale::test::LogCapture logs;
    {
        Worker worker([&] { ++cancels; });
        worker.push("/a", "/b", "/c");
        auto recorder = worker.subscribe();
        auto second = std::make_shared<RecordingSubscriber>();
        worker.publisher->subscribe(second);
        EXPECT_EQ(second->errors.load(), 1);
        EXPECT_NE(second->subscription(), nullptr);
        EXPECT_THROW(worker.publisher->subscribe(nullptr), std::invalid_argument);
        recorder->subscription()->request(2);  // the first is served as before
        ASSERT_TRUE(waitUntil([&] { return recorder->count() == 2; }));
        worker.push("/d");
        ASSERT_TRUE(worker.run());  // a round trip shows that no third message slipped out
        EXPECT_EQ(recorder->received(), frames({"/a", "/b"}));
        // Asked for on the worker, both add up before a delivery: they saturate, not wrap to 0.
        ASSERT_TRUE(worker.run([&] {
            recorder->subscription()->request(1);
            recorder->subscription()->request(UINT64_MAX);
        }));
        ASSERT_TRUE(waitUntil([&] { return recorder->count() == 4; }));
        // Pushed while the thread is busy: the second finds the first's delivery already posted.
        ASSERT_TRUE(worker.run([&] { worker.push("/e", "/f"); }));
        ASSERT_TRUE(waitUntil([&] { return recorder->count() == 6; }));
        EXPECT_EQ(recorder->received(), frames({"/a", "/b", "/c", "/d", "/e", "/f"}));
        EXPECT_FALSE(recorder->wrongThread.load());
        recorder->cancel();
        recorder->cancel();
        EXPECT_EQ(cancels.load(), 2);
        EXPECT_TRUE(worker.publisher->done().get());
        worker.push("/dropped");
        recorder->subscription()->request(10);
        worker.publisher->complete(true);
        ASSERT_TRUE(worker.run());
        EXPECT_EQ(recorder->count() + second->count(), 6u);
        EXPECT_EQ(recorder->completions.load(), 0);
    }
    struct Throwing : RecordingSubscriber {
        using RecordingSubscriber::RecordingSubscriber;
        void onNext(MessagePtr&&) override { throw std::runtime_error("boom"); }
    };
    Worker throwing([&] { ++cancels; });
    throwing.subscribe<Throwing>()->subscription()->request(10);
    throwing.push("/a", "/b");
    ASSERT_TRUE(waitUntil([&] { return cancels.load() == 3; }));
    EXPECT_EQ(logs.count("Inbound subscriber threw: boom"), 1u);
}

}  // namespace
}  // namespace connector::bayeux::transport
