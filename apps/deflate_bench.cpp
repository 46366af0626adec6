// orvale bench --deflate: what permessage-deflate saves on the wire and costs in CPU when a hub
// delivers JSON messages to a WebSocket subscriber, against a fresh hub without and with
// --deflate. A measurement, not a test: it prints figures and asserts none.

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <cstdio>
#include <thread>

#include "bench_modes.h"
#include "cli.h"
#include "process.h"
#include "raw_client.h"

namespace orvale::app {

using namespace std::chrono_literals;
using tools::HubAddress;
using tools::parseHubUrl;
using tools::RawClient;

namespace {

struct Run {
    double wireBytes = 0;   // per delivery, as the subscriber's TCP counted them
    double hubMicros = 0;   // hub CPU per delivery
    double loadMicros = 0;  // this process's CPU per delivery: both clients
};

// A delivery as a market data feed might publish it: short names, numbers, a timestamp.
std::string quote(std::size_t seq) {
    char text[160];
    std::snprintf(text, sizeof text,
                  R"({"symbol":"ORV%zu","price":%zu.%02zu,"size":%zu,"side":"%s","venue":"XNAS",)"
                  R"("time":"2026-11-24T01:%02zu:%02zu.%03zuZ","seq":%zu})",
                  seq % 50, 100 + seq % 37, seq % 100, 100 * (1 + seq % 9),
                  seq % 2 ? "buy" : "sell", seq / 60000 % 60, seq / 1000 % 60, seq % 1000, seq);
    return text;
}

// `publish` with the id `id`, so that its answer can be waited for.
std::string withId(std::string publish, const std::string& id) {
    return publish.insert(1, "\"id\":\"" + id + "\",");
}

// Bursts: frames of 50 publishes, the hub batching deliveries as they come; or one at a time:
// each message delivered before the next is published, a frame each.
Run measureOnce(const DeflateSettings& settings, bool deflate, bool oneAtATime) {
    std::vector<std::string> argv{settings.hub, "serve", "--port", "0"};
    if (deflate)
        argv.push_back("--deflate");
    ChildProcess hub(argv);
    const HubAddress address = parseHubUrl(hub.firstLine(10s));
    boost::asio::io_context subscriberIo, publisherIo;
    // The subscriber always offers compression; only a hub with --deflate takes it up.
    RawClient subscriber(subscriberIo, address, RawClient::Options{"", "", 0, true});
    RawClient publisher(publisherIo, address);
    if (subscriber.handshake(5s) || publisher.handshake(5s) ||
        !subscriber.subscribeAndConnect("/bench/quotes", 5s))
        throw Failure("cannot subscribe at the hub");
    const std::size_t count = oneAtATime ? settings.messages / 20 : settings.messages;
    const std::uint64_t bytes = subscriber.bytesReceived();
    const double hubCpu = hub.cpuSeconds(), ownCpu = ownCpuSeconds();
    const auto seq = [](std::size_t i) { return "\"seq\":" + std::to_string(i) + "}"; };
    bool received = true;
    std::thread reader;
    if (!oneAtATime)
        reader =
            std::thread([&] { received = subscriber.readUntil(seq(count - 1), 60s).has_value(); });
    for (std::size_t i = 0, frames = 0; i < count && received; ++frames) {
        std::string frame = "[";
        for (std::size_t end = std::min(count, i + (oneAtATime ? 1 : 50)); i < end; ++i)
            frame += (frame.size() > 1 ? "," : "") +
                     withId(publisher.publishMessage("/bench/quotes", quote(i)), std::to_string(i));
        publisher.send(frame + "]");
        if (oneAtATime)
            received = subscriber.readUntil(seq(i - 1), 10s).has_value();
        // Taking the answers now and then keeps the hub reading, and the publisher in step.
        if (oneAtATime || frames % 20 == 19 || i == count)
            received = received &&
                       publisher.readUntil("\"id\":\"" + std::to_string(i - 1), 10s).has_value();
    }
    if (reader.joinable())
        reader.join();
    if (!received)
        throw Failure("the subscriber did not receive every message");
    const double n = static_cast<double>(count);
    return {static_cast<double>(subscriber.bytesReceived() - bytes) / n,
            (hub.cpuSeconds() - hubCpu) * 1e6 / n, (ownCpuSeconds() - ownCpu) * 1e6 / n};
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int runDeflate(const DeflateSettings& settings) {
    std::printf(
        "orvale bench --deflate: JSON deliveries of about %zu bytes to one WebSocket "
        "subscriber, median of %zu runs\n",
        quote(12345).size(), settings.repeat);
    std::printf("%-44s %12s %16s %20s\n", "", "wire B/msg", "hub CPU us/msg", "clients CPU us/msg");
    for (const bool oneAtATime : {false, true}) {
        Run runs[2];
        for (const bool deflate : {false, true}) {
            std::vector<double> wire, hub, load;
            for (std::size_t r = 0; r < settings.repeat; ++r) {
                const Run run = measureOnce(settings, deflate, oneAtATime);
                wire.push_back(run.wireBytes);
                hub.push_back(run.hubMicros);
                load.push_back(run.loadMicros);
            }
            Run& m = runs[deflate ? 1 : 0];
            m = {median(wire), median(hub), median(load)};
            const std::string name =
                std::string(oneAtATime ? "one at a time (" : "bursts (") +
                std::to_string(oneAtATime ? settings.messages / 20 : settings.messages) +
                " messages)" + (deflate ? ", --deflate" : "");
            std::printf("%-44s %12.1f %16.2f %20.2f\n", name.c_str(), m.wireBytes, m.hubMicros,
                        m.loadMicros);
        }
        std::printf("%-44s %11.0f%% %+16.2f %+20.2f\n", "  deflate saves / costs",
                    100.0 * (1.0 - runs[1].wireBytes / runs[0].wireBytes),
                    runs[1].hubMicros - runs[0].hubMicros, runs[1].loadMicros - runs[0].loadMicros);
    }
    std::fflush(stdout);
    return 0;
}

}  // namespace orvale::app
