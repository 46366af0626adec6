// Beyond one machine: two Faye servers sharing a Redis engine, with our client services on
// both; what one publishes reaches subscribers on the other.

#include <netinet/in.h>
#include <sys/socket.h>

#include <mutex>

#include "common.h"
#include "connector/message_service.h"
#include "log_capture.h"

namespace orvale::test {
namespace {

namespace ms = connector::message_service;

// A loopback port nobody listens on at the moment of asking.
int freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

bool accepts(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

struct Inbox {
    std::function<void(const ms::JsonMessage&)> callback() {
        return [this](const ms::JsonMessage& m) {
            std::lock_guard<std::mutex> lock(mutex);
            items.push_back(m.getChannel() + " " + m.getJson());
        };
    }
    bool has(const std::string& item) {
        std::lock_guard<std::mutex> lock(mutex);
        return std::find(items.begin(), items.end(), item) != items.end();
    }
    std::mutex mutex;
    std::vector<std::string> items;
};

TEST(FayeClusterTest, MessagesCrossTwoServersSharingRedis) {
    const int redisPort = freePort();
    ChildProcess redis({"redis-server", "--port", std::to_string(redisPort), "--bind", "127.0.0.1",
                        "--save", "", "--appendonly", "no"});
    ASSERT_TRUE(waitUntil([&] { return accepts(redisPort); }, 10s)) << redis.errors();

    std::vector<std::unique_ptr<ChildProcess>> fayes;
    std::vector<std::string> urls;
    for (int i = 0; i < 2; ++i) {
        fayes.push_back(node("faye_server.js", {"--redis-port", std::to_string(redisPort)}));
        auto port = fayes.back()->firstLine(10s);
        ASSERT_TRUE(port) << fayes.back()->errors();
        urls.push_back("ws://127.0.0.1:" + *port + "/bayeux");
    }

    auto delegator = std::make_shared<ms::MessageServiceFactoryDelegatorImpl>(
        std::make_shared<ms::MessageServiceFactoryServerDelegate>(
            connector::bayeux::makeBayeuxServer()),
        std::make_shared<ms::MessageServiceFactoryClientDelegate>(connector::makeContext()));
    auto left = delegator->createMessageService("left", {{"endpoint", urls[0]}}).get();
    auto right = delegator->createMessageService("right", {{"endpoint", urls[1]}}).get();
    Inbox leftInbox, rightInbox;
    auto s1 = right->subscribe("/cluster/east", rightInbox.callback()).get();
    auto s2 = left->subscribe("/cluster/*", leftInbox.callback()).get();

    EXPECT_TRUE(left->publish("/cluster/east", R"({"from":"left"})").get().success);
    EXPECT_TRUE(waitUntil([&] { return rightInbox.has(R"(/cluster/east {"from":"left"})"); }));
    EXPECT_TRUE(right->publish("/cluster/west", R"({"from":"right"})").get().success);
    EXPECT_TRUE(waitUntil([&] { return leftInbox.has(R"(/cluster/west {"from":"right"})"); }));
    // The left service's wildcard also saw its own message, through its own server.
    EXPECT_TRUE(leftInbox.has(R"(/cluster/east {"from":"left"})"));
    left->disconnect().waitFor(2s);
    right->disconnect().waitFor(2s);
}

}  // namespace
}  // namespace orvale::test
