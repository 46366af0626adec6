// Benchmarks of the Bayeux codec beside a bare Boost.JSON parse and serialize of the same
// frames, which is the floor any JSON codec built on that library stands on.

#include <benchmark/benchmark.h>

#include <boost/json.hpp>
#include <string>
#include <vector>

#include "bayeux/codec.h"

namespace {

using namespace connector::bayeux;

std::string payload(std::size_t bytes) {
    std::string out = R"({"text":")";
    out.append(bytes, 'x');
    out += R"(","n":[1,2.5,-3],"ok":true})";
    return out;
}

// A frame of `count` deliveries as Faye sends them.
std::string deliveries(std::size_t count, std::size_t bytes) {
    std::vector<std::unique_ptr<PublishRequest>> messages;
    std::vector<const BayeuxMessage*> pointers;
    for (std::size_t i = 0; i < count; ++i) {
        messages.push_back(std::make_unique<PublishRequest>("/orvale/bench", payload(bytes)));
        messages.back()->setId(std::to_string(i));
        pointers.push_back(messages.back().get());
    }
    return codec::encode(pointers);
}

void BM_EncodePublish(benchmark::State& state) {
    PublishRequest message("/orvale/bench", payload(static_cast<std::size_t>(state.range(0))));
    message.setId("42");
    message.setClientId("jog85y1up4t7ri1q85vddt5ccrgzw6h");
    for (auto _ : state)
        benchmark::DoNotOptimize(codec::encode(message));
    state.SetBytesProcessed(
        static_cast<std::int64_t>(state.iterations() * codec::encode(message).size()));
}
BENCHMARK(BM_EncodePublish)->Arg(16)->Arg(1024);

void BM_DecodeDeliveries(benchmark::State& state) {
    const std::string frame = deliveries(static_cast<std::size_t>(state.range(0)), 64);
    for (auto _ : state)
        benchmark::DoNotOptimize(codec::decodeFromServer(frame));
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * frame.size()));
}
BENCHMARK(BM_DecodeDeliveries)->Arg(1)->Arg(100);

void BM_DecodeClientRequests(benchmark::State& state) {
    const std::string frame = deliveries(static_cast<std::size_t>(state.range(0)), 64);
    for (auto _ : state)
        benchmark::DoNotOptimize(codec::decodeFromClient(frame));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_DecodeClientRequests)->Arg(1)->Arg(100);

// Baseline: parse the same frame into a Boost.JSON tree and serialize it back.
void BM_BareBoostJsonRoundTrip(benchmark::State& state) {
    const std::string frame = deliveries(static_cast<std::size_t>(state.range(0)), 64);
    for (auto _ : state) {
        boost::json::value tree = boost::json::parse(frame);
        benchmark::DoNotOptimize(boost::json::serialize(tree));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * frame.size()));
}
BENCHMARK(BM_BareBoostJsonRoundTrip)->Arg(1)->Arg(100);

}  // namespace

BENCHMARK_MAIN();
