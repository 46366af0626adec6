// orvale bench --cluster: deliveries that cross from one hub to another, two orvale hubs over
// NATS against two Faye servers over Redis, and what joining a cluster costs a hub alone.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <thread>

#include "bare_load.h"
#include "bench_modes.h"
#include "cli.h"
#include "load.h"
#include "nats_servers.h"
#include "process.h"

namespace orvale::app {

namespace {

using namespace std::chrono_literals;

void waitFor(const std::function<bool()>& ready, const std::string& what) {
    for (const auto deadline = std::chrono::steady_clock::now() + 10s; !ready();
         std::this_thread::sleep_for(20ms))
        if (std::chrono::steady_clock::now() > deadline)
            throw Failure(what + " did not start");
}

std::string fixed(double value, int decimals) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.*f", decimals, value);
    return buffer;
}

// Two hubs and the engine that joins them, all processes of their own: the publisher loads
// the first hub, the subscribers the second.
struct Pair {
    std::unique_ptr<tools::NatsServers> nats;  // the engine: nats-server nodes,
    std::unique_ptr<ChildProcess> redis;       // or redis-server
    std::unique_ptr<ChildProcess> first, second;
    std::unique_ptr<LoadRunner> load;
    std::unique_ptr<BareLoad> bare;

    double hubCpu() const { return first->cpuSeconds() + second->cpuSeconds(); }
    double engineCpu() const { return nats ? nats->cpuSeconds() : redis->cpuSeconds(); }
};

// One nats-server both hubs use, or two routed nodes, a hub on each.
std::unique_ptr<Pair> orvalePair(const ClusterBenchSettings& settings) {
    auto pair = std::make_unique<Pair>();
    const int nodes = settings.natsNodes;
    pair->nats = std::make_unique<tools::NatsServers>(nodes);
    auto hub = [&](int i) {
        return std::make_unique<ChildProcess>(
            std::vector<std::string>{settings.hub, "serve", "--port", "0", "--max-sessions",
                                     "1000000", "--cluster", pair->nats->url(i % nodes)});
    };
    pair->first = hub(0);
    pair->second = hub(1);
    const std::string publishUrl = pair->first->firstLine(10s);
    const std::string url = pair->second->firstLine(10s);
    pair->load = std::make_unique<LoadRunner>(url, settings.window, publishUrl);
    pair->bare = std::make_unique<BareLoad>(url, publishUrl, settings.window);
    return pair;
}

// One redis-server, a Faye server with the faye-redis engine on each side of it.
std::unique_ptr<Pair> fayePair(const ClusterBenchSettings& settings, const std::string& dir) {
    auto pair = std::make_unique<Pair>();
    const std::string socket = dir + "/redis.sock";
    pair->redis = std::make_unique<ChildProcess>(
        std::vector<std::string>{"redis-server", "--port", "0", "--unixsocket", socket, "--save",
                                 "", "--appendonly", "no", "--logfile", "/dev/null"});
    struct stat info;
    waitFor([&] { return ::stat(socket.c_str(), &info) == 0; }, "redis-server");
    auto faye = [&] {
        return std::make_unique<ChildProcess>(std::vector<std::string>{
            settings.node, settings.fayeScript, "--timeout", "25", "--redis-socket", socket});
    };
    pair->first = faye();
    pair->second = faye();
    const std::string publishUrl = "ws://127.0.0.1:" + pair->first->firstLine(10s) + "/bayeux";
    const std::string url = "ws://127.0.0.1:" + pair->second->firstLine(10s) + "/bayeux";
    pair->load = std::make_unique<LoadRunner>(url, settings.window, publishUrl);
    pair->bare = std::make_unique<BareLoad>(url, publishUrl, settings.window);
    return pair;
}

struct Figures {
    double oneToOne = 0, oneToFour = 0;
    double bareOneToOne = 0, bareOneToFour = 0;    // the same load made by bare clients
    double hubCpuMicros = 0, engineCpuMicros = 0;  // per delivery, in the median 1 -> 1 run
    Latency latency;
};

struct Run {
    double rate, hubCpu, engineCpu;
};

Run run(Pair& pair, const std::string& name, std::size_t subscribers, std::size_t messages,
        bool bare = false) {
    std::cerr << "bench: " << name << ": 1 -> " << subscribers << (bare ? ", bare clients" : "")
              << "\n";
    const double hub = pair.hubCpu(), engine = pair.engineCpu();
    const double rate = bare ? pair.bare->throughput(subscribers, messages)
                             : pair.load->throughput(subscribers, messages);
    std::cerr << "bench: " << name << ": " << fixed(rate, 0) << "/s\n";
    const double perDelivery = 1e6 / static_cast<double>(messages * subscribers);
    return {rate, (pair.hubCpu() - hub) * perDelivery, (pair.engineCpu() - engine) * perDelivery};
}

// Waits (at most ten seconds) until the servers have stopped using CPU, `cpu` their total, so
// that what a run left behind (sessions to expire, queues to drain) does not fall on the next.
void settle(const std::function<double()>& cpu) {
    for (int i = 0; i < 50; ++i) {
        const double before = cpu();
        std::this_thread::sleep_for(200ms);
        if (cpu() - before < 0.01)  // 5% of a core
            return;
    }
}

void settle(const std::vector<std::unique_ptr<Pair>>& pairs) {
    settle([&] {
        double total = 0;
        for (const auto& pair : pairs)
            total += pair->hubCpu() + pair->engineCpu();
        return total;
    });
}

Run median(std::vector<Run> runs) {
    std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) { return a.rate < b.rate; });
    return runs[runs.size() / 2];
}

