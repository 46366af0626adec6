// orvale bench: the same load against `orvale serve` and a Faye server, side by side.

#include <algorithm>
#include <atomic>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "bench_modes.h"
#include "cli.h"
#include "commands.h"
#include "connector/common/mutex.h"
#include "load.h"
#include "process.h"
#include "raw_client.h"

#ifndef ORVALE_SOURCE_DIR
#define ORVALE_SOURCE_DIR "."
#endif

namespace orvale::app {

using namespace std::chrono_literals;

namespace {

const char* const kUsage =
    R"(usage: orvale bench [--messages N] [--window N] [--repeat N] [--rate N] [--seconds N]
                   [--sessions N] [--no-faye] [--node PATH] [--faye-script FILE]
       orvale bench --floods [--hub PATH]
       orvale bench --capacity N [--subscribers N] [--repeat N] [--hub PATH] [--no-faye]
       orvale bench --deflate [--messages N] [--repeat N] [--hub PATH]
       orvale bench --cluster [--messages N] [--repeat N] [--rate N] [--seconds N] [--hub PATH]
                    [--nats-nodes 1|2]
                    [--no-faye]
       orvale bench --compare PATH [--messages N] [--repeat N] [--hub PATH]

Runs the same load, made by orvale client services, against `orvale serve` and against a Faye
server, each in a process of its own, and prints a table:
  - deliveries per second with one publisher and one subscriber, then four subscribers
    (N messages each, default 500000), each the median of --repeat runs (default 3), and the
    CPU time per delivery spent by the server and by the load's client services in the median
    1 -> 1 run;
  - latency p50 and p99 with one subscriber at a fixed rate (default 10000 msg/s for 3 s);
  - the hub's resident memory per idle session with its connect held (default 5000 sessions).
The two servers' throughput runs take turns, so that a slow spell of the machine falls on both.

  --window N         publishes left unanswered at most during a throughput run (default 1000)
  --repeat N         throughput runs of each kind; the median is reported (default 3)
  --no-faye          run against orvale serve only
  --node PATH        the Node.js executable (default: node)
  --faye-script FILE the Faye server script (default: tests/interop/faye_server.js of the
                     source tree, or $ORVALE_SOURCE_DIR/tests/interop/faye_server.js)

--floods runs three attacks, each against a fresh `orvale serve` with its default options, and
prints the hub's peak resident memory under each: 20 clients that each send a 1 MiB frame of
[1,1,...] and never read; 2 subscribers that never read while 64 KiB messages are published to
them; one connection sending four 1 MiB frames of handshakes, after which a fresh client tries
to handshake every 250 ms (how long it waits is printed).

--capacity N opens N WebSocket sessions (from 127.0.0.2, .3, ... so that ports do not run out),
each with its connect held, subscribes the first --subscribers of them (default 10000) to one
channel, and prints the hub's memory per session and the median time one broadcast takes to reach
all of them; then the same against Faye. N is capped by the descriptors this process may open.

--deflate publishes JSON messages of about 120 bytes to one WebSocket subscriber that offers
permessage-deflate, against a fresh `orvale serve` without and then with --deflate: N in frames
of 50 (default 200000), then N/20 one at a time, each delivered before the next is published.
It prints the bytes per delivery on the subscriber's TCP connection and the CPU time per
delivery of the hub and of the two clients (median of --repeat runs).

--cluster measures deliveries that cross between hubs: two `orvale serve --cluster` hubs sharing
one nats-server (--nats-nodes 2: each on a node of its own, the two routed), with the publisher
on one hub and the subscribers on the other, against two Faye servers sharing a redis-server
through faye-redis,
under the same load (default 50000 messages a run): deliveries per second 1 -> 1 and 1 -> 4, the
CPU time per delivery of the hubs and of nats-server or redis-server, and latency at --rate.
The throughput runs are made twice: by client message services, and by bare clients that write
and count frames by hand, so that the load's own decoding leaves the cores to the servers; their
publisher keeps at most 5000 messages ahead of its slowest subscriber, since a server drops the
oldest messages of a session that falls far behind. Each run starts once the servers have stopped
working off the last one (about 10 minutes in all).
Then one hub alone, without and with --cluster (its link carrying nothing), 1 -> 1.

--compare PATH measures what separates two builds of the hub, which is smaller than the machine's
noise between runs: the throughput runs of three hubs take turns, --repeat rounds (default 7),
each round starting with the next hub: `orvale serve` of --hub, the same with --operator-routes
and /metrics scraped every second, and `orvale serve` of PATH (say, a build of an older commit).
For each it prints the median and the range of deliveries per second and of the hub's CPU time
per delivery, 1 -> 1 and 1 -> 4, and the medians' difference from PATH's. The first two differ
only by the scrapes, which shows how far the measurement can be trusted.

