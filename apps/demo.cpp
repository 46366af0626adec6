// orvale demo: a hub in this process, a server service on its Bayeux server and a client
// service connected to it over a real WebSocket, exchanging messages both ways.

#include <condition_variable>
#include <iostream>

#include "cli.h"
#include "client_factory.h"
#include "commands.h"

#include "connector/common/mutex.h"

namespace orvale::app {

namespace ms = connector::message_service;
using namespace std::chrono_literals;

namespace {

const char* const kUsage = R"(usage: orvale demo

Starts a Bayeux hub on a free loopback port with a server service ("desk") on its in-process
server, connects a client service ("visitor") to it over WebSocket, and lets them talk: the
visitor asks three questions on /demo/questions, the desk answers each on /demo/answers.
Prints every step and every state change, then exits.
)";

// Lines from several threads, whole and in the order they were written.
class Printer {
  public:
    void line(const std::string& text) {
        connector::common::MutexLock lock(mutex_);
        std::cout << text << "\n" << std::flush;
    }

  private:
    connector::common::Mutex mutex_;
};

}  // namespace

int runDemo(const Words& words) {
    const Args args(words, {}, {"--help"});
    if (args.has("--help")) {
        std::cout << kUsage;
        return 0;
    }
    if (!args.positional().empty())
        throw UsageError("unexpected argument '" + args.positional().front() + "'");
    Printer out;

    auto server = connector::bayeux::makeBayeuxServer();
    connector::bayeux::EndpointOptions options;
    auto endpoint = connector::bayeux::startBayeuxEndpoint(server, options);
    const std::string url = "ws://127.0.0.1:" + std::to_string(endpoint->port()) + "/bayeux";
    out.line("hub: serving " + url);

    auto delegator = std::make_shared<ms::MessageServiceFactoryDelegatorImpl>(
        std::make_shared<ms::MessageServiceFactoryServerDelegate>(server),
        std::make_shared<ms::MessageServiceFactoryClientDelegate>(connector::makeContext()));

    auto deskFuture = delegator->createMessageService("desk", {});
    auto desk = await(deskFuture, 5s, "cannot create the server service");
    out.line("desk: server service on the hub's Bayeux server, " +
             std::string(ms::toString(desk->getState())));
    auto watching = desk->listenSubscribe("/demo/**", [&](const ms::SubscribeEvent& event) {
        out.line("desk: a client subscribed to " + event.getChannel());
    });
    auto watch = await(watching, 5s, "cannot listen for subscriptions");
    std::weak_ptr<ms::MessageService> weakDesk = desk;  // the desk owns this callback
    auto answering = desk->subscribe("/demo/questions", [&, weakDesk](const ms::JsonMessage& m) {
        out.line("desk: received on " + m.getChannel() + ": " + m.getJson());
        if (auto self = weakDesk.lock())
            self->publish("/demo/answers", "{\"answer\":\"pong\",\"to\":" + m.getJson() + "}");
    });
    auto questions = await(answering, 5s, "the desk cannot subscribe");

    auto visitorFuture = delegator->createMessageService("visitor", {{"endpoint", url}});
    auto visitor = await(visitorFuture, 10s, "the visitor cannot connect to " + url);
    out.line("visitor: client service connected over WebSocket, " +
             std::string(ms::toString(visitor->getState())));
    auto states =
        visitor
            ->listenStateChange([&](const ms::StateChangeEvent& event) {
                out.line(std::string("visitor: state ") + ms::toString(event.previousState) +
                         " -> " + ms::toString(event.newState));
            })
            .get();

    connector::common::Mutex mutex;
    std::condition_variable answered;
    int answers = 0;  // guarded by mutex
    auto listening = visitor->subscribe("/demo/answers", [&](const ms::JsonMessage& m) {
        out.line("visitor: received on " + m.getChannel() + ": " + m.getJson());
        connector::common::MutexLock lock(mutex);
        ++answers;
        answered.notify_all();
    });
    auto answersSubscription = await(listening, 5s, "the visitor cannot subscribe");

    constexpr int kQuestions = 3;
    for (int i = 1; i <= kQuestions; ++i) {
        const std::string question = "{\"question\":\"ping\",\"n\":" + std::to_string(i) + "}";
        out.line("visitor: publishing on /demo/questions: " + question);
        auto published = visitor->publish("/demo/questions", std::string(question));
        await(published, 5s, "the visitor cannot publish");
    }
    {
        connector::common::UniqueLock lock(mutex);
        if (!answered.wait_for(lock.native(), 5s, [&] { return answers == kQuestions; }))
            throw Failure("the visitor got " + std::to_string(answers) + " of " +
                          std::to_string(kQuestions) + " answers");
    }
    auto disconnected = visitor->disconnect();
    await(disconnected, 5s, "the visitor cannot disconnect");
    out.line("demo: " + std::to_string(kQuestions) + " questions asked and answered; " +
             std::to_string(endpoint->sessionCount()) + " remote sessions left");
    endpoint->stop();
    return 0;
}

}  // namespace orvale::app
