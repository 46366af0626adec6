// orvale sub and orvale pub: a client message service on the command line.

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/string.hpp>
#include <iostream>
#include <optional>

#include "cli.h"
#include "client_factory.h"
#include "commands.h"
#include "signals.h"

#include "connector/common/mutex.h"

namespace orvale::app {

namespace ms = connector::message_service;
using namespace std::chrono_literals;

namespace {

const char* const kSubUsage =
    R"(usage: orvale sub URL CHANNEL... [--count N] [--api-key K | --api-key-file F]

Subscribes to each application CHANNEL (such as /chat/room or /chat/*) at the Bayeux endpoint
URL (such as ws://127.0.0.1:8080/bayeux, or http://… for long-polling) and prints one JSON
line per message on stdout:
{"channel":...,"data":...}. Runs until SIGINT or SIGTERM, or until N messages have been printed.
When the connection is lost it reconnects and subscribes again, waiting between attempts from
0.5 s doubling up to 30 s; it exits when the endpoint refuses it (advice none, 401 or 403).

  --count N      exit after N messages
  --api-key K    the endpoint's API key
  --api-key-file F
                 the same, from the first line of F (out of sight of ps)
)";

const char* const kPubUsage = R"(usage: orvale pub URL CHANNEL JSON [--api-key K | --api-key-file F]

Publishes the JSON text on the application CHANNEL (such as /chat/room) at the Bayeux endpoint
URL (such as ws://127.0.0.1:8080/bayeux, or http://… for long-polling) and exits once the
endpoint has accepted it.

  --api-key K    the endpoint's API key
  --api-key-file F
                 the same, from the first line of F (out of sight of ps)
)";

}  // namespace

int runSub(const Words& words) {
    const Args args(words, {"--count", "--api-key", "--api-key-file"}, {"--help"});
    if (args.has("--help")) {
        std::cout << kSubUsage;
        return 0;
    }
    if (args.positional().size() < 2)
        throw UsageError("needs a URL and at least one CHANNEL");
    const std::uint64_t count = args.number("--count", 0, 1, UINT64_MAX);
    const std::string& url = args.positional()[0];

    std::optional<StopWhileStarting> starting(std::in_place);
    ClientFactory factory;
    // Kept across a restart of the endpoint; gone only when the endpoint refuses it.
    auto service = factory.connect("orvale-sub", url, apiKey(args), 10s, {{"reconnect", "on"}});
    std::atomic<bool> done{false};
    std::atomic<bool> lost{false};
    auto states = service
                      ->listenStateChange([&](const ms::StateChangeEvent& event) {
                          if (event.newState == ms::ConnectionState::DISCONNECTED ||
                              event.newState == ms::ConnectionState::FATALLY_DISCONNECTED) {
                              lost = true;
                              done = true;
                          }
                      })
                      .get();

    connector::common::Mutex outputMutex;
    std::uint64_t printed = 0;  // guarded by outputMutex
    // The message printed last. Overlapping subscriptions are each called with the same
    // delivered message; holding it keeps its payload's address from being reused.
    std::optional<ms::JsonMessage> last;  // guarded by outputMutex
    auto print = [&](const ms::JsonMessage& message) {
        connector::common::MutexLock lock(outputMutex);
        if (count != 0 && printed >= count)
            return;
        if (last && &last->getJson() == &message.getJson())
            return;
        last = message;
        std::cout << "{\"channel\":"
                  << boost::json::serialize(boost::json::string(message.getChannel()))
                  << ",\"data\":" << message.getJson() << "}\n"
                  << std::flush;
        if (++printed == count)
            done = true;
    };
    std::vector<std::shared_ptr<ms::Subscription>> subscriptions;
    for (std::size_t i = 1; i < args.positional().size(); ++i) {
        const std::string& channel = args.positional()[i];
        auto subscribed = service->subscribe(channel, print);
        subscriptions.push_back(await(subscribed, 10s, "cannot subscribe to " + channel));
    }
    starting.reset();
    waitForStop(done);
    bool finished = false;
    {
        connector::common::MutexLock lock(outputMutex);
        finished = count != 0 && printed >= count;
    }
    if (lost && !finished)
        throw Failure("the connection to " + url + " was lost");
    subscriptions.clear();
    service->disconnect().waitFor(2s);
    return 0;
}

int runPub(const Words& words) {
    const Args args(words, {"--api-key", "--api-key-file"}, {"--help"});
    if (args.has("--help")) {
        std::cout << kPubUsage;
        return 0;
    }
    if (args.positional().size() != 3)
        throw UsageError("needs a URL, a CHANNEL and the JSON to publish");
    const std::string& url = args.positional()[0];
    const std::string& channel = args.positional()[1];
    const std::string& json = args.positional()[2];
    boost::json::error_code ec;
    boost::json::parse(json, ec);
    if (ec)
        throw UsageError("the message is not valid JSON: " + ec.message());

    ClientFactory factory;
    auto service = factory.connect("orvale-pub", url, apiKey(args));
    auto published = service->publish(channel, std::string(json));
    await(published, 10s, "cannot publish on " + channel);
    auto disconnected = service->disconnect();
    disconnected.waitFor(2s);
    return 0;
}

}  // namespace orvale::app
