#include "in_process_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "connector/bayeux/server.h"
#include "deferred_wakes.h"
#include "log_capture.h"
#include "queueing_session.h"

namespace {

using connector::bayeux::BayeuxServer;
using connector::bayeux::BayeuxServerOptions;
using connector::bayeux::BayeuxSession;
using connector::bayeux::InProcessBayeuxServer;
using connector::bayeux::PublishRequest;
using connector::bayeux::SubscribeRequest;
using connector::bayeux::UnsubscribeRequest;
using orvale::test::waitUntil;

struct Received {
    std::set<std::string> channels;  // the patterns the server listed
    std::size_t listed = 0;          // how many it listed, duplicates included
    std::string channel;             // the channel published on
    std::string json;
    std::string publisher;
    std::thread::id thread;
};

// A session that records what the server hands it; hooks run inside deliver.
class TestSession : public BayeuxSession {
  public:
    explicit TestSession(std::string id) : id_(std::move(id)) {}

    std::shared_ptr<connector::common::ContextState> getContext() override { return state_; }
    std::string getId() override { return id_; }

    void deliver(const std::shared_ptr<const UnsubscribeRequest>& request) override {
        std::lock_guard<std::mutex> lock(mutex_);
        announcements_.push_back("-" + request->getClientId() + " " + request->getChannel());
    }

    void deliver(const std::shared_ptr<const SubscribeRequest>& request) override {
        std::lock_guard<std::mutex> lock(mutex_);
        announcements_.push_back("+" + request->getClientId() + " " + request->getChannel());
    }

    void deliver(const std::vector<std::string>& channels,
                 const std::shared_ptr<const PublishRequest>& request) override {
        Received r{std::set<std::string>(channels.begin(), channels.end()),
                   channels.size(),
                   request->getChannel(),
                   request->getJson(),
                   request->getClientId(),
                   std::this_thread::get_id()};
        if (onPublish)
            onPublish(*request);
        std::lock_guard<std::mutex> lock(mutex_);
        received_.push_back(std::move(r));
    }

    std::size_t receivedCount() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_.size();
    }
    std::vector<Received> received() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }
    // Channels published on, in delivery order, leaving out `except`.
    std::vector<std::string> channelsReceived(const std::string& except = "/sentinel") const {
        std::vector<std::string> out;
        for (auto& r : received())
            if (r.channel != except)
                out.push_back(r.channel);
        return out;
    }
    std::size_t count(const std::string& channel) const {
        auto all = received();
        return std::count_if(all.begin(), all.end(),
                             [&](const Received& r) { return r.channel == channel; });
    }
    std::vector<std::string> announcements() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return announcements_;
    }

    // Set before the session is registered; runs on the delivery thread.
    std::function<void(const PublishRequest&)> onPublish;

  private:
    const std::string id_;
    std::shared_ptr<connector::common::ContextState> state_ =
        std::make_shared<connector::common::ContextState>();
    mutable std::mutex mutex_;  // guards received_ and announcements_
    std::vector<Received> received_;
    std::vector<std::string> announcements_;
};

// A session that takes publishes through queuePublish; subscription changes and anything the
// server delivers the usual way are recorded by TestSession.
class QueueingTestSession : public TestSession, public connector::bayeux::QueueingSession {
  public:
    using TestSession::TestSession;

    struct Queued {
        std::string json;
        std::thread::id thread;
    };

    void queuePublish(const std::shared_ptr<const PublishRequest>& request) override {
        std::lock_guard<std::mutex> lock(mutex_);
        queued_.push_back({request->getJson(), std::this_thread::get_id()});
    }

    std::vector<Queued> queued() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return queued_;
    }

  private:
    mutable std::mutex mutex_;  // guards queued_
    std::vector<Queued> queued_;
};

std::shared_ptr<PublishRequest> message(const std::string& channel, const std::string& json,
                                        const std::string& publisher = "publisher") {
    auto request = std::make_shared<PublishRequest>(channel, connector::common::DataBuffer(json));
    request->setClientId(publisher);
    return request;
}