  --hub PATH         the orvale executable whose `serve` is loaded (default: this one)
)";

struct Figures {
    double oneToOne = 0;
    double oneToFour = 0;
    // CPU time per delivery of the 1 -> 1 run, in microseconds.
    double hubCpuMicros = 0;
    double loadCpuMicros = 0;
    Latency latency;
    double bytesPerSession = 0;
};

struct Settings {
    std::size_t window;
    std::size_t messages;
    std::size_t rate;
    std::chrono::milliseconds duration;
    std::size_t sessions;
    std::size_t repeat;
};

// How to start one kind of hub and find its URL.
struct Target {
    std::string name;
    std::vector<std::string> argv;
    // The URL from the first line the process prints.
    std::string (*url)(const std::string& firstLine);
    bool scraped = false;  // its /metrics is fetched every second while it runs
};

std::string orvaleUrl(const std::string& line) {
    return line;
}

std::string fayeUrl(const std::string& line) {
    return "ws://127.0.0.1:" + line + "/bayeux";
}

std::string fixed(double value, int decimals) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.*f", decimals, value);
    return buffer;
}

// Fetches a hub's /metrics every second on a thread of its own, as a Prometheus server would,
// for as long as it lives. `mutex_` guards `stopping_`.
class Scraper {
  public:
    explicit Scraper(const std::string& hubUrl)
        : hub_(tools::parseHubUrl(hubUrl)), thread_([this] { run(); }) {}
    ~Scraper() {
        {
            connector::common::MutexLock lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    std::size_t scrapes() const { return scrapes_.load(); }

  private:
    void run() {
        connector::common::UniqueLock lock(mutex_);
        while (!wake_.wait_for(lock.native(), 1s, [this] {
            mutex_.assumeHeld();
            return stopping_;
        })) {
            lock.unlock();
            if (scrape())
                ++scrapes_;
            lock.lock();
        }
    }
    bool scrape() const {
        namespace http = boost::beast::http;
        try {
            boost::asio::io_context io;
            boost::beast::tcp_stream stream(io);
            stream.expires_after(5s);
            stream.connect(boost::asio::ip::tcp::resolver(io).resolve(hub_.host, hub_.port));
            http::request<http::empty_body> request(http::verb::get, "/metrics", 11);
            request.set(http::field::host, hub_.host);
            http::write(stream, request);
            boost::beast::flat_buffer buffer;
            http::response<http::string_body> response;
            http::read(stream, buffer, response);
            return response.result() == http::status::ok && !response.body().empty();
        } catch (const std::exception&) {
            return false;
        }
    }

    const tools::HubAddress hub_;
    connector::common::Mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ ORVALE_GUARDED_BY(mutex_) = false;
    std::atomic<std::size_t> scrapes_{0};
    std::thread thread_;  // last: it starts once the rest is made
};

// One throughput run and the CPU time the server and the load spent on it, per delivery.
struct Run {
    double rate, hubCpu, loadCpu;
};

// One target's hub and the load against it: kept for all of its throughput runs and its latency
// run; a fresh one measures memory.
struct Side {
    Side(const Target& target, std::size_t window)
        : target(target), hub(target.argv), url(target.url(hub.firstLine(10s))), load(url, window) {
        if (target.scraped)
            scraper = std::make_unique<Scraper>(url);
    }

    Run run(std::size_t subscribers, std::size_t messages) {
        const std::string kind = "1 -> " + std::to_string(subscribers);
        std::cerr << "bench: " << target.name << ": " << kind << "\n";
        const double hubBefore = hub.cpuSeconds();
        const double loadBefore = ownCpuSeconds();
        const double rate = load.throughput(subscribers, messages);
        std::cerr << "bench: " << target.name << ": " << kind << ": " << fixed(rate, 0) << "/s\n";
        const double perDelivery = 1e6 / static_cast<double>(messages * subscribers);
        return {rate, (hub.cpuSeconds() - hubBefore) * perDelivery,
                (ownCpuSeconds() - loadBefore) * perDelivery};
    }

    const Target& target;
    ChildProcess hub;
    std::string url;
    LoadRunner load;
    std::unique_ptr<Scraper> scraper;
    std::vector<Run> oneToOne, oneToFour;
};

// The run of median rate.
Run median(std::vector<Run> runs) {
    std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) { return a.rate < b.rate; });
    return runs[runs.size() / 2];
}

