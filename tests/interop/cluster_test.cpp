// Hubs and a host process joined through a three-node NATS cluster, with real peers on every
// member: Faye's and CometD's clients, a client service and a server service exchange messages
// across members, and the cluster rides out a dead NATS node and a dead hub.

#include <boost/algorithm/string/join.hpp>
#include <map>

#include "common.h"
#include "connector/bayeux/server.h"
#include "connector/message_service.h"
#include "inbox.h"
#include "nats_servers.h"

namespace orvale::test {
namespace {

namespace ms = connector::message_service;
namespace bayeux = connector::bayeux;

// `orvale serve` joined to the cluster through `node`, with the other nodes to fall back on.
std::unique_ptr<ServeProcess> hub(const tools::NatsServers& nats, int node) {
    return std::make_unique<ServeProcess>(
        std::vector<std::string>{"--cluster", boost::algorithm::join(nats.urls(node), ",")});
}

// Publishes on what services call `channel`.
void publish(bayeux::BayeuxServer& server, const std::string& channel, const std::string& json) {
    auto request = std::make_shared<bayeux::PublishRequest>("/orvale" + channel,
                                                            connector::common::DataBuffer(json));
    request->setClientId("control");
    server.acceptPublish(std::move(request));
}

// A message service in this process taking part as the Node peers' mesh scenario does, keeping
// what it receives in the Inbox it is (which so outlives its subscriptions).
struct ServicePeer : Inbox {
    ServicePeer(std::string name, std::shared_ptr<ms::MessageService> service)
        : name_(std::move(name)), service_(std::move(service)) {
        for (const std::string& channel :
             {"/mesh/to/" + name_, std::string("/mesh/all/*"), std::string("/mesh/go")}) {
            auto future =
                service_->subscribe(channel, [this](const ms::JsonMessage& m) { onMessage(m); });
            if (!future.waitFor(10s))
                throw std::runtime_error(name_ + " cannot subscribe to " + channel);
            subscriptions.push_back(future.get());
        }
    }
    void onMessage(const ms::JsonMessage& m) {
        const auto data = parseLine(m.getJson());
        add(m.getChannel() + " " + boost::json::serialize(data));
        const auto* start = data.if_contains("start");
        if (!start)
            return;
        const std::string from = "{\"from\":\"" + name_ + "\"";
        for (int n = 0; n < data.at("count").to_number<int>(); ++n)
            service_->publish("/mesh/all/" + name_, from + ",\"n\":" + std::to_string(n) + "}");
        for (const auto& peer : start->as_array())
            if (peer.as_string() != name_)
                service_->publish("/mesh/to/" + std::string(peer.as_string()), from + "}");
    }
    const std::string name_;
    const std::shared_ptr<ms::MessageService> service_;
    std::vector<std::shared_ptr<ms::Subscription>> subscriptions;
};

// The data a peer received on the mesh's data channels, by channel as services name them; the
// direct messages, whose senders take no turns, sorted.
std::map<std::string, std::vector<std::string>> byChannel(const std::vector<std::string>& lines) {
    std::map<std::string, std::vector<std::string>> out;
    for (const auto& line : lines)
        if (line.rfind("/mesh/go ", 0) != 0)
            out[line.substr(0, line.find(' '))].push_back(line.substr(line.find(' ') + 1));
    for (auto& [channel, data] : out)
        if (channel.rfind("/mesh/to/", 0) == 0)
            std::sort(data.begin(), data.end());
    return out;
}

// Faye's client on hub A, CometD's on hub B, a client service on hub C and a server service in
// this process, each on its own NATS node: each publishes on its own channel, which everyone's
// wildcard matches, and directly to each other peer. Everyone gets every message once, each
// publisher's in order, and listeners hear subscriptions made on other members. Then A's NATS
// node dies, and A goes on through another node; A dies, and Faye's client handshakes again on B.
TEST(ClusterTest, PeersOnEveryMemberExchangeMessagesOnceInOrderAndOutliveDeadNodes) {
    ORVALE_REQUIRE_NODE();
    constexpr int kCount = 20;
    const std::vector<std::string> names{"client", "cometd", "faye", "host"};
    tools::NatsServers nats(3);
    Inbox heard;                                                 // outlives the listeners
    std::vector<std::shared_ptr<bayeux::BayeuxServer>> members;  // this process's, one per node
    for (int node = 0; node < 3; ++node)
        members.push_back(bayeux::makeBayeuxServer({1, nats.urls(node)}));
    auto services = std::make_shared<ms::MessageServiceFactoryDelegatorImpl>(
        std::make_shared<ms::MessageServiceFactoryServerDelegate>(members[0]),
        std::make_shared<ms::MessageServiceFactoryClientDelegate>(connector::makeContext()));
    auto hostService = services->createMessageService("host", {}).get();
    auto note = [&](const char* sign) {
        return [&heard, sign](const auto& e) { heard.add(sign + e.getChannel()); };
    };
    const std::vector<std::shared_ptr<ms::Subscription>> listeners{
        hostService->listenSubscribe("/mesh/to/*", note("+")).get(),
        hostService->listenUnsubscribe("/mesh/to/*", note("-")).get()};
    auto a = hub(nats, 0), b = hub(nats, 1), c = hub(nats, 2);
    std::map<std::string, std::unique_ptr<ChildProcess>> peers;
    // Faye's client reaches A through a balancer that gives it B once A is gone.
    for (const auto& [peer, url] : std::map<std::string, std::string>{
             {"faye", a->httpUrl() + "," + b->httpUrl()}, {"cometd", b->httpUrl()}})
        peers[peer] = node("bayeux_client.js", {peer, url, "mesh", peer, "/orvale/mesh/to/" + peer,
                                                "/orvale/mesh/all/*", "/orvale/mesh/go"});
    auto clientService = services->createMessageService("client", {{"endpoint", c->url}});
    ASSERT_TRUE(clientService.waitFor(10s));
    ServicePeer client("client", clientService.get()), host("host", hostService);
    // Each peer's lines, with the channels as services name them.
    auto got = [&](const std::string& peer) {
        if (peer == "client" || peer == "host")
            return (peer == "client" ? client : host).snapshot();
        std::vector<std::string> lines = received(*peers.at(peer));
        for (auto& line : lines)
            line.erase(0, line.rfind("/orvale/", 0) == 0 ? 7 : 0);
        return lines;
    };
    // A subscription is answered once every member knows it: once each peer is subscribed, one
    // message reaches them all.
    for (const char* peer : {"faye", "cometd"})
        ASSERT_EQ(text(parseLine(peers.at(peer)->firstLine(20s).value_or("")), "event"), "ready")
            << peers.at(peer)->errors();
    publish(*members[0], "/mesh/go",
            "{\"start\":[\"faye\",\"cometd\",\"client\",\"host\"],\"count\":" +
                std::to_string(kCount) + "}");
    for (const auto& peer : names) {
        std::map<std::string, std::vector<std::string>> expected;
        for (const auto& from : names) {
            for (int n = 0; n < kCount; ++n)
                expected["/mesh/all/" + from].push_back("{\"from\":\"" + from +
                                                        "\",\"n\":" + std::to_string(n) + "}");
            if (from != peer)
                expected["/mesh/to/" + peer].push_back("{\"from\":\"" + from + "\"}");
        }
        waitUntil([&] { return byChannel(got(peer)) == expected; }, 20s);
        EXPECT_EQ(byChannel(got(peer)), expected) << peer;
        EXPECT_TRUE(heard.has("+/mesh/to/" + peer)) << peer;
    }
    client.subscriptions.front()->unsubscribe();
    EXPECT_TRUE(waitUntil([&] { return heard.has("-/mesh/to/client"); }));
    // Made, a subscription misses nothing published anywhere: a message published on another
    // member at once reaches the client service through hub C, and the host's service.
    for (auto* peer : {&client, &host}) {
        const std::string channel = "/fresh/" + peer->name_;
        auto subscription = peer->service_->subscribe(channel, heard.sink());
        ASSERT_TRUE(subscription.waitFor(10s));
        publish(*members[1], channel, "{}");
        EXPECT_TRUE(waitUntil([&] { return heard.has(channel + " {}"); })) << channel;
    }

    // A member on the third node ticks every 20 ms until one sent from now on reaches Faye's
    // client, within `bound`.
    int tick = 0;
    auto ticksArrive = [&, &faye = *peers.at("faye")](std::chrono::milliseconds bound) {
        const int first = tick;
        return waitUntil(
            [&] {
                publish(*members[2], "/mesh/all/tick", "{\"n\":" + std::to_string(tick++) + "}");
                std::this_thread::sleep_for(20ms);
                for (const auto& line : received(faye))
                    if (line.rfind("/orvale/mesh/all/tick ", 0) == 0 &&
                        parseLine(line.substr(22)).at("n").to_number<int>() >= first)
                        return true;
                return false;
            },
            bound);
    };
    ASSERT_TRUE(ticksArrive(15s)) << peers["faye"]->errors();
    nats.kill(0);
    EXPECT_TRUE(ticksArrive(10s)) << a->process->errors();
    a->process->kill(SIGKILL);
    EXPECT_TRUE(ticksArrive(20s)) << peers["faye"]->errors();
    publish(*members[2], "/mesh/all/end", "{\"stop\":true}");
    for (auto& [name, peer] : peers) {
        EXPECT_EQ(run(*peer), 0) << name << ": " << peer->errors();
        EXPECT_EQ(text(resultOf(*peer), "result"), "ok") << name;
    }
}

}  // namespace
}  // namespace orvale::test