void subscribe(BayeuxServer& server, const std::string& clientId, const std::string& pattern) {
    server.acceptSubscribe(std::make_shared<SubscribeRequest>(pattern, clientId));
}

void unsubscribe(BayeuxServer& server, const std::string& clientId, const std::string& pattern) {
    server.acceptUnsubscribe(std::make_shared<UnsubscribeRequest>(pattern, clientId));
}

std::shared_ptr<TestSession> join(BayeuxServer& server, const std::string& id) {
    auto session = std::make_shared<TestSession>(id);
    server.registerSession(session);
    return session;
}

// Each session publishes in order through one thread, so once the sentinel arrives everything
// published before it on that session's behalf has arrived too.
void flush(BayeuxServer& server, const std::vector<std::shared_ptr<TestSession>>& sessions) {
    for (auto& s : sessions)
        subscribe(server, s->getId(), "/sentinel");
    std::vector<std::size_t> counts;
    for (auto& s : sessions)
        counts.push_back(s->count("/sentinel"));
    server.acceptPublish(message("/sentinel", "{}"));
    for (std::size_t i = 0; i < sessions.size(); ++i) {
        ASSERT_TRUE(waitUntil([&] { return sessions[i]->count("/sentinel") > counts[i]; }))
            << sessions[i]->getId() << " never saw the sentinel";
    }
}

TEST(BayeuxServerTest, MatchesExactAndWildcardSubscriptions) {
    auto server = connector::bayeux::makeBayeuxServer({2});
    std::map<std::string, std::shared_ptr<TestSession>> byPattern;
    std::vector<std::shared_ptr<TestSession>> all;
    for (const char* pattern : {"/a/b", "/a/*", "/a/**", "/*", "/**"}) {
        auto session = join(*server, std::string("s") + pattern);
        subscribe(*server, session->getId(), pattern);
        byPattern[pattern] = session;
        all.push_back(session);
    }
    for (const char* channel : {"/a", "/a/b", "/a/b/c", "/x", "/b/a"}) {
        server->acceptPublish(message(channel, "1"));
    }
    flush(*server, all);

    using List = std::vector<std::string>;
    EXPECT_EQ(byPattern["/a/b"]->channelsReceived(), (List{"/a/b"}));
    EXPECT_EQ(byPattern["/a/*"]->channelsReceived(), (List{"/a/b"}));
    EXPECT_EQ(byPattern["/a/**"]->channelsReceived(), (List{"/a/b", "/a/b/c"}));
    EXPECT_EQ(byPattern["/*"]->channelsReceived(), (List{"/a", "/x"}));
    EXPECT_EQ(byPattern["/**"]->channelsReceived(), (List{"/a", "/a/b", "/a/b/c", "/x", "/b/a"}));
    for (auto& [pattern, session] : byPattern) {
        for (auto& r : session->received()) {
            if (r.channel == "/sentinel")
                continue;
            EXPECT_EQ(r.channels, std::set<std::string>{pattern});
        }
    }
}

// Publishes accepted inside a DeferredWakes reach a sleeping delivery thread when the outermost
// scope ends, all of them and in order; outside any scope they go at once.
TEST(BayeuxServerTest, DeferredWakesHoldDeliveriesUntilTheOutermostScopeEnds) {
    auto server = connector::bayeux::makeBayeuxServer({1});
    auto session = join(*server, "s");
    subscribe(*server, "s", "/d");
    flush(*server, {session});  // the delivery thread is asleep again after this
    const std::size_t before = session->receivedCount();
    {
        const connector::bayeux::DeferredWakes outer;
        {
            const connector::bayeux::DeferredWakes inner;
            for (int i = 0; i < 3; ++i)
                server->acceptPublish(message("/d", std::to_string(i)));
        }
        // A woken thread would deliver within microseconds; this leaves it ample time.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(session->receivedCount(), before);
    }
    ASSERT_TRUE(waitUntil([&] { return session->count("/d") == 3; }));
    std::vector<std::string> order;
    for (auto& r : session->received())
        if (r.channel == "/d")
            order.push_back(r.json);
    EXPECT_EQ(order, (std::vector<std::string>{"0", "1", "2"}));

    server->acceptPublish(message("/d", "3"));
    ASSERT_TRUE(waitUntil([&] { return session->count("/d") == 4; }));
}