// The targets' throughput runs take turns, so that a spell in which the shared machine runs
// slow (single runs vary by a third) falls on both targets alike, not on whichever ran then.
std::vector<std::unique_ptr<Side>> throughputRuns(const std::vector<Target>& targets,
                                                  const Settings& settings) {
    std::vector<std::unique_ptr<Side>> sides;
    for (const Target& target : targets) {
        sides.push_back(std::make_unique<Side>(target, settings.window));
        std::cerr << "bench: " << target.name << ": warming up\n";
        sides.back()->load.throughput(1, std::min<std::size_t>(settings.messages, 20000));
    }
    // Each round starts with the next target, so that none always runs right after the same one.
    for (std::size_t i = 0; i < settings.repeat; ++i)
        for (std::size_t k = 0; k < sides.size(); ++k) {
            Side& side = *sides[(i + k) % sides.size()];
            side.oneToOne.push_back(side.run(1, settings.messages));
        }
    for (std::size_t i = 0; i < settings.repeat; ++i)
        for (std::size_t k = 0; k < sides.size(); ++k) {
            Side& side = *sides[(i + k) % sides.size()];
            side.oneToFour.push_back(side.run(4, settings.messages));
        }
    return sides;
}

// Each figure is the median of `repeat` runs, with the CPU times of that median run. Memory is
// measured last, each target in a fresh process of its own, so that memory left from the runs
// does not count.
std::vector<Figures> measure(const std::vector<Target>& targets, const Settings& settings) {
    std::vector<Figures> figures;
    {
        const auto sides = throughputRuns(targets, settings);
        for (auto& side : sides) {
            const Run oneToOne = median(side->oneToOne);
            Figures out;
            out.oneToOne = oneToOne.rate;
            out.hubCpuMicros = oneToOne.hubCpu;
            out.loadCpuMicros = oneToOne.loadCpu;
            out.oneToFour = median(side->oneToFour).rate;
            std::cerr << "bench: " << side->target.name << ": latency\n";
            out.latency = side->load.latency(settings.rate, settings.duration);
            figures.push_back(out);
        }
    }
    for (std::size_t i = 0; i < targets.size(); ++i) {
        Side fresh(targets[i], settings.window);
        std::cerr << "bench: " << targets[i].name << ": " << settings.sessions
                  << " idle sessions\n";
        figures[i].bytesPerSession = fresh.load.memoryPerSession(settings.sessions, fresh.hub);
    }
    return figures;
}

// One figure of the runs, in ascending order.
std::vector<double> sorted(const std::vector<Run>& runs, double Run::*figure) {
    std::vector<double> values;
    for (const Run& run : runs)
        values.push_back(run.*figure);
    std::sort(values.begin(), values.end());
    return values;
}

double medianOf(const std::vector<Run>& runs, double Run::*figure) {
    const auto values = sorted(runs, figure);
    return values[values.size() / 2];
}

// "median (least-most)" of one figure of the runs.
std::string spread(const std::vector<Run>& runs, double Run::*figure, int decimals) {
    const auto values = sorted(runs, figure);
    return fixed(values[values.size() / 2], decimals) + " (" + fixed(values.front(), decimals) +
           "-" + fixed(values.back(), decimals) + ")";
}

