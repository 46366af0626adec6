#include "in_process_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>

#include "deferred_wakes.h"
#include "log_capture.h"
#include "queueing_session.h"
#include "recording_session.h"

namespace {

using connector::bayeux::BayeuxServer;
using connector::bayeux::InProcessBayeuxServer;
using connector::bayeux::PublishRequest;
using connector::bayeux::RecordingSession;
using connector::bayeux::SubscribeRequest;
using connector::bayeux::UnsubscribeRequest;
using orvale::test::waitUntil;
using Strings = std::vector<std::string>;

struct QueueingRecordingSession : RecordingSession, connector::bayeux::QueueingSession {
    using RecordingSession::RecordingSession;
    void queuePublish(const std::shared_ptr<const PublishRequest>& request) override {
        record({}, *request, true);
    }
};
struct DeafSession : QueueingRecordingSession {
    using QueueingRecordingSession::QueueingRecordingSession;
    bool hearsSubscriptions() const override { return false; }
};

std::shared_ptr<PublishRequest> message(const std::string& channel, const std::string& json) {
    auto request = std::make_shared<PublishRequest>(channel, connector::common::DataBuffer(json));
    request->setClientId("publisher");
    return request;
}
void subscribe(BayeuxServer& server, const std::string& clientId, const std::string& pattern) {
    server.acceptSubscribe(std::make_shared<SubscribeRequest>(pattern, clientId));
}
void unsubscribe(BayeuxServer& server, const std::string& clientId, const std::string& pattern) {
    server.acceptUnsubscribe(std::make_shared<UnsubscribeRequest>(pattern, clientId));
}
template <class Session = RecordingSession>
std::shared_ptr<Session> join(BayeuxServer& server, const std::string& id,
                              std::function<void(const PublishRequest&)> onPublish = nullptr) {
    auto session = std::make_shared<Session>(id);
    session->onPublish = std::move(onPublish);
    server.registerSession(session);
    return session;
}
std::shared_ptr<InProcessBayeuxServer> makeServer(std::size_t threads) {
    return std::make_shared<InProcessBayeuxServer>(connector::bayeux::BayeuxServerOptions{threads});
}

// Each session is served in order, so once the sentinel arrives all published before it has too.
void flush(BayeuxServer& server, const std::vector<std::shared_ptr<RecordingSession>>& sessions) {
    std::vector<std::size_t> counts;
    for (auto& s : sessions) {
        subscribe(server, s->getId(), "/sentinel");
        counts.push_back(s->count("/sentinel"));
    }
    server.acceptPublish(message("/sentinel", "{}"));
    for (std::size_t i = 0; i < sessions.size(); ++i)
        ASSERT_TRUE(waitUntil([&] { return sessions[i]->count("/sentinel") > counts[i]; }))
            << sessions[i]->getId() << " never saw the sentinel";
}

// Joins a session that holds its delivery thread inside deliver until `open` is set.
std::shared_ptr<RecordingSession> blockDeliveries(BayeuxServer& server, std::atomic<bool>& open) {
    auto blocker = join(server, "blocker", [&](auto&) { waitUntil([&] { return open.load(); }); });
    subscribe(server, "blocker", "/block");
    server.acceptPublish(message("/block", "1"));
    return blocker;
}

// Every session hears each subscription change. Unregistering drops a session's subscriptions
// and queued deliveries silently; registering it again keeps them, a newcomer under its id not.
// Wakes deferred in a scope wait for its end.
TEST(BayeuxServerTest, ChangesAreAnnouncedToAllAndRegistrationKeepsOrDropsSubscriptions) {
    auto server = makeServer(1);
    auto leaving = join(*server, "leaving");
    auto watcher = join(*server, "watcher");
    subscribe(*server, "leaving", "/u");
    subscribe(*server, "ghost", "/g");  // no such session: announced, not recorded
    unsubscribe(*server, "leaving", "/u");
    unsubscribe(*server, "watcher", "/never");
    subscribe(*server, "leaving", "/u");
    subscribe(*server, "leaving", "/v/**");
    Strings expected{"+leaving /u",     "+ghost /g",   "-leaving /u",
                     "-watcher /never", "+leaving /u", "+leaving /v/**"};
    for (auto& s : {leaving, watcher}) {
        ASSERT_TRUE(waitUntil([&] { return s->announced.size() >= expected.size(); }));
        EXPECT_EQ(s->announced.snapshot(), expected) << s->getId();
    }
    std::atomic<bool> open{false};
    auto blocker = blockDeliveries(*server, open);  // messages for `leaving` wait in its queue
    for (int i = 0; i < 10; ++i)
        server->acceptPublish(message("/u", std::to_string(i)));
    server->unregisterSession(leaving);
    open = true;
    EXPECT_EQ(server->sessionCount(), 2u);
    EXPECT_EQ(server->channelNodeCount(), 2u) << "root and block";
    flush(*server, {watcher, blocker});
    EXPECT_EQ(leaving->count("/u"), 0u);
    expected.insert(expected.end(),
                    {"+blocker /block", "+watcher /sentinel", "+blocker /sentinel"});
    EXPECT_EQ(watcher->announced.snapshot(), expected) << "no unsubscription announced";

    auto ghost = join(*server, "ghost");
    server->registerSession(leaving);
    subscribe(*server, "leaving", "/r");
    server->registerSession(leaving);  // again: keeps its subscription
    for (const char* channel : {"/g", "/u", "/r"})
        server->acceptPublish(message(channel, "1"));
    flush(*server, {ghost, leaving});
    EXPECT_EQ(ghost->count("/g") + leaving->count("/u"), 0u);
    EXPECT_EQ(leaving->count("/r"), 1u);
    auto second = join(*server, "leaving");  // takes the id over, without the old subscriptions
    EXPECT_EQ(server->sessionCount(), 4u);
    server->acceptPublish(message("/r", "2"));
    subscribe(*server, "leaving", "/r");
    server->acceptPublish(message("/r", "3"));
    flush(*server, {second});
    EXPECT_EQ(second->data("/r"), Strings{"3"});
    EXPECT_EQ(leaving->count("/r"), 1u);

    // Publishes inside a DeferredWakes reach the sleeping thread, in order, when the outermost
    // scope ends.
    subscribe(*server, "leaving", "/d");
    flush(*server, {second});  // the delivery thread is asleep again after this
    const std::size_t before = second->count();
    {
        const connector::bayeux::DeferredWakes outer;
        {
            const connector::bayeux::DeferredWakes inner;
            for (int i = 0; i < 3; ++i)
                server->acceptPublish(message("/d", std::to_string(i)));
        }
        // A woken thread would deliver within microseconds; this leaves it ample time.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(second->count(), before);
    }
    ASSERT_TRUE(waitUntil([&] { return second->count("/d") == 3; }));
    EXPECT_EQ(second->data("/d"), (Strings{"0", "1", "2"}));
    server->acceptPublish(message("/d", "3"));
    ASSERT_TRUE(waitUntil([&] { return second->count("/d") == 4; }));
}

// Deliveries to live sessions, to an expired one (dropped with its nodes), to one that throws
// (logged and served again) and to a queueing one (on the publishing thread).
TEST(BayeuxServerTest, DeliveriesToMatchingExpiredThrowingAndQueueingSessions) {
    orvale::test::LogCapture logs;
    auto server = makeServer(2);
    // One delivery per publish and session, listing each matching pattern once however often held.
    auto many = join(*server, "many");
    auto one = join(*server, "one");
    for (const char* pattern : {"/a/b", "/a/b", "/a/*", "/a/**", "/*", "/**", "/a/b/c", "/b/**"})
        subscribe(*server, "many", pattern);
    subscribe(*server, "one", "/a/b");
    const std::map<std::string, Strings> expected = {{"/a", {"/*", "/**"}},
                                                     {"/a/b", {"/**", "/a/*", "/a/**", "/a/b"}},
                                                     {"/a/b/c", {"/**", "/a/**", "/a/b/c"}},
                                                     {"/x", {"/*", "/**"}},
                                                     {"/b/a", {"/**", "/b/**"}},
                                                     {"/c/d/e", {"/**"}}};
    for (const auto& [channel, patterns] : expected)
        server->acceptPublish(message(channel, "{\"n\":1}"));
    flush(*server, {many, one});
    auto got = many->received();
    ASSERT_EQ(got.size(), expected.size() + 1);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(got[i].patterns, expected.at(got[i].channel)) << got[i].channel;
        EXPECT_EQ(got[i].json, "{\"n\":1}");
    }
    ASSERT_EQ(one->count(), 2u);
    EXPECT_EQ(one->received()[0].patterns, Strings{"/a/b"});

