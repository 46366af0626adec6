// The orvale program as users run it: serve, sub, pub, demo, exit statuses and error lines, and
// our client services against a hub in another process.

#include <atomic>
#include <mutex>
#include <set>

#include "common.h"
#include "connector/message_service.h"
#include "log_capture.h"

namespace orvale::test {
namespace {

namespace ms = connector::message_service;

std::unique_ptr<ChildProcess> orvale(std::vector<std::string> args) {
    args.insert(args.begin(), orvaleExe());
    return std::make_unique<ChildProcess>(args);
}

// What a failed command leaves on stderr: exactly one non-empty line.
void expectOneLine(const ChildProcess& child, const std::string& mentions) {
    const auto lines = splitLines(child.errors());
    ASSERT_EQ(lines.size(), 1u) << child.errors();
    EXPECT_NE(lines[0].find(mentions), std::string::npos) << lines[0];
}

TEST(OrvaleProgramTest, SubPrintsWhatPubPublishesOnExactAndWildcardChannels) {
    ServeProcess serve;
    auto sub = orvale({"sub", serve.url, "/chat/room", "/chat/x/*", "--count", "4"});
    // Publish until the subscriber has printed four lines; the first may be published before
    // its subscriptions are in place, so a prefix of the run may be missed, never a middle.
    int n = 0;
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!sub->waitExit(0ms) && std::chrono::steady_clock::now() < deadline) {
        const std::string channel = n % 2 == 0 ? "/chat/room" : "/chat/x/y";
        auto pub = orvale({"pub", serve.url, channel, "{\"n\":" + std::to_string(n) + "}"});
        ASSERT_EQ(run(*pub), 0) << pub->errors();
        EXPECT_EQ(pub->errors(), "");
        ++n;
    }
    ASSERT_EQ(run(*sub), 0) << sub->errors();
    const auto lines = sub->lines();
    ASSERT_EQ(lines.size(), 4u);
    const auto first = parseLine(lines[0]);
    ASSERT_TRUE(first.contains("data")) << lines[0];
    const auto start = first.at("data").at("n").to_number<int>();
    for (int i = 0; i < 4; ++i) {
        const auto line = parseLine(lines[static_cast<std::size_t>(i)]);
        const int expected = start + i;
        EXPECT_EQ(text(line, "channel"), expected % 2 == 0 ? "/chat/room" : "/chat/x/y");
        EXPECT_EQ(boost::json::serialize(line.at("data")),
                  "{\"n\":" + std::to_string(expected) + "}");
    }
    EXPECT_EQ(sub->errors(), "");
}

TEST(OrvaleProgramTest, ClientServicesTalkThroughServeInAnotherProcess) {
    ServeProcess serve;
    auto delegator = std::make_shared<ms::MessageServiceFactoryDelegatorImpl>(
        std::make_shared<ms::MessageServiceFactoryServerDelegate>(
            connector::bayeux::makeBayeuxServer()),
        std::make_shared<ms::MessageServiceFactoryClientDelegate>(connector::makeContext()));
    auto alice = delegator->createMessageService("alice", {{"endpoint", serve.url}}).get();
    auto bob = delegator->createMessageService("bob", {{"endpoint", serve.url}}).get();

    std::mutex mutex;
    std::vector<std::string> heard;
    auto record = [&](const std::string& who) {
        return [&, who](const ms::JsonMessage& m) {
            std::lock_guard<std::mutex> lock(mutex);
            heard.push_back(who + " " + m.getChannel() + " " + m.getJson());
        };
    };
    auto count = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        return heard.size();
    };
    auto news = bob->subscribe("/news/**", record("bob")).get();
    auto replies = alice->subscribe("/replies", record("alice")).get();
    EXPECT_TRUE(alice->publish("/news/today", R"({"x":1})").get().success);
    ASSERT_TRUE(waitUntil([&] { return count() == 1; }));
    EXPECT_TRUE(bob->publish("/replies", R"({"thanks":true})").get().success);
    ASSERT_TRUE(waitUntil([&] { return count() == 2; }));
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(heard, (std::vector<std::string>{R"(bob /news/today {"x":1})",
                                                   R"(alice /replies {"thanks":true})"}));
    }
    EXPECT_TRUE(alice->disconnect().get().success);
    EXPECT_TRUE(bob->disconnect().get().success);
}