void row(const std::string& label, const std::string& ours, const std::string& theirs,
         const std::string& better) {
    std::printf("%-46s %14s %14s %10s\n", label.c_str(), ours.c_str(), theirs.c_str(),
                better.c_str());
}

}  // namespace

int runClusterBench(const ClusterBenchSettings& settings) {
    char dir[] = "/tmp/orvale-bench-XXXXXX";
    if (!::mkdtemp(dir))
        throw Failure("cannot make a folder for redis-server's socket");
    std::vector<std::string> names{"orvale + NATS"};
    std::vector<std::unique_ptr<Pair>> pairs;
    pairs.push_back(orvalePair(settings));
    if (!settings.fayeScript.empty()) {
        names.push_back("faye + redis");
        pairs.push_back(fayePair(settings, dir));
    }
    // The pairs take turns, so that a slow spell of the shared machine falls on both.
    // [bare][subscribers == 4][pair]
    std::vector<std::vector<Run>> runs[2][2];
    for (auto& byLoad : runs)
        for (auto& bySubscribers : byLoad)
            bySubscribers.resize(pairs.size());
    for (std::size_t i = 0; i < pairs.size(); ++i)
        for (const bool bare : {false, true})  // warm-up
            run(*pairs[i], names[i], 1, std::min<std::size_t>(settings.messages, 5000), bare);
    for (const bool bare : {false, true})
        for (const std::size_t subscribers : {1, 4})
            for (std::size_t r = 0; r < settings.repeat; ++r)
                for (std::size_t i = 0; i < pairs.size(); ++i) {
                    settle(pairs);
                    runs[bare][subscribers == 4][i].push_back(
                        run(*pairs[i], names[i], subscribers, settings.messages, bare));
                }
    std::vector<Figures> figures(pairs.size());
    for (std::size_t i = 0; i < pairs.size(); ++i) {
        const Run middle = median(runs[0][0][i]);
        figures[i] = {middle.rate,
                      median(runs[0][1][i]).rate,
                      median(runs[1][0][i]).rate,
                      median(runs[1][1][i]).rate,
                      middle.hubCpu,
                      middle.engineCpu,
                      {}};
        settle(pairs);
        std::cerr << "bench: " << names[i] << ": latency\n";
        figures[i].latency = pairs[i]->load->latency(settings.rate, settings.duration);
    }
    pairs.clear();
    ::rmdir(dir);

    // One hub alone, with and without a cluster link that carries nothing.
    std::vector<Run> alone[2];
    {
        const tools::NatsServers nats(1);
        ChildProcess plain({settings.hub, "serve", "--port", "0", "--max-sessions", "1000000"});
        ChildProcess joined({settings.hub, "serve", "--port", "0", "--max-sessions", "1000000",
                             "--cluster", nats.url(0)});
        LoadRunner loads[] = {{plain.firstLine(10s), settings.window},
                              {joined.firstLine(10s), settings.window}};
        for (auto& load : loads)
            load.throughput(1, std::min<std::size_t>(settings.messages, 5000));
        // Each run waits for the hubs and nats-server to go quiet, as the cross-node runs do.
        const auto hubsCpu = [&] {
            return plain.cpuSeconds() + joined.cpuSeconds() + nats.cpuSeconds();
        };
        for (std::size_t r = 0; r < settings.repeat; ++r)
            for (int k = 0; k < 2; ++k) {
                const int i = (k + static_cast<int>(r)) % 2;  // either hub goes first by turns
                settle(hubsCpu);
                std::cerr << "bench: one hub" << (i ? " with --cluster" : "") << ": 1 -> 1\n";
                alone[i].push_back({loads[i].throughput(1, settings.messages), 0, 0});
            }
    }
    const double plainRate = median(alone[0]).rate, joinedRate = median(alone[1]).rate;

    const Figures& ours = figures.front();
    const bool withFaye = figures.size() > 1;
    auto other = [&](double Figures::*field, int decimals) {
        return withFaye ? fixed(figures.back().*field, decimals) : std::string("-");
    };
    auto better = [&](double Figures::*field, bool higherIsBetter) {
        if (!withFaye || ours.*field <= 0 || figures.back().*field <= 0)
            return std::string();
        const double a = ours.*field, b = figures.back().*field;
        return fixed(higherIsBetter ? a / b : b / a, 1) + "x";
    };
    auto latency = [&](const Figures& f, bool p99) {
        return fixed(p99 ? f.latency.p99Micros : f.latency.p50Micros, 0);
    };
    std::printf(
        "orvale bench --cluster: %zu messages per throughput run, median of %zu; latency "
        "at %zu msg/s for %lld s\n",
        settings.messages, settings.repeat, settings.rate,
        static_cast<long long>(settings.duration.count() / 1000));
    row("", names[0], withFaye ? names[1] : "", withFaye ? "orvale is" : "");
    row("cross-node deliveries/s, 1 -> 1", fixed(ours.oneToOne, 0), other(&Figures::oneToOne, 0),
        better(&Figures::oneToOne, true));
    row("cross-node deliveries/s, 1 -> 4", fixed(ours.oneToFour, 0), other(&Figures::oneToFour, 0),
        better(&Figures::oneToFour, true));
    row("  the same, bare clients, 1 -> 1", fixed(ours.bareOneToOne, 0),
        other(&Figures::bareOneToOne, 0), better(&Figures::bareOneToOne, true));
    row("  the same, bare clients, 1 -> 4", fixed(ours.bareOneToFour, 0),
        other(&Figures::bareOneToFour, 0), better(&Figures::bareOneToFour, true));
    row("1 -> 1 CPU per delivery, both hubs (us)", fixed(ours.hubCpuMicros, 2),
        other(&Figures::hubCpuMicros, 2), better(&Figures::hubCpuMicros, false));
    row("1 -> 1 CPU per delivery, nats-server/redis (us)", fixed(ours.engineCpuMicros, 2),
        other(&Figures::engineCpuMicros, 2), better(&Figures::engineCpuMicros, false));
    for (const bool p99 : {false, true})
        row(std::string("latency ") + (p99 ? "p99" : "p50") + " at " +
                std::to_string(settings.rate) + " msg/s (us)",
            latency(ours, p99), withFaye ? latency(figures.back(), p99) : "-", "");
    row("one hub, deliveries/s 1 -> 1", fixed(plainRate, 0), "", "");
    row("one hub with --cluster, deliveries/s 1 -> 1", fixed(joinedRate, 0), "",
        plainRate > 0 ? fixed(100.0 * joinedRate / plainRate, 1) + "%" : "");
    std::fflush(stdout);
    return 0;
}

}  // namespace orvale::app