// --compare: two builds of the hub, and the first with its metrics scraped, taking turns.
int compareHubs(const std::string& hub, const std::string& baseline, Settings settings) {
    const std::vector<std::string> serve{"serve", "--port", "0", "--max-sessions", "1000000"};
    auto target = [&](std::string name, const std::string& exe, bool routes) {
        Target t{std::move(name), {exe}, orvaleUrl, routes};
        t.argv.insert(t.argv.end(), serve.begin(), serve.end());
        if (routes)
            t.argv.push_back("--operator-routes");
        return t;
    };
    const std::vector<Target> targets{target("this hub", hub, false),
                                      target("this hub, scraped", hub, true),
                                      target("baseline", baseline, false)};
    const auto sides = throughputRuns(targets, settings);
    std::printf("orvale bench --compare: %zu messages per run, %zu runs of each, taking turns\n",
                settings.messages, settings.repeat);
    std::printf("%-20s %-6s %-26s %-22s %s\n", "hub", "load", "deliveries/s", "hub CPU us/delivery",
                "vs baseline (rate, CPU)");
    const Side& base = *sides.back();
    for (const auto& side : sides) {
        for (auto runs : {&Side::oneToOne, &Side::oneToFour}) {
            const auto& mine = (*side).*runs;
            const auto& theirs = base.*runs;
            const auto change = [&](double Run::*figure) {
                return fixed(100 * (medianOf(mine, figure) / medianOf(theirs, figure) - 1), 1) +
                       "%";
            };
            std::printf("%-20s %-6s %-26s %-22s %s %s\n", side->target.name.c_str(),
                        runs == &Side::oneToOne ? "1 -> 1" : "1 -> 4",
                        spread(mine, &Run::rate, 0).c_str(), spread(mine, &Run::hubCpu, 3).c_str(),
                        change(&Run::rate).c_str(), change(&Run::hubCpu).c_str());
        }
        if (side->scraper)
            std::printf("%-20s %zu scrapes of /metrics\n", "", side->scraper->scrapes());
    }
    std::fflush(stdout);
    return 0;
}

std::string ratio(double ours, double theirs, bool higherIsBetter) {
    if (ours <= 0 || theirs <= 0)
        return "";
    return fixed(higherIsBetter ? ours / theirs : theirs / ours, 1) + "x";
}

void row(const std::string& label, const std::string& ours, const std::string& theirs,
         const std::string& better) {
    std::printf("%-40s %14s %14s %10s\n", label.c_str(), ours.c_str(), theirs.c_str(),
                better.c_str());
}

std::string defaultFayeScript() {
    if (const char* dir = std::getenv("ORVALE_SOURCE_DIR"))
        return std::string(dir) + "/tests/interop/faye_server.js";
    return std::string(ORVALE_SOURCE_DIR) + "/tests/interop/faye_server.js";
}

}  // namespace

