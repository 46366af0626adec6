// The cluster link: channel names as NATS subjects, and links between processes through a real
// three-node NATS cluster started on loopback ports.

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "cluster/nats_link.h"
#include "cluster/subjects.h"
#include "connector/bayeux/channel.h"
#include "nats_cluster.h"

namespace connector::bayeux::cluster {
namespace {

using namespace std::chrono_literals;

TEST(ClusterSubjects, MapChannelsAndPatternsBothWays) {
    struct Case {
        const char* channel;
        const char* subject;  // nullptr: not a channel the cluster carries
    };
    const Case cases[] = {
        {"/chat/room", "o.chat.room"},
        {"/a/*", "o.a.*"},
        {"/a/**", "o.a.>"},
        {"/**", "o.>"},
        {"/v1.2/x y", "o.v1%2E2.x%20y"},
        {"/50%/a>b", "o.50%25.a%3Eb"},
        {"/caf\xc3\xa9", "o.caf%C3%A9"},
        {"/a/*/b", nullptr},
        {"/a//b", nullptr},
        {"chat", nullptr},
    };
    for (const auto& c : cases) {
        const auto subject = subjectOf("o", c.channel);
        if (!c.subject) {
            EXPECT_FALSE(subject) << c.channel;
            continue;
        }
        ASSERT_TRUE(subject) << c.channel;
        EXPECT_EQ(*subject, c.subject);
        if (!ChannelName(c.channel).isPattern()) {
            EXPECT_EQ(channelOf("o", *subject), std::string(c.channel));
        }
    }
    for (const char* foreign : {"p.chat", "o", "o.a.*", "o.a%2", "o.a%ZZ", "o..a"})
        EXPECT_FALSE(channelOf("o", foreign)) << foreign;
}

// What one link received, waited for with a bound.
class Received {
  public:
    NatsLink::OnMessage callback() {
        return [this](std::string_view subject, std::string_view payload) {
            std::lock_guard<std::mutex> lock(mutex_);
            messages_.push_back(std::string(subject) + " " + std::string(payload));
            changed_.notify_all();
        };
    }
    bool waitFor(std::size_t count, std::chrono::milliseconds bound = 5s) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, bound, [&] { return messages_.size() >= count; });
    }
    std::vector<std::string> messages() {
        std::lock_guard<std::mutex> lock(mutex_);
        return messages_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> messages_;
};

NatsLinkOptions on(std::vector<std::string> urls) {
    NatsLinkOptions options;
    options.urls = std::move(urls);
    options.reconnectWait = 50ms;
    return options;
}

// Interest spreads between the cluster's nodes a moment after a subscription: publishes a probe
// until it arrives, so that what follows meets the interest in place.
void settle(NatsLink& from, Received& to, const std::string& subject) {
    for (int i = 0; i < 200; ++i) {
        from.publish(subject, "probe");
        if (to.waitFor(1, 25ms))
            return;
    }
    FAIL() << "no probe arrived on " << subject;
}

TEST(NatsLink, CarriesMessagesBetweenNodesOnceAndInOrder) {
    orvale::test::NatsCluster nats(3);
    Received atA, atB;
    NatsLink a(on(nats.urls(0)), atA.callback());
    NatsLink b(on(nats.urls(1)), atB.callback());
    ASSERT_TRUE(b.addInterest("o.chat.>"));
    ASSERT_TRUE(b.addInterest("o.chat.>"));
    ASSERT_TRUE(a.addInterest("o.chat.>"));
    settle(a, atB, "o.chat.probe");
    for (int i = 0; i < 100; ++i)
        a.publish("o.chat.room", std::to_string(i));
    std::vector<std::string> expected, got;
    for (int i = 0; i < 100; ++i)
        expected.push_back("o.chat.room " + std::to_string(i));
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (got.size() < expected.size() && std::chrono::steady_clock::now() < deadline) {
        atB.waitFor(atB.messages().size() + 1, 50ms);
        got.clear();
        for (const auto& m : atB.messages())
            if (m.rfind("o.chat.room ", 0) == 0)
                got.push_back(m);
    }
    EXPECT_EQ(got, expected);
    // A member never hears its own publishes back, though it subscribes to them.
    EXPECT_TRUE(atA.messages().empty());
    EXPECT_EQ(b.stats().subscriptions, 1u);
    b.removeInterest("o.chat.>");
    EXPECT_EQ(b.stats().subscriptions, 1u);
    b.removeInterest("o.chat.>");
    EXPECT_EQ(b.stats().subscriptions, 0u);
    EXPECT_EQ(a.stats().lost, 0u);
}

TEST(NatsLink, ResumesThroughAnotherNodeWhenItsNodeDies) {
    orvale::test::NatsCluster nats(3);
    Received atB;
    NatsLink a(on(nats.urls(0)), Received().callback());
    NatsLink b(on(nats.urls(1)), atB.callback());
    ASSERT_TRUE(b.addInterest("o.*"));
    settle(a, atB, "o.x");
    nats.kill(1);
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (b.stats().reconnects == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    ASSERT_EQ(b.stats().reconnects, 1u);
    const std::size_t before = atB.messages().size();
    for (int i = 0; i < 400 && atB.messages().size() == before; ++i) {
        a.publish("o.after", "1");
        atB.waitFor(before + 1, 25ms);
    }
    EXPECT_GT(atB.messages().size(), before);
}

TEST(NatsLink, NamesTheClusterItCannotReach) {
    const std::string url = "nats://127.0.0.1:" + std::to_string(orvale::test::freeLoopbackPort());
    try {
        NatsLink link(on({url}), nullptr);
        FAIL() << "connected to nothing";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("Cannot reach the cluster at " + url + ": ", 0), 0u)
            << e.what();
    }
}

}  // namespace
}  // namespace connector::bayeux::cluster
