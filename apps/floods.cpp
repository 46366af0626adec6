// orvale bench --floods: the attacks a hub on the internet must withstand, each against a fresh
// hub process, with the hub's peak resident memory under each and, during a handshake flood,
// how long a fresh client waits to be let in. A soak run, not a test: it prints figures and
// asserts none.

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <cstdio>
#include <iostream>
#include <thread>

#include "bench_modes.h"
#include "cli.h"
#include "process.h"
#include "raw_client.h"

namespace orvale::app {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using tools::HubAddress;
using tools::parseHubUrl;
using tools::RawClient;

namespace {

// A frame as large as the hub takes by default (1 MiB) made of copies of `message`.
std::string fullFrame(const std::string& message) {
    constexpr std::size_t kFrameBytes = 1024 * 1024;
    std::string frame = "[";
    while (frame.size() + message.size() + 2 < kFrameBytes) {
        if (frame.size() > 1)
            frame += ',';
        frame += message;
    }
    return frame + "]";
}

struct Hub {
    explicit Hub(const std::string& executable)
        : process({executable, "serve", "--port", "0"}),
          address(parseHubUrl(process.firstLine(10s))),
          baseline(process.residentBytes()) {}
    ChildProcess process;
    HubAddress address;
    std::size_t baseline;
};

void report(const std::string& name, const Hub& hub, const std::string& note) {
    const double mib = 1024.0 * 1024.0;
    std::printf("%-44s %10.1f %10.1f  %s\n", name.c_str(), static_cast<double>(hub.baseline) / mib,
                static_cast<double>(hub.process.peakResidentBytes()) / mib, note.c_str());
    std::fflush(stdout);
}

// Clients that each send one frame of a million tiny messages, earning one reply per message,
// and never read.
void amplification(const FloodSettings& settings) {
    Hub hub(settings.hub);
    boost::asio::io_context io;
    const std::string frame = fullFrame("1");
    std::vector<std::unique_ptr<RawClient>> clients;
    std::size_t sent = 0;
    for (std::size_t i = 0; i < settings.amplifiers; ++i) {
        try {
            clients.push_back(std::make_unique<RawClient>(io, hub.address));
            clients.back()->shrinkReceiveBuffer(4096);
            if (clients.back()->send(frame))
                ++sent;
        } catch (const std::exception&) {
            // The hub may close an abusive connection; the memory it holds is what counts.
        }
    }
    std::this_thread::sleep_for(settings.hold);
    report(std::to_string(settings.amplifiers) + " non-reading clients, 1 MiB of [1,1,...]", hub,
           std::to_string(sent) + " frames sent");
}

// Subscribers that stop reading while a publisher sends them large messages.
void slowSubscribers(const FloodSettings& settings) {
    Hub hub(settings.hub);
    boost::asio::io_context io;
    std::vector<std::unique_ptr<RawClient>> subscribers;
    for (int i = 0; i < 2; ++i) {
        subscribers.push_back(std::make_unique<RawClient>(io, hub.address));
        if (subscribers.back()->handshake(5s) ||
            !subscribers.back()->subscribeAndConnect("/soak/slow", 5s))
            throw Failure("a subscriber could not subscribe");
        subscribers.back()->shrinkReceiveBuffer(4096);
    }
    RawClient publisher(io, hub.address);
    if (auto refused = publisher.handshake(5s))
        throw Failure("the publisher could not handshake: " + *refused);
    const std::string data = "\"" + std::string(64 * 1024 - 2, 'x') + "\"";
    constexpr std::size_t kPerFrame = 8;
    const std::string message = publisher.publishMessage("/soak/slow", data);
    std::string frame = "[";
    for (std::size_t i = 0; i < kPerFrame; ++i)
        frame += (i ? "," : "") + message;
    frame += "]";
    std::size_t published = 0;
    const auto start = Clock::now();
    try {
        while (published < settings.slowMessages) {
            publisher.send(frame);
            if (!publisher.readUntil("\"successful\"", 10s))
                break;
            published += kPerFrame;
        }
    } catch (const std::exception&) {
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    report("2 non-reading subscribers, 64 KiB messages", hub,
           std::to_string(published) + " published in " + std::to_string(seconds) + " s");
}

// One connection sends frames full of handshakes; then a fresh client tries to handshake every
// quarter second until the hub lets it in.
void handshakeFlood(const FloodSettings& settings) {
    Hub hub(settings.hub);
    boost::asio::io_context attackIo;
    const std::string frame = fullFrame(R"({"channel":"/meta/handshake"})");
    RawClient attacker(attackIo, hub.address);
    std::size_t sent = 0;
    while (sent < settings.floodFrames && attacker.send(frame))
        ++sent;
    // Reading the replies keeps the flood about sessions, not about unread output. The fresh
    // client starts once the hub has answered every frame (or gave up on the connection).
    std::atomic<std::size_t> replies{0};
    attacker.drainAsync([&replies] { ++replies; });
    std::thread drain([&attackIo] { attackIo.run(); });
    for (const auto until = Clock::now() + 20s; replies < sent && Clock::now() < until;)
        std::this_thread::sleep_for(10ms);
    const auto start = Clock::now();
    std::size_t refusals = 0;
    std::string outcome = "never let in";
    boost::asio::io_context io;
    while (Clock::now() - start < settings.patience) {
        try {
            RawClient fresh(io, hub.address);
            if (!fresh.handshake(5s)) {
                outcome = "let in after " +
                          std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(
                                             Clock::now() - start)
                                             .count()) +
                          " ms";
                break;
            }
        } catch (const std::exception&) {
        }
        ++refusals;
        std::this_thread::sleep_for(250ms);
    }
    report("handshake flood, " + std::to_string(sent) + " frames from one connection", hub,
           std::to_string(replies) + " answered; " + "fresh client " + outcome + ", " +
               std::to_string(refusals) + " refusals first");
    boost::asio::post(attackIo, [&attacker] { attacker.close(); });
    drain.join();
}

}  // namespace

int runFloods(const FloodSettings& settings) {
    std::printf("orvale bench --floods: %s\n", settings.hub.c_str());
    std::printf("%-44s %10s %10s\n", "flood", "RSS MiB", "peak MiB");
    amplification(settings);
    slowSubscribers(settings);
    handshakeFlood(settings);
    return 0;
}

}  // namespace orvale::app
