#pragma once
// nats-server processes that `orvale bench --cluster` and the cluster tests start themselves:
// `nodes` servers on free loopback ports, routed to each other when there are several, each
// accepting clients when the constructor returns.
//
// Thread safety: construction and kill() from one thread; the other methods from any thread
// while no node is being killed.

#include <memory>
#include <string>
#include <vector>

#include "subprocess.h"

namespace orvale::tools {

class NatsServers {
  public:
    // std::runtime_error, with what nats-server said, when a node does not start in time.
    explicit NatsServers(int nodes);
    ~NatsServers();

    std::string url(int node) const;
    // Every node's URL, `first` first.
    std::vector<std::string> urls(int first) const;
    // Stops a node: its clients lose their connections to it.
    void kill(int node);
    // The CPU time all nodes have used so far.
    double cpuSeconds() const;

  private:
    struct Ports {
        int client, route;
    };
    void start(int node);

    std::vector<Ports> ports_;
    std::vector<std::unique_ptr<ChildProcess>> servers_;
};

}  // namespace orvale::tools