    auto live = join(*server, "live");
    auto gone = join(*server, "gone");
    std::atomic<int> calls{0};
    auto thrower = join(*server, "thrower", [&](auto&) {
        if (calls++ == 0)
            throw std::runtime_error("listener failed");
    });
    subscribe(*server, "live", "/e");
    subscribe(*server, "thrower", "/e");
    subscribe(*server, "gone", "/e/deep/**");
    const std::size_t nodes = server->channelNodeCount();
    gone.reset();
    server->acceptPublish(message("/e/deep/1", "1"));
    server->acceptPublish(message("/e", "2"));
    server->acceptPublish(message("/e", "3"));
    ASSERT_TRUE(waitUntil([&] { return server->sessionCount() == 4; }));
    EXPECT_LT(server->channelNodeCount(), nodes) << "its nodes went with it";
    EXPECT_TRUE(waitUntil([&] { return logs.contains("Dropped expired session gone"); }));
    flush(*server, {live, thrower});
    EXPECT_EQ(live->data("/e"), (Strings{"2", "3"}));
    EXPECT_EQ(thrower->data("/e"), Strings{"3"});
    EXPECT_TRUE(logs.contains("Session thrower threw from deliver: listener failed"));

    // A queueing session has each publish once, on the publishing thread, before acceptPublish
    // returns; one that does not hear subscription changes is told none.
    auto queueing = join<QueueingRecordingSession>(*server, "q");
    auto deaf = join<DeafSession>(*server, "deaf");
    subscribe(*server, "deaf", "/q/a");
    auto plain = join(*server, "p");
    subscribe(*server, "q", "/q/*");
    subscribe(*server, "q", "/q/**");
    subscribe(*server, "p", "/q/a");
    constexpr int kEach = 200;
    auto publishFrom = [&](char tag) {
        for (int i = 0; i < kEach; ++i) {
            const std::string json = std::string("\"") + tag + std::to_string(i) + "\"";
            server->acceptPublish(message("/q/a", json));
            Strings mine;  // queued by this thread, each once and in order
            for (const auto& q : queueing->received())
                if (q.json[1] == tag) {
                    EXPECT_TRUE(q.queued && q.thread == std::this_thread::get_id()) << q.json;
                    mine.push_back(q.json);
                }
            ASSERT_EQ(mine.size(), std::size_t(i) + 1) << json;
            EXPECT_EQ(mine.back(), json);
        }
    };
    std::thread first(publishFrom, 'a');
    std::thread second(publishFrom, 'b');
    first.join();
    second.join();
    EXPECT_EQ(queueing->count(), 2u * kEach) << "none through deliver";
    flush(*server, {plain});
    EXPECT_EQ(plain->count("/q/a"), 2u * kEach);
    for (const auto& r : plain->received())
        EXPECT_NE(r.thread, std::this_thread::get_id());
    EXPECT_TRUE(waitUntil([&] { return queueing->announced.size() >= 4; }));
    EXPECT_EQ(deaf->count(), 2u * kEach);
    EXPECT_FALSE(
        waitUntil([&] { return deaf->announced.size() > 0; }, std::chrono::milliseconds(100)));

