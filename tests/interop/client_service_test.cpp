// Client services made by the delegator against real servers: Faye, alone and two sharing a
// Redis engine, and our own hub, over WebSocket and long-polling.

#include <filesystem>
#include <optional>

#include "common.h"
#include "connector/message_service.h"
#include "failure_text.h"
#include "inbox.h"

namespace connector::message_service {
namespace {

using namespace orvale::test;
using Strings = std::vector<std::string>;

std::shared_ptr<MessageServiceFactoryDelegatorImpl> makeDelegator(
    std::shared_ptr<Context> context = makeContext()) {
    return std::make_shared<MessageServiceFactoryDelegatorImpl>(
        std::make_shared<MessageServiceFactoryServerDelegate>(bayeux::makeBayeuxServer()),
        std::make_shared<MessageServiceFactoryClientDelegate>(std::move(context)));
}

// The same endpoint under another scheme: "http" or "ws".
std::string withScheme(const std::string& url, const std::string& scheme) {
    return scheme + url.substr(url.find("://"));
}

struct ClientServiceWithFaye : ::testing::Test {
    void SetUp() override { ORVALE_REQUIRE_NODE(); }

    std::string startFaye(std::vector<std::string> args = {"--timeout", "1"}) {
        fayes.push_back(startNode("faye_server.js", std::move(args)));
        return "ws://127.0.0.1:" + *fayes.back()->firstLine(0s) + "/bayeux";
    }
    std::shared_ptr<MessageService> create(const std::string& name, const std::string& endpoint,
                                           Options options = {}) {
        options["endpoint"] = endpoint;
        auto future = delegator->createMessageService(name, std::move(options));
        if (!future.waitFor(10s))
            throw std::runtime_error("creating " + name + " timed out");
        return future.get();
    }
    bool reaches(const std::shared_ptr<MessageService>& service, ConnectionState state) {
        return waitUntil([&] { return service->getState() == state; }, 10s);
    }

    std::vector<std::unique_ptr<ChildProcess>> fayes;
    std::shared_ptr<MessageServiceFactoryDelegatorImpl> delegator = makeDelegator();
};

// Two Faye servers share a Redis engine: a service's publications reach subscribers on both; a
// cancelled subscription hears nothing more. Once the second server is killed, a service without
// reconnection fails (a new one with the URL); with it, subscriptions resume after a restart.
TEST_F(ClientServiceWithFaye, SubscriptionsAcrossTwoServersSharingRedisOutliveOneOfThem) {
    const std::string socket = "/tmp/orvale-redis-" + std::to_string(::getpid()) + ".sock";
    ChildProcess redis({"redis-server", "--port", "0", "--unixsocket", socket, "--save", "",
                        "--appendonly", "no"});
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(socket); }, 10s)) << redis.errors();
    auto alice = create("alice", startFaye({"--timeout", "1", "--redis-socket", socket}));
    const std::string url = startFaye({"--timeout", "1", "--redis-socket", socket});
    auto bob = create("bob", url, {{"reconnect", "on"}, {"reconnect.maxDelayMs", "200"}});
    auto plain = create("plain", url);
    Inbox exact, deep, own;
    auto s1 = bob->subscribe("/room/a", exact.sink()).get();
    auto s2 = bob->subscribe("/room/**", deep.sink()).get();
    auto s3 = alice->subscribe("/room/*", own.sink()).get();
    EXPECT_TRUE(alice->publish("/room/a", "{\"n\":1}").get().success);
    EXPECT_TRUE(alice->publish("/room/a/b", "[2]").get().success);
    EXPECT_TRUE(alice->publish("/elsewhere", "3").get().success);
    ASSERT_TRUE(waitUntil([&] { return deep.size() == 2 && own.size() == 1; }));
    EXPECT_EQ(deep.snapshot(), (Strings{"/room/a {\"n\":1}", "/room/a/b [2]"}));
    EXPECT_EQ(exact.snapshot(), (Strings{"/room/a {\"n\":1}"}));
    EXPECT_EQ(own.snapshot()[0], "/room/a {\"n\":1}");

    // A marker on another subscription shows the later message went by; it crosses back too.
    s1->unsubscribe().get();
    bob->publish("/room/a", "4").get();
    ASSERT_TRUE(waitUntil([&] { return deep.size() == 3 && own.size() == 2; }));
    EXPECT_EQ(exact.size(), 1u);

    const std::string port = *fayes[1]->firstLine(0s);
    fayes[1]->kill(SIGKILL);
    ASSERT_TRUE(reaches(plain, ConnectionState::DISCONNECTED));
    auto publish = plain->publish("/a", "1");
    ASSERT_TRUE(publish.waitFor(5s));
    EXPECT_THROW(publish.get(), std::runtime_error);
    EXPECT_TRUE(plain->disconnect().waitFor(1s));
    for (const std::string& dead : {url, withScheme(url, "http")}) {
        const auto error =
            failureText(delegator->createMessageService("new", {{"endpoint", dead}}));
        EXPECT_NE(error.find(dead), std::string::npos) << error;
        EXPECT_EQ(delegator->getMessageService("new"), nullptr);
    }
    ASSERT_TRUE(reaches(bob, ConnectionState::RECONNECTING));
    startFaye({"--timeout", "1", "--redis-socket", socket, "--port", port});
    ASSERT_TRUE(reaches(bob, ConnectionState::CONNECTED));
    EXPECT_TRUE(alice->publish("/room/a/c", "5").get().success);
    EXPECT_TRUE(waitUntil([&] { return deep.has("/room/a/c 5"); }));
    alice->disconnect().waitFor(2s);
    EXPECT_TRUE(bob->disconnect().waitFor(5s));
    std::filesystem::remove(socket);
}