TEST(BayeuxServerTest, OneDeliveryPerSessionListingEachMatchingPatternOnce) {
    auto server = connector::bayeux::makeBayeuxServer({2});
    auto many = join(*server, "many");
    auto one = join(*server, "one");
    for (const char* pattern : {"/a/b", "/a/b", "/a/*", "/a/**", "/**", "/a/b/c", "/b/**"}) {
        subscribe(*server, "many", pattern);
    }
    subscribe(*server, "one", "/a/b");
    server->acceptPublish(message("/a/b", "{\"n\":1}"));
    flush(*server, {many, one});

    auto got = many->received();
    ASSERT_EQ(got.size(), 2u) << "one for /a/b, one for the sentinel";
    EXPECT_EQ(got[0].channels, (std::set<std::string>{"/a/b", "/a/*", "/a/**", "/**"}));
    EXPECT_EQ(got[0].listed, 4u);
    EXPECT_EQ(got[0].json, "{\"n\":1}");
    auto single = one->received();
    ASSERT_EQ(single.size(), 2u);
    EXPECT_EQ(single[0].channels, std::set<std::string>{"/a/b"});
}

TEST(BayeuxServerTest, SubscriptionChangesAreAnnouncedToEverySession) {
    auto server = connector::bayeux::makeBayeuxServer({2});
    auto a = join(*server, "A");
    auto b = join(*server, "B");
    auto c = join(*server, "C");
    subscribe(*server, "A", "/a");
    subscribe(*server, "ghost", "/g");  // no such session: announced, not recorded
    unsubscribe(*server, "A", "/a");
    unsubscribe(*server, "B", "/never");
    const std::vector<std::string> expected{"+A /a", "+ghost /g", "-A /a", "-B /never"};
    for (auto& s : {a, b, c}) {
        ASSERT_TRUE(waitUntil([&] { return s->announcements().size() >= expected.size(); }));
        EXPECT_EQ(s->announcements(), expected) << s->getId();
    }

    // The ghost's subscription was not kept for a session registered later under that id.
    auto ghost = join(*server, "ghost");
    server->acceptPublish(message("/g", "1"));
    flush(*server, {ghost});
    EXPECT_EQ(ghost->count("/g"), 0u);
}

TEST(BayeuxServerTest, SessionsMayCallTheServerFromInsideDeliver) {
    auto server = std::make_shared<InProcessBayeuxServer>(BayeuxServerOptions{2});
    auto other = std::make_shared<TestSession>("other");
    auto s = std::make_shared<TestSession>("s");
    BayeuxServer* raw = server.get();
    s->onPublish = [raw, other](const PublishRequest& request) {
        if (request.getChannel() != "/first")
            return;
        // Each of these would deadlock if the server held one of its locks around deliver.
        raw->registerSession(other);
        subscribe(*raw, "s", "/second");
        raw->acceptPublish(message("/second", "from inside"));
        unsubscribe(*raw, "s", "/first");
        raw->unregisterSession(other);
    };
    server->registerSession(s);
    subscribe(*server, "s", "/first");
    server->acceptPublish(message("/first", "1"));
    ASSERT_TRUE(waitUntil([&] { return s->count("/second") == 1; }));
    server->acceptPublish(message("/first", "2"));
    flush(*server, {s});
    EXPECT_EQ(s->count("/first"), 1u) << "unsubscribed from inside its own delivery";
    EXPECT_EQ(server->sessionCount(), 1u) << "other was registered and unregistered";
    for (auto& r : s->received())
        EXPECT_NE(r.thread, std::this_thread::get_id());
}