TEST(OrvaleProgramTest, TheApiKeyOfServeIsRequired) {
    ServeProcess serve({"--api-key", "k3y"});
    auto refused = orvale({"pub", serve.url, "/a", "1"});
    EXPECT_EQ(run(*refused), 1);
    expectOneLine(*refused, "403::Unauthorized");
    auto wrong = orvale({"pub", serve.url, "/a", "1", "--api-key", "nope"});
    EXPECT_EQ(run(*wrong), 1);
    expectOneLine(*wrong, "403::Unauthorized");
    auto accepted = orvale({"pub", serve.url, "/a", "1", "--api-key", "k3y"});
    EXPECT_EQ(run(*accepted), 0) << accepted->errors();
}

TEST(OrvaleProgramTest, FailuresExitNonZeroWithOneLine) {
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string mentions;
    };
    const std::vector<Case> cases = {
        {{"pub", "ws://127.0.0.1:1/bayeux", "/a", "1"}, 1, "Connection refused"},
        {{"pub", "ws://127.0.0.1:1/bayeux", "/a", "{not json"}, 2, "not valid JSON"},
        {{"pub", "not-a-url", "/a", "1"}, 1, "not-a-url"},
        {{"sub", "ws://127.0.0.1:1/bayeux"}, 2, "CHANNEL"},
        {{"sub", "ws://127.0.0.1:1/bayeux", "/a", "--count", "zero"}, 2, "--count"},
        {{"serve", "--port", "70000"}, 2, "--port"},
        {{"serve", "--bogus"}, 2, "unknown option --bogus"},
        {{"nosuch"}, 2, "unknown command"},
    };
    for (const auto& c : cases) {
        auto child = orvale(c.args);
        EXPECT_EQ(run(*child), c.status) << c.args[0] << " " << c.args.back();
        expectOneLine(*child, c.mentions);
        EXPECT_TRUE(child->lines().empty());
    }
    // A port that is taken.
    ServeProcess serve;
    const std::string port =
        serve.url.substr(serve.url.rfind(':') + 1, serve.url.rfind('/') - serve.url.rfind(':') - 1);
    auto clash = orvale({"serve", "--port", port});
    EXPECT_EQ(run(*clash), 1);
    expectOneLine(*clash, "Cannot listen");
}

TEST(OrvaleProgramTest, EveryCommandExplainsItself) {
    for (const std::string command : {"serve", "sub", "pub", "demo", "bench"}) {
        auto help = orvale({command, "--help"});
        EXPECT_EQ(run(*help), 0) << command;
        const auto lines = help->lines();
        ASSERT_FALSE(lines.empty()) << command;
        EXPECT_EQ(lines[0].rfind("usage: orvale " + command, 0), 0u) << lines[0];
        EXPECT_EQ(help->errors(), "");
    }
    auto top = orvale({"--help"});
    EXPECT_EQ(run(*top), 0);
    EXPECT_FALSE(top->lines().empty());
}

TEST(OrvaleProgramTest, DemoExchangesMessagesBothWays) {
    auto demo = orvale({"demo"});
    ASSERT_EQ(run(*demo, 30s), 0) << demo->errors();
    int questions = 0;
    int answers = 0;
    std::set<std::string> states;
    for (const auto& line : demo->lines()) {
        questions += line.rfind("desk: received on /demo/questions", 0) == 0;
        answers += line.rfind("visitor: received on /demo/answers", 0) == 0;
        if (line.rfind("visitor: state ", 0) == 0)
            states.insert(line);
    }
    EXPECT_EQ(questions, 3);
    EXPECT_EQ(answers, 3);
    EXPECT_TRUE(states.count("visitor: state CONNECTED -> DISCONNECTING"));
    EXPECT_TRUE(states.count("visitor: state DISCONNECTING -> DISCONNECTED"));
    EXPECT_EQ(demo->errors(), "");
}

TEST(OrvaleProgramTest, VerboseLogsGoToStderr) {
    auto demo = orvale({"-v", "demo"});
    ASSERT_EQ(run(*demo, 30s), 0);
    EXPECT_NE(demo->errors().find("orvale [trace] connector::message_service"), std::string::npos);
}

TEST(OrvaleProgramTest, ServeEndsCleanlyOnSignalsAndSubNoticesAGoneHub) {
    for (int signal : {SIGTERM, SIGINT}) {
        ServeProcess serve;
        auto sub = orvale({"sub", serve.url, "/a"});
        // The subscriber is connected once the hub answers; publishing shows that.
        ASSERT_TRUE(waitUntil(
            [&] {
                auto pub = orvale({"pub", serve.url, "/a", "1"});
                return run(*pub) == 0 &&
                       sub->waitLine([](const std::string&) { return true; }, 100ms);
            },
            10s));
        serve.process->kill(signal);
        EXPECT_EQ(run(*serve.process), 0);
        EXPECT_EQ(run(*sub), 1);
        expectOneLine(*sub, "was lost");
    }
}

}  // namespace
}  // namespace orvale::test