    // Data that is not JSON stays with the process's own sessions: a queueing session would
    // write it into its client's frames, where it could end the frame and forge another message.
    const std::string forged = R"(1},{"channel":"/meta/connect","successful":false)";
    server->acceptPublish(message("/q/a", forged));
    server->acceptPublish(message("/q/a", " [1] "));
    flush(*server, {plain});
    const Strings data = plain->data("/q/a");
    EXPECT_EQ(Strings(data.end() - 2, data.end()), (Strings{forged, " [1] "}));
    EXPECT_EQ(queueing->count(), 2u * kEach + 1);
    EXPECT_EQ(queueing->received().back().json, " [1] ");
    EXPECT_TRUE(
        logs.contains("Kept a publish on /q/a in this process: its data is not JSON (1 so far)"));

    queueing.reset();  // an expired queueing session is dropped like any other
    server->acceptPublish(message("/q/b", "1"));
    EXPECT_TRUE(waitUntil([&] { return server->sessionCount() == 6; }));
}

// Destruction delivers what was accepted to live sessions only. Sessions may call the server from
// inside deliver: each call would deadlock if the server held one of its locks around deliver,
// down to dropping the last reference, which destroys the server on its own delivery thread.
TEST(BayeuxServerTest, DestructionDeliversWhatWasAcceptedAndSessionsMayCallInFromDeliver) {
    auto server = makeServer(1);
    EXPECT_EQ(server->threadCount(), 1u);
    BayeuxServer* raw = server.get();
    std::atomic<bool> open{false};
    // Calls back into the server while it is being torn down: ignored, and no deadlock.
    auto live = join(*server, "live", [raw](auto&) {
        raw->acceptPublish(message("/d", "late"));
        subscribe(*raw, "live", "/late");
    });
    auto gone = join(*server, "gone");
    std::weak_ptr<RecordingSession> goneWatch = gone;
    subscribe(*server, "live", "/d");
    subscribe(*server, "gone", "/d");
    auto blocker = blockDeliveries(*server, open);
    for (int i = 0; i < 100; ++i)
        server->acceptPublish(message("/d", std::to_string(i)));
    gone.reset();  // a subscription's announcement to it may still hold it a moment
    ASSERT_TRUE(waitUntil([&] { return goneWatch.expired(); }));

    std::atomic<bool> destroyed{false};
    std::size_t deliveredBeforeReturn = 0;
    auto* handle = server.get();
    std::thread destroyer([&] {
        server.reset();
        deliveredBeforeReturn = live->count();
        destroyed = true;
    });
    // The handle lives until the blocked delivery returns, so it can still be asked.
    const bool stopped = waitUntil([&] { return !handle->accepting(); });
    open = true;
    const bool finished = waitUntil([&] { return destroyed.load(); });
    finished ? destroyer.join() : destroyer.detach();
    ASSERT_TRUE(stopped) << "destruction never began";
    ASSERT_TRUE(finished) << "destruction deadlocked";
    EXPECT_EQ(deliveredBeforeReturn, 100u) << "everything accepted, nothing more";
    ASSERT_EQ(live->data("/d").size(), 100u);
    EXPECT_EQ(live->data("/d").back(), "99");
    EXPECT_EQ(blocker->count("/block"), 1u);
    EXPECT_EQ(live->announced.size(), 3u) << "no /late subscription announced";

    auto holder = std::make_shared<std::shared_ptr<InProcessBayeuxServer>>(makeServer(2));
    raw = holder->get();
    auto other = std::make_shared<RecordingSession>("other");
    std::atomic<bool> go{false}, returned{false};
    auto s = join(**holder, "s", [=, &go, &returned](const PublishRequest& request) {
        if (request.getChannel() == "/first") {
            raw->registerSession(other);
            subscribe(*raw, "s", "/second");
            raw->acceptPublish(message("/second", "from inside"));
            unsubscribe(*raw, "s", "/first");
            raw->unregisterSession(other);
        } else if (request.getChannel() == "/last") {
            waitUntil([&] { return go.load(); });
            holder->reset();
            returned = true;
        }
    });
    subscribe(**holder, "s", "/first");
    subscribe(**holder, "s", "/last");
    auto publisher = *holder;
    publisher->acceptPublish(message("/first", "1"));
    ASSERT_TRUE(waitUntil([&] { return s->count("/second") == 1; }));
    publisher->acceptPublish(message("/first", "2"));
    flush(*publisher, {s});
    EXPECT_EQ(s->count("/first"), 1u) << "unsubscribed from inside its own delivery";
    EXPECT_EQ(publisher->sessionCount(), 1u) << "other was registered and unregistered";

    std::weak_ptr<InProcessBayeuxServer> watch = publisher;
    publisher->acceptPublish(message("/last", "1"));
    publisher.reset();
    go = true;
    ASSERT_TRUE(waitUntil([&] { return returned.load(); }));
    EXPECT_TRUE(watch.expired());
}

}  // namespace
