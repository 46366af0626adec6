// Bayeux servers joined to the nodes of a real NATS cluster, sharing channels as one server would.

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "cluster/clustered_server.h"
#include "cluster/subjects.h"
#include "connector/bayeux/server.h"
#include "log_capture.h"
#include "nats_servers.h"
#include "recording_session.h"

namespace connector::bayeux {
namespace {

using namespace std::chrono_literals;
using orvale::test::waitUntil;

void publish(BayeuxServer& server, const std::string& channel, const std::string& json,
             const std::string& clientId = "p") {
    auto request = std::make_shared<PublishRequest>(channel, common::DataBuffer(json));
    request->setClientId(clientId);
    server.acceptPublish(std::move(request));
}

struct Member {
    Member(const orvale::tools::NatsServers& nats, int node, const std::string& id)
        : server(makeBayeuxServer({1, nats.urls(node)})),
          session(std::make_shared<RecordingSession>(id)) {
        server->registerSession(session);
    }
    void subscribe(const std::string& pattern) {
        server->acceptSubscribe(std::make_shared<SubscribeRequest>(pattern, session->getId()));
    }
    void publish(const std::string& channel, const std::string& json) {
        bayeux::publish(*server, channel, json, session->getId());
    }
    std::shared_ptr<BayeuxServer> server;
    std::shared_ptr<RecordingSession> session;
};

// Waits until `server` says the subscriptions it accepted are known to the whole cluster.
bool shared(BayeuxServer& server) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    return !server.whenSubscriptionsShared([done] { *done = true; }) ||
           waitUntil([&] { return done->load(); });
}

// A member sends NATS only what another member's sessions want: nothing while it is alone, a
// pattern's channels once another member subscribes to it (shared once every member has
// acknowledged it, or one that never answers was waited for), nothing once that one leaves.
// Then members hear each other's subscriptions. Two threads publish on each of four members at
// once, on channels two patterns of every member match: each member's subscriber gets every
// message once (no echo of its own), each thread's in order; /service channels stay home.
TEST(ClusteredServer, SendsOnlyWhatOthersWantAndMembersShareChannelsOnceInOrder) {
    orvale::tools::NatsServers nats(3);
    auto join = [&](int node) {
        return std::make_shared<cluster::ClusteredServer>(
            makeBayeuxServer(), nats.urls(node), cluster::MembershipTimings{100ms, 300ms, 1000ms});
    };
    auto a = join(0);
    // How many of one publish on `channel` reached NATS, once that is `expected` or 3 s passed.
    auto sent = [&](const std::string& channel, std::uint64_t expected) {
        std::uint64_t sent = 0;
        for (const auto end = std::chrono::steady_clock::now() + 3s;
             std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(20ms)) {
            const auto before = a->clusterStats()->published;
            publish(*a, channel, "0");
            if ((sent = a->clusterStats()->published - before) == expected)
                break;
        }
        return sent;
    };
    EXPECT_EQ(sent("/x/1", 0), 0u);
    EXPECT_FALSE(a->whenSubscriptionsShared([] { ADD_FAILURE() << "nothing to share"; }));
    auto b = join(1);
    auto session = std::make_shared<RecordingSession>("b");
    b->registerSession(session);
    ASSERT_TRUE(waitUntil([&] { return b->clusterStats()->members == 1; }));
    b->acceptSubscribe(std::make_shared<SubscribeRequest>("/x/*", "b"));
    // Once shared, a's very next message on it goes out, through another NATS server.
    ASSERT_TRUE(shared(*b));
    const auto before = a->clusterStats()->published;
    publish(*a, "/x/1", "0");
    EXPECT_EQ(a->clusterStats()->published - before, 1u);
    EXPECT_EQ(a->clusterStats()->members, 1u);
    {
        // A member that never acknowledges is waited for `settle` (100 ms here), not for ever,
        // and then no longer, until it answers.
        orvale::test::LogCapture log;
        cluster::NatsLinkOptions options;
        options.urls = nats.urls(2);
        cluster::NatsLink phantom(options, [](auto, auto) {});
        phantom.publish("orvale_cluster.subscriptions", "phantom\nH\n", 0);
        ASSERT_TRUE(waitUntil([&] { return b->clusterStats()->members == 2; }));
        b->acceptSubscribe(std::make_shared<SubscribeRequest>("/x/phantom", "b"));
        auto done = std::make_shared<std::atomic<bool>>(false);
        ASSERT_TRUE(b->whenSubscriptionsShared([done] { *done = true; }));
        EXPECT_FALSE(waitUntil([&] { return done->load(); }, 50ms));
        EXPECT_TRUE(waitUntil([&] { return done->load(); }));
        EXPECT_EQ(log.count("A member of the cluster did not acknowledge a subscription within "
                            "100 ms"),
                  1u);
        b->acceptSubscribe(std::make_shared<SubscribeRequest>("/x/phantom/2", "b"));
        ASSERT_TRUE(shared(*b));
        EXPECT_FALSE(b->whenSubscriptionsShared([] {}));
        phantom.publish("orvale_cluster.subscriptions", "phantom\nQ\n", 0);
    }
    EXPECT_EQ(sent("/y", 0), 0u);
    EXPECT_TRUE(waitUntil([&] { return session->count("/x/1") > 0; }));
    b->acceptUnsubscribe(std::make_shared<UnsubscribeRequest>("/x/*", "b"));
    EXPECT_EQ(sent("/x/1", 0), 0u);
    b->acceptSubscribe(std::make_shared<SubscribeRequest>("/x/**", "b"));
    EXPECT_EQ(sent("/x/1/2", 1), 1u);
    // A channel may hold a newline, which the sets of patterns that members retell must keep:
    // told as two lines, this one would become "/**" for everything, and itself be forgotten.
    b->acceptSubscribe(std::make_shared<SubscribeRequest>("/n%\n/**", "b"));
    ASSERT_TRUE(shared(*b));
    EXPECT_EQ(sent("/y", 1), 0u);  // 3 s: the sets are retold every 300 ms here
    EXPECT_EQ(sent("/n%\n/1", 1), 1u);
    b->acceptUnsubscribe(std::make_shared<UnsubscribeRequest>("/n%\n/**", "b"));
    {
        // A channel too long for a NATS subject stays on its member: neither subscribing to it
        // nor publishing on it cuts a member off the cluster.
        orvale::test::LogCapture log;
        const std::string tooLong = "/x/" + std::string(cluster::kLongestSubject, 'l');
        b->acceptSubscribe(std::make_shared<SubscribeRequest>(tooLong, "b"));
        const auto before = a->clusterStats()->published;
        publish(*a, tooLong, "0");
        EXPECT_EQ(a->clusterStats()->published, before);
        // So does data that is not JSON: the others would write it into their clients' frames.
        publish(*a, "/x/1/2", "{");
        EXPECT_EQ(a->clusterStats()->published, before);
        // So does a message larger than NATS accepts: it is lost to the others, counted and
        // logged, and the link stays up.
        const auto lost = a->clusterStats()->lost;
        publish(*a, "/x/1/2", "\"" + std::string(std::size_t{1} << 20, 'm') + "\"");
        EXPECT_EQ(a->clusterStats()->lost, lost + 1);
        EXPECT_EQ(log.count("Cluster: a message of "), 1u);
        const std::size_t heard = session->count("/x/1/2");
        EXPECT_EQ(sent("/x/1/2", 1), 1u);
        EXPECT_TRUE(waitUntil([&] { return session->count("/x/1/2") > heard; }));
        EXPECT_TRUE(waitUntil([&] {
            return log.count(
                       "Cluster: a channel too long for a NATS subject stays on this "
                       "member (1 so far): /x/llll") == 2;
        }));
    }
    b.reset();
    EXPECT_EQ(sent("/x/1/2", 0), 0u);
    EXPECT_EQ(a->clusterStats()->members, 0u);

    constexpr int kMembers = 4, kThreads = 2, kMessages = 200;
    std::vector<std::unique_ptr<Member>> members;
    for (int m = 0; m < kMembers; ++m) {
        members.push_back(std::make_unique<Member>(nats, m % 3, "m" + std::to_string(m)));
        members.back()->subscribe("/load/*");
        members.back()->subscribe("/load/**");
    }
    for (int m = 0; m < kMembers; ++m) {
        const std::string probe = "/load/probe" + std::to_string(m);
        auto everyoneHas = [&] {
            return std::all_of(members.begin(), members.end(),
                               [&](auto& member) { return member->session->count(probe) > 0; });
        };
        for (int i = 0; i < 200 && !everyoneHas(); ++i, std::this_thread::sleep_for(25ms))
            members[m]->publish(probe, "0");
        ASSERT_TRUE(everyoneHas()) << probe;
    }
    // Interest crosses the NATS routes a moment after a subscription: m0's subscription events
    // reach m3 once m3's interest in them has reached m0's node.
    bool warm = false;
    for (int i = 0; i < 200 && !warm; ++i) {
        members[0]->subscribe("/warm/" + std::to_string(i));
        const std::string heard = "+m0 /warm/" + std::to_string(i);  // with its subscriber's id
        warm = waitUntil([&] { return members[3]->session->announced.has(heard); }, 25ms);
    }
    ASSERT_TRUE(warm);
    members[1]->subscribe("/service/**");
    members[0]->publish("/service/echo", "1");  // had it crossed, it would come before the rest
    std::vector<std::thread> publishers;
    for (int p = 0; p < kMembers * kThreads; ++p)
        publishers.emplace_back([&, p] {
            for (int n = 0; n < kMessages; ++n)
                members[p / kThreads]->publish("/load/t" + std::to_string(p), std::to_string(n));
        });
    for (auto& publisher : publishers)
        publisher.join();
    std::vector<std::string> numbers;  // what each publisher sent, in its order
    for (int n = 0; n < kMessages; ++n)
        numbers.push_back(std::to_string(n));
    for (auto& member : members) {
        const std::string id = member->session->getId();
        for (int p = 0; p < kMembers * kThreads; ++p) {
            const std::string channel = "/load/t" + std::to_string(p);
            EXPECT_TRUE(waitUntil([&] { return member->session->count(channel) >= kMessages; }));
            EXPECT_EQ(member->session->data(channel), numbers) << id << " " << channel;
        }
        const std::size_t all = member->session->count();
        EXPECT_FALSE(waitUntil([&] { return member->session->count() > all; }, 100ms)) << id;
        const auto stats = member->server->clusterStats().value();
        EXPECT_TRUE(stats.connected);
        EXPECT_GE(stats.published, std::uint64_t{kThreads * kMessages});
        EXPECT_EQ(stats.lost, 0u);
    }
    EXPECT_EQ(members[1]->session->count("/service/echo"), 0u);
}

// Neither what a member does on the others' news nor what an answer's callback does stops or
// outlives the member: a callback may wait for another subscription's answer or drop the last
// reference to its member, and a member may leave while its handler answers a peer's "N".
TEST(ClusteredServer, AnswersAndLeavingNeverStrandTheMember) {
    orvale::tools::NatsServers nats(1);
    auto join = [&] {
        return std::make_shared<cluster::ClusteredServer>(
            makeBayeuxServer(), nats.urls(0), cluster::MembershipTimings{100ms, 300ms, 1000ms});
    };
    cluster::NatsLinkOptions options;
    options.urls = nats.urls(0);
    // Peers that never acknowledge: a subscription waits for one until the membership thread's
    // first look past `settle` (100 ms here), and then no longer.
    std::vector<std::unique_ptr<cluster::NatsLink>> peers;
    auto peer = [&](cluster::ClusteredServer& member) {
        const std::size_t before = member.clusterStats()->members;
        peers.push_back(std::make_unique<cluster::NatsLink>(options, [](auto, auto) {}));
        peers.back()->publish("orvale_cluster.subscriptions",
                              "peer" + std::to_string(peers.size()) + "\nH\n", 0);
        return waitUntil([&] { return member.clusterStats()->members == before + 1; });
    };
    auto b = join();
    ASSERT_TRUE(peer(*b));
    b->registerSession(std::make_shared<RecordingSession>("s"));
    b->acceptSubscribe(std::make_shared<SubscribeRequest>("/first", "s"));
    std::atomic<bool> second{false}, ended{false};
    cluster::ClusteredServer& member = *b;
    auto keeper = std::make_shared<std::shared_ptr<cluster::ClusteredServer>>(std::move(b));
    ASSERT_TRUE(member.whenSubscriptionsShared([&, keeper] {
        if (peer(member)) {
            member.acceptSubscribe(std::make_shared<SubscribeRequest>("/second", "s"));
            auto done = std::make_shared<std::atomic<bool>>(false);
            second = member.whenSubscriptionsShared([done] { *done = true; }) &&
                     waitUntil([&] { return done->load(); });
        }
        keeper->reset();  // the last reference: the member leaves from here
        ended = true;
    }));
    ASSERT_TRUE(waitUntil([&] { return ended.load(); }, 10s));
    EXPECT_TRUE(second);

    std::atomic<bool> done{false};
    std::thread chatter([&] {
        for (int n = 1; !done; ++n)  // each asks every member for an acknowledgement
            peers[0]->publish("orvale_cluster.subscriptions", "peer1\nN\n" + std::to_string(n), 0);
    });
    for (int i = 0; i < 30; ++i) {
        auto leaving = join();
        EXPECT_TRUE(waitUntil([&] { return leaving->clusterStats()->received > 100; }));
    }
    done = true;
    chatter.join();
}

}  // namespace
}  // namespace connector::bayeux
