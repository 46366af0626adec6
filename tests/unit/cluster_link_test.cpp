// The cluster link: channel names as NATS subjects, batches of publishes as they travel, and links
// between processes through a real three-node NATS cluster started on loopback ports.

#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "cluster/nats_link.h"
#include "cluster/publish_batch.h"
#include "cluster/subjects.h"
#include "connector/bayeux/channel.h"
#include "connector/bayeux/server.h"
#include "inbox.h"
#include "log_capture.h"
#include "loopback_ports.h"
#include "nats_servers.h"

namespace connector::bayeux::cluster {
namespace {

using namespace std::chrono_literals;
using orvale::test::waitUntil;

NatsLinkOptions on(std::vector<std::string> urls) {
    NatsLinkOptions options;
    options.urls = std::move(urls);
    options.reconnectWait = 50ms;
    return options;
}

// "subject payload" for each message a link receives, from its delivery thread.
NatsLink::OnMessage into(orvale::test::Inbox& inbox) {
    return [&inbox](std::string_view subject, std::string_view payload) {
        inbox.add(std::string(subject) + " " + std::string(payload));
    };
}

// Interest spreads between the cluster's nodes a moment after a subscription: publishes a probe
// until `to` has heard `subject`, so that what follows meets the interest in place.
bool settle(NatsLink& from, orvale::test::Inbox& to, const std::string& subject) {
    for (int i = 0; i < 200; ++i) {
        from.publish(subject, "probe");
        if (waitUntil([&] { return to.has(subject + " probe"); }, 25ms))
            return true;
    }
    return false;
}

TEST(ClusterLink, SubjectsAndBatchesCarryEveryFieldAndLinksResumeThroughAnotherNode) {
    const struct {
        const char *channel, *subject;  // subject nullptr: not a channel the cluster carries
    } cases[] = {
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
    // NATS is never given a subject longer than the longest, counted after escapes.
    const std::string longest = "/" + std::string(kLongestSubject - 2, 'x');
    EXPECT_EQ(subjectOf("o", longest).value_or("").size(), kLongestSubject);
    for (const std::string& tooLong :
         {longest + "x", "/" + std::string(kLongestSubject / 3 + 1, ' '), longest + "/*"})
        EXPECT_FALSE(subjectOf("o", tooLong));
    for (const char* foreign : {"p.chat", "o", "o.a.*", "o.a%2", "o.a%ZZ", "o..a"})
        EXPECT_FALSE(channelOf("o", foreign)) << foreign;

    // A batch carries every field as it came and refuses what it did not write.
    PublishRequest full("", common::DataBuffer(R"({"t":"3:x\n"})")),
        bare("", common::DataBuffer(""));
    full.setId("7");
    full.setClientId("c:1");
    full.setExt(R"({"n":1})");
    std::string batch;
    startBatch("/a:1/b", batch);
    appendToBatch(full, batch);
    appendToBatch(bare, batch);
    const auto read = readBatch(batch).value();
    ASSERT_EQ(read.size(), 2u);
    const PublishRequest* sent[] = {&full, &bare};
    for (std::size_t i = 0; i < 2; ++i) {
        const PublishRequest& got = *read[i];
        EXPECT_EQ(got.getChannel(), "/a:1/b");
        EXPECT_EQ(got.getId(), sent[i]->getId());
        EXPECT_EQ(got.getClientId(), sent[i]->getClientId());
        EXPECT_EQ(got.getExt(), sent[i]->getExt());
        EXPECT_EQ(got.getJson(), sent[i]->getJson());
    }
    const std::string refused[] = {
        "",
        "4:/a/*0:0:0:1:1",
        "7:/meta/x0:0:0:1:1",
        "2:/a0:",
        "2:/a0:0:",
        "2:/a0:0:0:",
        "2:/a0:0:0:2:1",
        "2:/a0:0:0:x:1",
        "2:/a0:0:0:99999999999999999999:1",
        "2:/a0:0:0:1:1 ",
        batch.substr(0, batch.size() - 1),
    };
    for (const auto& text : refused)
        EXPECT_FALSE(readBatch(text)) << text;

    // Between nodes, never echoed to the publisher, with interest counted; a link whose node dies
    // resumes through another. Order and uniqueness are the clustered server's tests.
    orvale::tools::NatsServers nats(3);
    orvale::test::Inbox atA, atB;
    NatsLink a(on(nats.urls(0)), into(atA));
    NatsLink b(on(nats.urls(1)), into(atB));
    ASSERT_TRUE(b.addInterest("o.chat.>"));
    ASSERT_TRUE(b.addInterest("o.chat.>"));
    ASSERT_TRUE(a.addInterest("o.chat.>"));
    ASSERT_TRUE(settle(a, atB, "o.chat.probe"));
    EXPECT_EQ(atA.size(), 0u) << "a member never hears its own publishes back";
    EXPECT_EQ(b.stats().subscriptions, 1u);
    b.removeInterest("o.chat.>");
    EXPECT_EQ(b.stats().subscriptions, 1u);
    b.removeInterest("o.chat.>");
    EXPECT_EQ(b.stats().subscriptions, 0u);
    EXPECT_EQ(a.stats().lost, 0u);

    ASSERT_TRUE(b.addInterest("o.*"));
    ASSERT_TRUE(settle(a, atB, "o.x"));
    nats.kill(1);
    ASSERT_TRUE(waitUntil([&] { return b.stats().reconnects == 1; }, 10s));
    EXPECT_TRUE(settle(a, atB, "o.after"));

    // A member that reads too slowly loses what NATS cannot hold for it, counts it and says so.
    // Its reader holds the first message (for 5 s at most) while at most four more wait.
    orvale::test::LogCapture log;
    orvale::test::Inbox probes;
    std::promise<void> open;
    const std::shared_future<void> opened = open.get_future().share();
    std::atomic<std::uint64_t> taken{0};
    auto options = on(nats.urls(2));
    options.pendingMessages = 4;
    NatsLink slow(options, [&](std::string_view subject, std::string_view payload) {
        if (payload == "probe")
            return probes.add(std::string(subject) + " probe");
        opened.wait_for(5s);
        ++taken;
    });
    ASSERT_TRUE(slow.addInterest("o.slow"));
    ASSERT_TRUE(settle(a, probes, "o.slow"));
    for (int i = 0; i < 50; ++i)
        a.publish("o.slow", "m");
    a.flush(5s);
    EXPECT_TRUE(waitUntil([&] { return slow.stats().dropped >= 45; }));
    open.set_value();
    EXPECT_TRUE(waitUntil([&] { return taken + slow.stats().dropped == 50; }))
        << taken << " read, " << slow.stats().dropped << " dropped";
    // Once per spell of drops, from a NATS library thread: a second spell begins if the reader
    // takes one before the burst is over.
    EXPECT_TRUE(waitUntil([&] {
        return log.count(
                   "Cluster link: this member reads the others' messages too slowly, and "
                   "NATS drops them (") >= 1;
    }));

    // A server that cannot reach its cluster names it.
    const std::string url = "nats://127.0.0.1:" + std::to_string(orvale::tools::freeLoopbackPort());
    try {
        makeBayeuxServer({1, {url}});
        FAIL() << "connected to nothing";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("Cannot reach the cluster at " + url + ": ", 0), 0u)
            << e.what();
    }
    EXPECT_FALSE(makeBayeuxServer()->clusterStats());
}

}  // namespace
}  // namespace connector::bayeux::cluster
