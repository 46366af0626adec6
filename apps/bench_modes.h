#pragma once
// The soak, capacity and compression modes of `orvale bench`, which start hubs of their own and
// load them with bare Bayeux clients (raw_client.h).

#include <chrono>
#include <cstddef>
#include <string>

namespace orvale::app {

struct FloodSettings {
    std::string hub;  // the orvale executable whose `serve` is flooded
    std::size_t amplifiers = 20;
    std::size_t slowMessages = 12000;
    std::size_t floodFrames = 4;
    std::chrono::milliseconds hold{5000};       // how long the non-readers stay connected
    std::chrono::milliseconds patience{60000};  // how long a fresh client keeps trying
};
int runFloods(const FloodSettings& settings);

struct CapacitySettings {
    std::string hub;
    std::string node, fayeScript;  // fayeScript empty: orvale only
    std::size_t sessions = 0;
    std::size_t subscribers = 10000;
    std::size_t repeat = 3;
};
int runCapacity(const CapacitySettings& settings);

struct DeflateSettings {
    std::string hub;
    std::size_t messages = 200000;  // in bursts; a twentieth of them one at a time
    std::size_t repeat = 3;
};
int runDeflate(const DeflateSettings& settings);

struct ClusterBenchSettings {
    std::string hub;
    std::string node, fayeScript;  // fayeScript empty: orvale only
    std::size_t messages = 50000;
    std::size_t window = 1000;
    std::size_t repeat = 3;
    std::size_t rate = 10000;
    std::chrono::milliseconds duration{3000};
    int natsNodes = 1;  // 1: both hubs on one nats-server, as both Faye servers share one Redis
};
int runClusterBench(const ClusterBenchSettings& settings);

}  // namespace orvale::app
