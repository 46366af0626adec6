// Benchmarks of the in-process Bayeux server, with bare thread hand-offs measured in the same
// binary as baselines: the matching cost of one publish against many unrelated subscriptions,
// acceptPublish -> deliver throughput, and one-way hand-off latency.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "allocation_counter.h"
#include "channel_tree.h"
#include "connector/bayeux/server.h"

namespace {

using namespace connector::bayeux;
using Clock = std::chrono::steady_clock;

std::shared_ptr<PublishRequest> makeMessage(const std::string& channel, const char* publisher) {
    auto request = std::make_shared<PublishRequest>(channel, connector::common::DataBuffer("{}"));
    request->setClientId(publisher);
    return request;
}

// A session that only counts, and wakes a waiter when the count reaches a target.
class CountingSession : public BayeuxSession {
  public:
    explicit CountingSession(std::string id) : id_(std::move(id)) {}
    std::shared_ptr<connector::common::ContextState> getContext() override { return nullptr; }
    std::string getId() override { return id_; }
    void deliver(const std::shared_ptr<const UnsubscribeRequest>&) override {}
    void deliver(const std::shared_ptr<const SubscribeRequest>&) override {}
    void deliver(const std::vector<std::string>&,
                 const std::shared_ptr<const PublishRequest>&) override {
        if (count_.fetch_add(1, std::memory_order_acq_rel) + 1 == target_.load()) {
            std::lock_guard<std::mutex> lock(mutex_);
            reached_ = true;
            reachedCv_.notify_all();
        }
    }

    // Call before publishing `more` messages; then waitFor() returns when all have arrived.
    void expect(std::uint64_t more) {
        std::lock_guard<std::mutex> lock(mutex_);
        reached_ = false;
        target_ = count_.load() + more;
    }
    void waitFor() {
        std::unique_lock<std::mutex> lock(mutex_);
        reachedCv_.wait(lock, [this] { return reached_; });
    }

