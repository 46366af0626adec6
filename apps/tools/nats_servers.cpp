#include "nats_servers.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include "loopback_ports.h"

namespace orvale::tools {

namespace {

std::string at(int port) {
    return "nats://127.0.0.1:" + std::to_string(port);
}

}  // namespace

NatsServers::NatsServers(int nodes) {
    for (int i = 0; i < nodes; ++i)
        ports_.push_back({freeLoopbackPort(), freeLoopbackPort()});
    servers_.resize(ports_.size());
    for (int i = 0; i < nodes; ++i)
        start(i);
}

NatsServers::~NatsServers() = default;

std::string NatsServers::url(int node) const {
    return at(ports_.at(node).client);
}

std::vector<std::string> NatsServers::urls(int first) const {
    std::vector<std::string> out{url(first)};
    for (int i = 0; i < static_cast<int>(ports_.size()); ++i)
        if (i != first)
            out.push_back(url(i));
    return out;
}

void NatsServers::kill(int node) {
    servers_.at(node).reset();
}

double NatsServers::cpuSeconds() const {
    double total = 0;
    for (const auto& server : servers_)
        if (server)
            total += server->cpuSeconds();
    return total;
}

void NatsServers::start(int node) {
    using namespace std::chrono_literals;
    // A port taken between its choice and the server's bind ends the server at once; it starts
    // again on new ports, which the nodes started after it are given as routes.
    for (int attempt = 1;; ++attempt) {
        std::vector<std::string> argv{"nats-server", "-a", "127.0.0.1", "-p",
                                      std::to_string(ports_[node].client)};
        // A lone node needs no route listener.
        if (ports_.size() > 1) {
            std::string routes;
            for (int i = 0; i < static_cast<int>(ports_.size()); ++i)
                if (i != node)
                    routes += (routes.empty() ? "" : ",") + at(ports_[i].route);
            argv.insert(argv.end(), {"--cluster_name", "orvale", "--cluster",
                                     at(ports_[node].route), "--routes", routes});
        }
        servers_[node] = std::make_unique<ChildProcess>(argv);
        ChildProcess& server = *servers_[node];
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        bool ready = false;
        while (!(ready = acceptsOnLoopback(ports_[node].client)) && !server.waitExit(0ms) &&
               std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(10ms);
        if (ready)
            return;
        const std::string errors = server.errors();
        if (attempt == 3 || errors.find("address already in use") == std::string::npos)
            throw std::runtime_error("nats-server did not start: " + errors);
        ports_[node] = {freeLoopbackPort(), freeLoopbackPort()};
    }
}

}  // namespace orvale::tools