class ClientServiceOverEachTransport
    : public ClientServiceWithFaye,
      public ::testing::WithParamInterface<std::tuple<std::string, std::string>> {};

// Faye and our hub, over WebSocket, long-polling and long-polling with TLS, answer a held connect
// after a second. The header option goes on every request, and only the cookies that apply (of
// those Faye's script sets for the site, another path and TLS only) go back.
TEST_P(ClientServiceOverEachTransport, SubscribesPublishesReceivesUnsubscribesAndDisconnects) {
    const auto& [server, scheme] = GetParam();
    std::optional<TestCertificates> certificates;
    bayeux::EndpointOptions options;
    options.connectTimeout = 1s;
    std::vector<std::string> fayeArgs{"--timeout", "1", "--show-requests", "1"};
    if (scheme == "https") {
        const std::string pem = certificates.emplace().dir + "/server";
        options.certFile = pem + ".pem";
        options.keyFile = pem + ".key";
        fayeArgs.insert(fayeArgs.end(), {"--cert", pem + ".pem", "--key", pem + ".key"});
    }
    auto hub = bayeux::startBayeuxEndpoint(bayeux::makeBayeuxServer(), options);
    std::string url =
        withScheme(server == "hub" ? "ws://127.0.0.1:" + std::to_string(hub->port()) + "/bayeux"
                                   : startFaye(fayeArgs),
                   scheme);
    if (certificates) {
        // The certificate names localhost. Verified as for wss://: the system store alone does
        // not know the test CA, the CA file given to the transport does.
        url = "https://localhost" + url.substr(url.rfind(':'));
        EXPECT_NE(failureText(delegator->createMessageService("untrusting", {{"endpoint", url}}))
                      .find("certificate verify failed"),
                  std::string::npos);
        bayeux::LongPollingTransportOptions trusting;
        trusting.caFile = certificates->dir + "/ca.pem";
        auto context = makeContext();
        context->registerService(bayeux::longPollingTransportAddress(),
                                 bayeux::makeLongPollingTransport(trusting));
        delegator = makeDelegator(context);
    }
    LogCapture capture;
    auto service = create("alice", url, {{"header.Authorization", "Bt"}});
    Inbox exact, wild;
    auto s1 = service->subscribe("/room/a", exact.sink()).get();
    auto s2 = service->subscribe("/room/*", wild.sink()).get();
    EXPECT_TRUE(service->publish("/room/a", "{\"n\":1}").get().success);
    EXPECT_TRUE(service->publish("/room/b", "[2]").get().success);
    ASSERT_TRUE(waitUntil([&] { return wild.size() == 2; }));
    EXPECT_EQ(exact.snapshot(), (Strings{"/room/a {\"n\":1}"}));

    // With nothing to deliver, a held connect ends only at its timeout; deliveries still come, none
    // to the subscription given up, and no more connects go than deliveries and timeouts explain.
    s1->unsubscribe().get();
    const auto quiet = capture.count("Sending meta connect");
    const auto since = std::chrono::steady_clock::now();
    ASSERT_TRUE(waitUntil([&] { return capture.count("Sending meta connect") >= quiet + 2; }, 5s));
    EXPECT_GE(std::chrono::steady_clock::now() - since, 900ms);
    EXPECT_TRUE(service->publish("/room/a", "3").get().success);
    ASSERT_TRUE(waitUntil([&] { return wild.size() == 3; }));
    EXPECT_EQ(exact.size(), 1u);
    EXPECT_EQ(capture.count("Meta connect error: "), 0u);
    EXPECT_LE(capture.count("Sending meta connect"), quiet + 3);

    auto done = service->disconnect();
    ASSERT_TRUE(done.waitFor(5s));
    EXPECT_TRUE(done.get().success);
    if (server == "hub")
        return;
    std::vector<std::string> cookies;  // of the upgrade or of each POST
    for (const auto& line : fayes[0]->lines())
        if (const auto request = parseLine(line); !request.empty()) {  // not the port
            EXPECT_EQ(text(request, "authorization"), "Bt") << line;
            cookies.push_back(text(request, "cookie"));
        }
    ASSERT_GE(cookies.size(), scheme == "ws" ? 1u : 4u);  // handshake, connect, publish, disconnect
    EXPECT_EQ(cookies[0], "");
    for (std::size_t i = 1; i < cookies.size(); ++i)
        EXPECT_EQ(cookies[i], scheme == "https" ? "sticky=n1; tls=y" : "sticky=n1");
}

INSTANTIATE_TEST_SUITE_P(ServersAndSchemes, ClientServiceOverEachTransport,
                         ::testing::Combine(::testing::Values("faye", "hub"),
                                            ::testing::Values("ws", "http", "https")),
                         [](const auto& info) {
                             return std::get<0>(info.param) + "_" + std::get<1>(info.param);
                         });

}  // namespace
}  // namespace connector::message_service