  private:
    const std::string id_;
    std::atomic<std::uint64_t> count_{0};
    std::atomic<std::uint64_t> target_{~std::uint64_t{0}};
    std::mutex mutex_;  // guards reached_
    std::condition_variable reachedCv_;
    bool reached_ = false;
};

void subscribe(BayeuxServer& server, const std::string& clientId, const std::string& pattern) {
    server.acceptSubscribe(std::make_shared<SubscribeRequest>(pattern, clientId));
}

// (a) Matching one published channel, against 1 or 100,000 subscriptions elsewhere in the tree.
void BM_TreeMatch(benchmark::State& state) {
    const auto unrelated = static_cast<std::size_t>(state.range(0));
    detail::ChannelTree tree;
    std::vector<std::unique_ptr<detail::SessionRecord>> records;
    auto newRecord = [&](const std::string& id) -> detail::SessionRecord& {
        records.push_back(std::make_unique<detail::SessionRecord>(std::weak_ptr<BayeuxSession>(),
                                                                  nullptr, id, 0));
        return *records.back();
    };
    auto& target = newRecord("target");
    tree.subscribe(target, "/orders/eu/created");
    tree.subscribe(target, "/orders/*/created");  // middle star: a plain name, does not match
    tree.subscribe(target, "/orders/eu/*");
    for (std::size_t i = 0; i < unrelated; ++i) {
        auto& r = i % 100 == 0 ? newRecord("s" + std::to_string(i / 100)) : *records.back();
        const std::string base = "/other/" + std::to_string(i % 1000) + "/" + std::to_string(i);
        tree.subscribe(r, i % 3 == 0 ? base + "/*" : base);
    }
    std::vector<detail::Match> matches;
    for (auto _ : state) {
        matches.clear();
        tree.match("/orders/eu/created", matches);
        benchmark::DoNotOptimize(matches.data());
    }
    if (matches.size() != 2)
        state.SkipWithError("wrong number of matches");
    state.counters["subscriptions"] = static_cast<double>(unrelated + 3);
}
BENCHMARK(BM_TreeMatch)->Arg(1)->Arg(100000);

// (a) The same through the server: acceptPublish on a channel nobody listens to, walking two
// levels of wide nodes, so only the lock and the match are measured.
void BM_ServerPublishMatchOnly(benchmark::State& state) {
    const auto unrelated = static_cast<std::size_t>(state.range(0));
    auto server = makeBayeuxServer({1});
    // Few sessions: each subscription is announced to every registered session.
    std::vector<std::shared_ptr<CountingSession>> sessions;
    for (int i = 0; i < 4; ++i) {
        sessions.push_back(std::make_shared<CountingSession>("s" + std::to_string(i)));
        server->registerSession(sessions.back());
    }
    for (std::size_t i = 0; i < unrelated; ++i) {
        const std::string base = "/other/" + std::to_string(i % 1000) + "/" + std::to_string(i);
        subscribe(*server, sessions[i % 4]->getId(), i % 3 == 0 ? base + "/*" : base);
    }
    auto message = makeMessage("/orders/eu/created", "publisher");
    for (auto _ : state)
        server->acceptPublish(message);
    state.counters["subscriptions"] = static_cast<double>(unrelated);
}
BENCHMARK(BM_ServerPublishMatchOnly)->Arg(1)->Arg(100000);

// (b) acceptPublish -> deliver throughput: `publishers` threads, `subscribers` sessions each
// receiving every message. Counts deliveries per second and heap allocations per message.
void runThroughput(benchmark::State& state, int publishers, int subscribers) {
    constexpr std::uint64_t kPerIteration = 20000;
    auto server = makeBayeuxServer({});
    std::vector<std::shared_ptr<CountingSession>> sessions;
    for (int i = 0; i < subscribers; ++i) {
        sessions.push_back(std::make_shared<CountingSession>("sub" + std::to_string(i)));
        server->registerSession(sessions.back());
        subscribe(*server, sessions.back()->getId(), "/t");
    }
    const std::string channel = "/t";
    const std::uint64_t perPublisher = kPerIteration / publishers;
    const std::uint64_t published = perPublisher * publishers;
    std::uint64_t allocated = 0;
    for (auto _ : state) {
        for (auto& s : sessions)
            s->expect(published);
        orvale::bench::startCountingAllocations();
        if (publishers == 1) {
            for (std::uint64_t n = 0; n < perPublisher; ++n) {
                server->acceptPublish(makeMessage(channel, "p0"));
            }
        } else {
            std::vector<std::thread> threads;
            for (int p = 0; p < publishers; ++p) {
                threads.emplace_back([&, p] {
                    const char* id = p == 0 ? "p0" : p == 1 ? "p1" : p == 2 ? "p2" : "p3";
                    for (std::uint64_t n = 0; n < perPublisher; ++n) {
                        server->acceptPublish(makeMessage(channel, id));
                    }
                });
            }
            for (auto& t : threads)
                t.join();
        }
        for (auto& s : sessions)
            s->waitFor();
        allocated += orvale::bench::stopCountingAllocations();
    }
    const double messages = static_cast<double>(published) * state.iterations();
    state.SetItemsProcessed(static_cast<std::int64_t>(messages * subscribers));
    state.counters["deliveries/s"] =
        benchmark::Counter(messages * subscribers, benchmark::Counter::kIsRate);
    // Thread start-up in the 4-publisher case adds a few allocations per iteration, not per
    // message.
    state.counters["allocs/msg"] = static_cast<double>(allocated) / messages;
    state.counters["threads"] =
        static_cast<double>(std::clamp<unsigned>(std::thread::hardware_concurrency(), 1, 4));
}

void BM_Throughput_1to1(benchmark::State& state) {
    runThroughput(state, 1, 1);
}
void BM_Throughput_1to4(benchmark::State& state) {
    runThroughput(state, 1, 4);
}
void BM_Throughput_4to4(benchmark::State& state) {
    runThroughput(state, 4, 4);
}
BENCHMARK(BM_Throughput_1to1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Throughput_1to4)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Throughput_4to4)->UseRealTime()->Unit(benchmark::kMillisecond);

// Fills the p50 and p99 one-way hand-off latency from round-trip times.
void reportLatency(benchmark::State& state, std::vector<std::int64_t>& roundTripsNs) {
    if (roundTripsNs.empty())
        return;
    std::sort(roundTripsNs.begin(), roundTripsNs.end());
    auto oneWay = [&](double q) {
        return static_cast<double>(
                   roundTripsNs[static_cast<std::size_t>(q * (roundTripsNs.size() - 1))]) /
               2.0;
    };
    state.counters["p50_oneway_ns"] = oneWay(0.50);
    state.counters["p99_oneway_ns"] = oneWay(0.99);
}

// (c) Baseline: a mutex + condition-variable queue between two threads, batch-popped, with a
// notification per push.
void BM_BaselineMutexCvQueue(benchmark::State& state) {
    constexpr std::uint64_t kPerIteration = 20000;
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<std::uint64_t> queue;
    bool stop = false;
    std::atomic<std::uint64_t> consumed{0};
    std::thread consumer([&] {
        std::vector<std::uint64_t> batch;
        std::unique_lock<std::mutex> lock(mutex);
        while (true) {
            cv.wait(lock, [&] { return stop || !queue.empty(); });
            if (queue.empty() && stop)
                return;
            batch.swap(queue);
            lock.unlock();
            for (auto item : batch)
                benchmark::DoNotOptimize(item);
            consumed.fetch_add(batch.size(), std::memory_order_release);
            batch.clear();
            lock.lock();
        }
    });
    std::uint64_t target = 0;
    for (auto _ : state) {
        target += kPerIteration;
        for (std::uint64_t i = 0; i < kPerIteration; ++i) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                queue.push_back(i);
            }
            cv.notify_one();
        }
        while (consumed.load(std::memory_order_acquire) < target)
            std::this_thread::yield();
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        stop = true;
    }
    cv.notify_one();
    consumer.join();
    state.SetItemsProcessed(static_cast<std::int64_t>(kPerIteration * state.iterations()));
}
BENCHMARK(BM_BaselineMutexCvQueue)->UseRealTime()->Unit(benchmark::kMillisecond);

