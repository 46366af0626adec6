// orvale bench --capacity: many concurrent WebSocket sessions on one hub, each with its connect
// held, then one broadcast to the subscribers of one channel; the same against a Faye server,
// as far as it gets. Prints memory per session and the time the broadcast takes to reach every
// subscriber (the median of several rounds).

#include <sys/resource.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <cstdio>
#include <iostream>
#include <thread>
#include <vector>

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

// One address pair runs out of ephemeral ports near 28,000 connections: each block of this many
// sessions connects from another loopback address.
constexpr std::size_t kPerSourceAddress = 20000;

struct Outcome {
    std::size_t opened = 0;
    double bytesPerSession = 0;
    double broadcastMillis = 0;  // median; 0 when no round completed
    std::string note;
};

// `block` picks the source addresses, one block per hub, so that the ports the first hub's
// sessions leave in TIME_WAIT do not run out for the next.
Outcome measure(const std::vector<std::string>& argv, bool orvale, int block,
                const CapacitySettings& settings) {
    ChildProcess hub(argv);
    const std::string line = hub.firstLine(10s);
    const HubAddress address = parseHubUrl(orvale ? line : "ws://127.0.0.1:" + line + "/bayeux");
    std::this_thread::sleep_for(500ms);
    const std::size_t before = hub.residentBytes();

    boost::asio::io_context io;
    std::vector<std::unique_ptr<RawClient>> clients;
    Outcome out;
    const auto started = Clock::now();
    for (std::size_t i = 0; i < settings.sessions; ++i) {
        const std::string source =
            "127.0." + std::to_string(block) + "." + std::to_string(2 + i / kPerSourceAddress);
        try {
            auto client = std::make_unique<RawClient>(io, address, source);
            if (auto refused = client->handshake(10s)) {
                out.note = "handshake refused: " + refused->substr(0, 120);
                break;
            }
            const std::string channel = i < settings.subscribers
                                            ? std::string("/capacity/all")
                                            : "/capacity/idle/" + std::to_string(i % 100);
            if (!client->subscribeAndConnect(channel, 10s)) {
                out.note = "subscribe failed";
                break;
            }
            clients.push_back(std::move(client));
        } catch (const std::exception& e) {
            out.note = e.what();
            break;
        }
        if ((i + 1) % 5000 == 0)
            std::cerr << "bench: " << argv[0] << ": " << i + 1 << " sessions\n";
    }
    out.opened = clients.size();
    std::cerr << "bench: " << out.opened << " sessions in "
              << std::chrono::duration<double>(Clock::now() - started).count() << " s\n";
    std::this_thread::sleep_for(1s);
    if (out.opened == 0)
        return out;
    out.bytesPerSession = (static_cast<double>(hub.residentBytes()) - static_cast<double>(before)) /
                          static_cast<double>(out.opened);

    const std::size_t subscribers = std::min(out.opened, settings.subscribers);
    try {
        RawClient publisher(io, address, "127.0.0.1");
        if (auto refused = publisher.handshake(10s))
            throw Failure("publisher refused: " + *refused);
        std::vector<double> rounds;
        for (std::size_t round = 0; round < settings.repeat; ++round) {
            const std::string tag = "\"round " + std::to_string(round) + "\"";
            auto waiting = std::make_shared<std::size_t>(subscribers);
            for (std::size_t i = 0; i < subscribers; ++i)
                clients[i]->readUntilAsync(tag, [waiting] { --*waiting; });
            const auto sent = Clock::now();
            publisher.send("[" + publisher.publishMessage("/capacity/all", tag) + "]");
            io.restart();
            while (*waiting > 0 && io.run_one_until(sent + 30s) > 0) {
            }
            if (*waiting > 0) {
                out.note =
                    std::to_string(*waiting) + " subscribers missed round " + std::to_string(round);
                break;
            }
            rounds.push_back(
                std::chrono::duration<double, std::milli>(Clock::now() - sent).count());
            std::this_thread::sleep_for(200ms);
        }
        if (!rounds.empty()) {
            std::sort(rounds.begin(), rounds.end());
            out.broadcastMillis = rounds[rounds.size() / 2];
        }
    } catch (const std::exception& e) {
        out.note = e.what();
    }
    // Reads still pending end with the sockets, before the clients go.
    for (auto& client : clients)
        client->close();
    io.restart();
    io.run_for(2s);
    return out;
}

void print(const char* name, const Outcome& out) {
    std::printf("%-14s %10zu %14.1f %16.1f  %s\n", name, out.opened, out.bytesPerSession / 1024.0,
                out.broadcastMillis, out.note.c_str());
    std::fflush(stdout);
}

}  // namespace

int runCapacity(const CapacitySettings& given) {
    CapacitySettings settings = given;
    // Every session is one descriptor here and one in the hub.
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    const std::size_t room = files.rlim_cur > 256 ? files.rlim_cur - 256 : 0;
    if (settings.sessions > room) {
        std::cerr << "bench: " << settings.sessions << " sessions need more descriptors than the "
                  << files.rlim_cur << " allowed; running " << room << "\n";
        settings.sessions = room;
    }
    std::printf("orvale bench --capacity: %zu WebSocket sessions, connect held; broadcast to %zu\n",
                settings.sessions, std::min(settings.sessions, settings.subscribers));
    std::printf("%-14s %10s %14s %16s\n", "hub", "sessions", "KiB/session", "broadcast ms");
    print("orvale serve",
          measure({settings.hub, "serve", "--port", "0", "--max-sessions", "10000000"}, true, 0,
                  settings));
    if (!settings.fayeScript.empty())
        print("faye",
              measure({settings.node, settings.fayeScript, "--timeout", "25"}, false, 1, settings));
    return 0;
}

}  // namespace orvale::app