TEST(BayeuxServerTest, KeepsPublicationOrderPerPublisherAndSubscriber) {
    constexpr int kPublishers = 4;
    constexpr int kMessages = 10000;
    auto server = connector::bayeux::makeBayeuxServer({3});
    std::vector<std::shared_ptr<TestSession>> subscribers;
    for (int i = 0; i < 4; ++i) {
        subscribers.push_back(join(*server, "sub" + std::to_string(i)));
        subscribe(*server, subscribers.back()->getId(), i % 2 ? "/load/**" : "/load/*");
    }
    std::vector<std::thread> publishers;
    for (int p = 0; p < kPublishers; ++p) {
        publishers.emplace_back([&server, p] {
            const std::string id = "p" + std::to_string(p);
            const std::string channel = "/load/" + id;
            for (int n = 0; n < kMessages; ++n) {
                server->acceptPublish(message(channel, std::to_string(n), id));
            }
        });
    }
    for (auto& t : publishers)
        t.join();
    for (auto& s : subscribers) {
        ASSERT_TRUE(waitUntil([&] { return s->receivedCount() == kPublishers * kMessages; }))
            << s->getId() << " got " << s->receivedCount();
        std::map<std::string, int> next;
        bool inOrder = true;
        for (auto& r : s->received()) {
            inOrder = inOrder && std::stoi(r.json) == next[r.publisher]++;
        }
        EXPECT_TRUE(inOrder) << s->getId();
    }
}

TEST(BayeuxServerTest, ExpiredSessionIsSkippedAndDropped) {
    orvale::test::LogCapture logs;
    auto server = std::make_shared<InProcessBayeuxServer>(BayeuxServerOptions{2});
    auto live = join(*server, "live");
    auto gone = join(*server, "gone");
    subscribe(*server, "live", "/e");
    subscribe(*server, "gone", "/e/deep/**");
    EXPECT_EQ(server->sessionCount(), 2u);
    const std::size_t nodes = server->channelNodeCount();
    gone.reset();
    server->acceptPublish(message("/e/deep/1", "1"));
    server->acceptPublish(message("/e", "2"));
    ASSERT_TRUE(waitUntil([&] { return server->sessionCount() == 1; }));
    EXPECT_LT(server->channelNodeCount(), nodes) << "its nodes went with it";
    EXPECT_TRUE(waitUntil([&] { return logs.contains("Dropped expired session gone"); }));
    flush(*server, {live});
    EXPECT_EQ(live->channelsReceived(), std::vector<std::string>{"/e"});
}

// A queueing session has each publish before acceptPublish returns, on the publishing thread,
// once however many of its patterns match; others are served by the delivery threads as usual.
TEST(BayeuxServerTest, QueueingSessionsArePassedPublishesOnThePublishingThread) {
    auto server = std::make_shared<InProcessBayeuxServer>(BayeuxServerOptions{2});
    auto queueing = std::make_shared<QueueingTestSession>("q");
    server->registerSession(queueing);
    auto plain = join(*server, "p");
    subscribe(*server, "q", "/q/*");
    subscribe(*server, "q", "/q/**");
    subscribe(*server, "p", "/q/a");
    constexpr int kEach = 200;
    auto publishFrom = [&](const std::string& tag) {
        for (int i = 0; i < kEach; ++i) {
            const std::string json = "\"" + tag + std::to_string(i) + "\"";
            server->acceptPublish(message("/q/a", json));
            bool found = false;
            for (const auto& q : queueing->queued())
                found = found || (q.json == json && q.thread == std::this_thread::get_id());
            EXPECT_TRUE(found) << json << " was not queued by its publishing thread";
        }
    };
    std::thread first(publishFrom, "a");
    std::thread second(publishFrom, "b");
    first.join();
    second.join();

    // Each thread's messages in its order, each once.
    std::map<std::string, std::vector<int>> byTag;
    for (const auto& q : queueing->queued())
        byTag[q.json.substr(1, 1)].push_back(std::stoi(q.json.substr(2)));
    for (const char* tag : {"a", "b"}) {
        std::vector<int> expected(kEach);
        for (int i = 0; i < kEach; ++i)
            expected[i] = i;
        EXPECT_EQ(byTag[tag], expected) << tag;
    }
    flush(*server, {plain});
    EXPECT_EQ(plain->count("/q/a"), 2u * kEach);
    for (const auto& r : plain->received())
        EXPECT_NE(r.thread, std::this_thread::get_id());
    EXPECT_TRUE(waitUntil([&] { return queueing->announcements().size() >= 4; }));
    EXPECT_EQ(queueing->count("/q/a"), 0u) << "publishes went through deliver as well";

    // An expired queueing session is dropped like any other.
    queueing.reset();
    server->acceptPublish(message("/q/b", "1"));
    EXPECT_TRUE(waitUntil([&] { return server->sessionCount() == 1; }));
}

