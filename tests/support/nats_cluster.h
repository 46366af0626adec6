#pragma once
// NATS servers for the cluster tests: `nodes` nats-server processes on free loopback ports,
// routed to each other, each ready for clients when the constructor returns.

#include <unistd.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "child_process.h"
#include "log_capture.h"
#include "loopback_ports.h"

namespace orvale::test {

using tools::acceptsOnLoopback;
using tools::freeLoopbackPort;

class NatsCluster {
  public:
    explicit NatsCluster(int nodes) {
        for (int i = 0; i < nodes; ++i)
            ports_.push_back({freeLoopbackPort(), freeLoopbackPort()});
        for (int i = 0; i < nodes; ++i)
            start(i);
    }

    std::string url(int node) const {
        return "nats://127.0.0.1:" + std::to_string(ports_.at(node).client);
    }
    // Every node's URL, `first` first.
    std::vector<std::string> urls(int first) const {
        std::vector<std::string> out{url(first)};
        for (int i = 0; i < static_cast<int>(ports_.size()); ++i)
            if (i != first)
                out.push_back(url(i));
        return out;
    }
    void kill(int node) { servers_.at(node).reset(); }

  private:
    struct Ports {
        int client, route;
    };

    void start(int node) {
        const auto at = [](int port) { return "nats://127.0.0.1:" + std::to_string(port); };
        std::string routes;
        for (int i = 0; i < static_cast<int>(ports_.size()); ++i)
            if (i != node)
                routes += (routes.empty() ? "" : ",") + at(ports_[i].route);
        std::vector<std::string> argv{"nats-server", "-a", "127.0.0.1", "-p",
                                      std::to_string(ports_[node].client)};
        argv.insert(argv.end(), {"--cluster_name", "orvale-test", "--cluster",
                                 at(ports_[node].route), "--routes", routes});
        servers_.resize(ports_.size());
        servers_[node] = std::make_unique<ChildProcess>(argv);
        if (!waitUntil([&] { return acceptsOnLoopback(ports_[node].client); },
                       std::chrono::seconds(10)))
            throw std::runtime_error("nats-server did not start: " + servers_[node]->errors());
    }

    std::vector<Ports> ports_;
    std::vector<std::unique_ptr<ChildProcess>> servers_;
};

}  // namespace orvale::test