// (c) Baseline: two threads handing a turn back and forth through one mutex and two condition
// variables; each iteration is one round trip.
void BM_BaselineCvPingPong(benchmark::State& state) {
    std::mutex mutex;
    std::condition_variable pingCv, pongCv;
    bool ping = false, stop = false;
    std::thread responder([&] {
        std::unique_lock<std::mutex> lock(mutex);
        while (true) {
            pingCv.wait(lock, [&] { return ping || stop; });
            if (stop)
                return;
            ping = false;
            lock.unlock();
            pongCv.notify_one();
            lock.lock();
        }
    });
    std::vector<std::int64_t> roundTrips;
    roundTrips.reserve(1 << 20);
    for (auto _ : state) {
        const auto start = Clock::now();
        {
            std::lock_guard<std::mutex> lock(mutex);
            ping = true;
        }
        pingCv.notify_one();
        std::unique_lock<std::mutex> lock(mutex);
        pongCv.wait(lock, [&] { return !ping; });
        if (roundTrips.size() < roundTrips.capacity())
            roundTrips.push_back((Clock::now() - start).count());
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        stop = true;
    }
    pingCv.notify_one();
    responder.join();
    reportLatency(state, roundTrips);
}
BENCHMARK(BM_BaselineCvPingPong)->UseRealTime();

// A session that answers each message on its channel by publishing on its peer's channel.
class BouncingSession : public BayeuxSession {
  public:
    BouncingSession(std::string id, std::string peerChannel)
        : id_(std::move(id)), peerChannel_(std::move(peerChannel)) {}
    std::shared_ptr<connector::common::ContextState> getContext() override { return nullptr; }
    std::string getId() override { return id_; }
    void deliver(const std::shared_ptr<const UnsubscribeRequest>&) override {}
    void deliver(const std::shared_ptr<const SubscribeRequest>&) override {}
    void deliver(const std::vector<std::string>&,
                 const std::shared_ptr<const PublishRequest>&) override {
        if (onBounce && !onBounce())
            return;
        if (auto s = server.lock())
            s->acceptPublish(makeMessage(peerChannel_, "bounce"));
    }

    std::weak_ptr<BayeuxServer> server;
    std::function<bool()> onBounce;  // false stops the rally

  private:
    const std::string id_;
    const std::string peerChannel_;
};

// One-way hand-off latency through the server: two sessions on different delivery threads
// bounce a message; each iteration is one round trip (two hand-offs).
void BM_ServerPingPong(benchmark::State& state) {
    auto server = makeBayeuxServer({2});
    auto a = std::make_shared<BouncingSession>("a", "/to-b");
    auto b = std::make_shared<BouncingSession>("b", "/to-a");
    std::mutex mutex;
    std::condition_variable doneCv;
    std::uint64_t remaining = 0;
    bool done = false;
    std::vector<std::int64_t> roundTrips;
    roundTrips.reserve(1 << 20);
    Clock::time_point last;
    bool first = true;  // the first delivery of a rally is the kick-off, not a round trip
    a->onBounce = [&] {
        const auto now = Clock::now();
        std::lock_guard<std::mutex> lock(mutex);
        if (!first && roundTrips.size() < roundTrips.capacity()) {
            roundTrips.push_back((now - last).count());
        }
        first = false;
        last = now;
        if (--remaining > 0)
            return true;
        done = true;
        doneCv.notify_one();
        return false;
    };
    for (auto& s : {a, b}) {
        s->server = server;
        server->registerSession(s);
    }
    subscribe(*server, "a", "/to-a");
    subscribe(*server, "b", "/to-b");
    constexpr std::uint64_t kRally = 1000;  // round trips per kick-off
    while (state.KeepRunningBatch(kRally)) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            remaining = kRally + 1;
            done = false;
            first = true;
        }
        server->acceptPublish(makeMessage("/to-a", "kick"));
        std::unique_lock<std::mutex> lock(mutex);
        doneCv.wait(lock, [&] { return done; });
    }
    std::lock_guard<std::mutex> lock(mutex);
    reportLatency(state, roundTrips);
}
BENCHMARK(BM_ServerPingPong)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