TEST(BayeuxServerTest, UnregisterDropsSubscriptionsAndQueuedDeliveriesSilently) {
    auto server = std::make_shared<InProcessBayeuxServer>(BayeuxServerOptions{1});
    auto leaving = join(*server, "leaving");
    auto watcher = join(*server, "watcher");
    std::atomic<bool> open{false};
    subscribe(*server, "leaving", "/u");
    subscribe(*server, "leaving", "/v/**");
    ASSERT_TRUE(waitUntil([&] { return watcher->announcements().size() == 2; }));

    // Hold the only delivery thread so that messages for `leaving` wait in its queue.
    auto blocker = std::make_shared<TestSession>("blocker");
    blocker->onPublish = [&](const PublishRequest&) { waitUntil([&] { return open.load(); }); };
    server->registerSession(blocker);
    subscribe(*server, "blocker", "/block");
    server->acceptPublish(message("/block", "1"));
    for (int i = 0; i < 10; ++i)
        server->acceptPublish(message("/u", std::to_string(i)));
    server->unregisterSession(leaving);
    open = true;

    EXPECT_EQ(server->sessionCount(), 2u);
    EXPECT_EQ(server->channelNodeCount(), 2u) << "root and block";
    flush(*server, {watcher, blocker});
    EXPECT_EQ(leaving->count("/u"), 0u);
    for (auto& line : watcher->announcements())
        EXPECT_EQ(line[0], '+') << line;

    // Registering again starts without the old subscriptions.
    server->registerSession(leaving);
    server->acceptPublish(message("/u", "again"));
    flush(*server, {leaving});
    EXPECT_EQ(leaving->count("/u"), 0u);
}

TEST(BayeuxServerTest, RegistrationIsIdempotentAndAnIdCanBeTakenOver) {
    auto server = std::make_shared<InProcessBayeuxServer>(BayeuxServerOptions{2});
    auto first = join(*server, "same");
    subscribe(*server, "same", "/r");
    server->registerSession(first);  // again: keeps its subscription
    server->acceptPublish(message("/r", "1"));
    ASSERT_TRUE(waitUntil([&] { return first->count("/r") == 1; }));

    auto second = join(*server, "same");  // takes the id over, without the old subscriptions
    EXPECT_EQ(server->sessionCount(), 1u);
    server->acceptPublish(message("/r", "2"));
    subscribe(*server, "same", "/r");
    server->acceptPublish(message("/r", "3"));
    flush(*server, {second});
    EXPECT_EQ(first->count("/r"), 1u);
    ASSERT_EQ(second->count("/r"), 1u);
    EXPECT_EQ(second->received()[0].json, "3");
}