int runBench(const Words& words) {
    const Args args(
        words,
        {"--messages", "--rate", "--seconds", "--sessions", "--window", "--repeat", "--node",
         "--faye-script", "--hub", "--capacity", "--subscribers", "--compare", "--nats-nodes"},
        {"--help", "--no-faye", "--floods", "--deflate", "--cluster"});
    if (args.has("--help")) {
        std::cout << kUsage;
        return 0;
    }
    if (!args.positional().empty())
        throw UsageError("unexpected argument '" + args.positional().front() + "'");
    const std::string hub = args.value("--hub", selfExecutable());
    if (args.has("--deflate")) {
        DeflateSettings deflate;
        deflate.hub = hub;
        deflate.messages = args.number("--messages", deflate.messages, 100, 100000000);
        deflate.repeat = args.number("--repeat", deflate.repeat, 1, 100);
        return runDeflate(deflate);
    }
    if (args.has("--floods")) {
        FloodSettings floods;
        floods.hub = hub;
        return runFloods(floods);
    }
    const Settings settings{args.number("--window", 1000, 1, 100000),
                            args.number("--messages", 500000, 100, 100000000),
                            args.number("--rate", 10000, 1, 1000000),
                            std::chrono::seconds(args.number("--seconds", 3, 1, 3600)),
                            args.number("--sessions", 5000, 1, 100000),
                            args.number("--repeat", 3, 1, 100)};
    if (args.has("--compare")) {
        Settings compare = settings;
        compare.repeat = args.number("--repeat", 7, 1, 100);
        return compareHubs(hub, args.value("--compare", ""), compare);
    }
    const bool withFaye = !args.has("--no-faye");
    const std::string script = args.value("--faye-script", defaultFayeScript());
    if (withFaye && !std::filesystem::exists(script))
        throw Failure("no Faye server script at " + script + " (give --faye-script or --no-faye)");

    if (args.has("--cluster")) {
        ClusterBenchSettings cluster;
        cluster.hub = hub;
        cluster.node = args.value("--node", "node");
        if (withFaye)
            cluster.fayeScript = script;
        cluster.messages = args.number("--messages", 50000, 100, 100000000);
        cluster.window = settings.window;
        cluster.repeat = settings.repeat;
        cluster.rate = settings.rate;
        cluster.duration = settings.duration;
        cluster.natsNodes = static_cast<int>(args.number("--nats-nodes", 1, 1, 2));
        return runClusterBench(cluster);
    }
    if (args.has("--capacity")) {
        CapacitySettings capacity;
        capacity.hub = hub;
        capacity.sessions = args.number("--capacity", 0, 1, 10000000);
        capacity.subscribers = args.number("--subscribers", 10000, 1, 10000000);
        capacity.repeat = args.number("--repeat", 3, 1, 100);
        capacity.node = args.value("--node", "node");
        if (withFaye)
            capacity.fayeScript = script;
        return runCapacity(capacity);
    }
    const Target orvale{
        "orvale serve", {hub, "serve", "--port", "0", "--max-sessions", "1000000"}, orvaleUrl};
    const Target faye{"faye", {args.value("--node", "node"), script, "--timeout", "25"}, fayeUrl};

    std::vector<Target> targets{orvale};
    if (withFaye)
        targets.push_back(faye);
    const std::vector<Figures> figures = measure(targets, settings);
    const Figures& ours = figures.front();
    std::optional<Figures> theirs;
    if (withFaye)
        theirs = figures.back();

    auto other = [&](auto field, int decimals) {
        return theirs ? fixed(field(*theirs), decimals) : std::string("-");
    };
    auto better = [&](auto field, bool higherIsBetter) {
        return theirs ? ratio(field(ours), field(*theirs), higherIsBetter) : std::string();
    };
    const auto oneToOne = [](const Figures& f) { return f.oneToOne; };
    const auto oneToFour = [](const Figures& f) { return f.oneToFour; };
    const auto hubCpu = [](const Figures& f) { return f.hubCpuMicros; };
    const auto loadCpu = [](const Figures& f) { return f.loadCpuMicros; };
    const auto p50 = [](const Figures& f) { return f.latency.p50Micros; };
    const auto p99 = [](const Figures& f) { return f.latency.p99Micros; };
    const auto kib = [](const Figures& f) { return f.bytesPerSession / 1024.0; };

    std::printf(
        "orvale bench: %zu messages per throughput run; latency at %zu msg/s for %lld s; "
        "%zu idle sessions\n",
        settings.messages, settings.rate, static_cast<long long>(settings.duration.count() / 1000),
        settings.sessions);
    row("", "orvale serve", "faye", "orvale is");
    row("deliveries/s, 1 publisher -> 1 subscriber", fixed(ours.oneToOne, 0), other(oneToOne, 0),
        better(oneToOne, true));
    row("deliveries/s, 1 publisher -> 4 subscribers", fixed(ours.oneToFour, 0), other(oneToFour, 0),
        better(oneToFour, true));
    row("1 -> 1 CPU per delivery, server (us)", fixed(hubCpu(ours), 2), other(hubCpu, 2),
        better(hubCpu, false));
    row("1 -> 1 CPU per delivery, clients (us)", fixed(loadCpu(ours), 2), other(loadCpu, 2),
        better(loadCpu, false));
    row("latency p50 at " + std::to_string(settings.rate) + " msg/s (us)", fixed(p50(ours), 0),
        other(p50, 0), better(p50, false));
    row("latency p99 at " + std::to_string(settings.rate) + " msg/s (us)", fixed(p99(ours), 0),
        other(p99, 0), better(p99, false));
    row("memory per idle session (KiB)", fixed(kib(ours), 1), other(kib, 1), better(kib, false));
    std::fflush(stdout);
    return 0;
}

}  // namespace orvale::app