TEST(BayeuxServerTest, ThrowingSessionIsLoggedAndServedAgain) {
    orvale::test::LogCapture logs;
    auto server = connector::bayeux::makeBayeuxServer({1});
    auto s = std::make_shared<TestSession>("thrower");
    std::atomic<int> calls{0};
    s->onPublish = [&](const PublishRequest&) {
        if (calls++ == 0)
            throw std::runtime_error("listener failed");
    };
    server->registerSession(s);
    subscribe(*server, "thrower", "/t");
    server->acceptPublish(message("/t", "1"));
    server->acceptPublish(message("/t", "2"));
    ASSERT_TRUE(waitUntil([&] { return s->count("/t") == 1; }));
    EXPECT_EQ(s->received()[0].json, "2");
    EXPECT_TRUE(logs.contains("Session thrower threw from deliver: listener failed"));
}

TEST(BayeuxServerTest, DestructionDeliversAcceptedMessagesToLiveSessionsOnly) {
    auto server = std::make_shared<InProcessBayeuxServer>(BayeuxServerOptions{1});
    EXPECT_EQ(server->threadCount(), 1u);
    BayeuxServer* raw = server.get();
    std::atomic<bool> open{false};
    auto blocker = std::make_shared<TestSession>("blocker");
    blocker->onPublish = [&](const PublishRequest&) { waitUntil([&] { return open.load(); }); };
    auto live = std::make_shared<TestSession>("live");
    // Calls back into the server while it is being torn down: ignored, and no deadlock.
    live->onPublish = [raw](const PublishRequest&) {
        raw->acceptPublish(message("/d", "late"));
        subscribe(*raw, "live", "/late");
    };
    auto gone = std::make_shared<TestSession>("gone");
    std::weak_ptr<TestSession> goneWatch = gone;
    for (auto& s : {blocker, live, gone})
        server->registerSession(s);
    subscribe(*server, "blocker", "/block");
    subscribe(*server, "live", "/d");
    subscribe(*server, "gone", "/d");
    server->acceptPublish(message("/block", "1"));
    for (int i = 0; i < 100; ++i)
        server->acceptPublish(message("/d", std::to_string(i)));
    gone.reset();
    ASSERT_TRUE(goneWatch.expired());

    std::atomic<bool> destroyed{false};
    std::size_t deliveredBeforeReturn = 0;
    auto* handle = server.get();
    std::thread destroyer([&] {
        server.reset();
        deliveredBeforeReturn = live->receivedCount();
        destroyed = true;
    });
    // The handle lives until the blocked delivery returns, so it can still be asked.
    const bool stopped = waitUntil([&] { return !handle->accepting(); });
    open = true;
    const bool finished = waitUntil([&] { return destroyed.load(); });
    if (finished) {
        destroyer.join();
    } else {
        destroyer.detach();
    }
    ASSERT_TRUE(stopped) << "destruction never began";
    ASSERT_TRUE(finished) << "destruction deadlocked";
    EXPECT_EQ(deliveredBeforeReturn, 100u) << "everything accepted, nothing more";
    auto got = live->received();
    ASSERT_EQ(got.size(), 100u);
    EXPECT_EQ(got.back().json, "99");
    EXPECT_EQ(blocker->count("/block"), 1u);
    EXPECT_EQ(live->announcements().size(), 3u) << "no /late subscription announced";
}

TEST(BayeuxServerTest, LastReferenceDroppedInsideDeliverDoesNotDeadlock) {
    auto holder =
        std::make_shared<std::shared_ptr<BayeuxServer>>(connector::bayeux::makeBayeuxServer({2}));
    std::atomic<bool> go{false}, returned{false};
    auto s = std::make_shared<TestSession>("owner");
    s->onPublish = [holder, &go, &returned](const PublishRequest&) {
        waitUntil([&] { return go.load(); });
        holder->reset();  // the server is destroyed here, on its own delivery thread
        returned = true;
    };
    (*holder)->registerSession(s);
    subscribe(**holder, "owner", "/o");
    std::weak_ptr<BayeuxServer> watch = *holder;
    auto publisher = *holder;
    publisher->acceptPublish(message("/o", "1"));
    publisher.reset();
    go = true;
    ASSERT_TRUE(waitUntil([&] { return returned.load(); }));
    EXPECT_TRUE(watch.expired());
}

}  // namespace
