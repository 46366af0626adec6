// Load of our client services against a real Faye server, side by side in one run with Faye's
// own Node client and with a bare WebSocket client that shows what the server itself can carry.
//
//   client_load [--orvale-only|--long-polling] [MESSAGES [WINDOW [ROUNDS]]]
//                                                                (defaults 40000, 500, 5000)
//
// --orvale-only runs just our WebSocket rows (for a profiler attached to this process);
// --long-polling just the long-polling comparison.
//
// One Faye server (node tests/interop/faye_server.js) serves every row:
//   - raw: Bayeux frames written by hand over Boost.Beast sockets, publishes sent in frames of
//     up to 50, at most WINDOW unanswered; the cheapest client there can be, so its 1->1 rate
//     is the server's ceiling (its 1->4 reads each socket on a thread of its own: no ceiling);
//   - orvale: a publisher service and subscriber services, each a client service of its own
//     made by the delegator over makeContext(), all in this process;
//   - faye: faye.Client over WebSocket, one publisher and the subscribers in one Node process
//     (bench/faye_client_load.js).
// Then both clients' 1->1 over long-polling (our services at the http:// URL, faye.Client with
// WebSocket disabled), in a table of their own.
// Every row runs the same load: deliveries/s 1->1 (MESSAGES published) and 1->4 (MESSAGES/4
// published), at most WINDOW publishes unanswered; publish -> receive latency with one message
// in flight (ROUNDS after a warm-up); client CPU seconds per 10,000 published messages over each
// throughput phase (getrusage here, process.cpuUsage() in Node) and the server's CPU over the
// same phase (/proc/<pid>/stat). Prints one table; nothing here asserts a figure.

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "child_process.h"
#include "client_load.h"
#include "connector/message_service.h"

#ifndef ORVALE_SOURCE_DIR
#define ORVALE_SOURCE_DIR "."
#endif

namespace {

using namespace connector;
using namespace connector::message_service;
using orvale::bench::Percentiles;
using orvale::bench::percentiles;

using namespace orvale::bench::client_load;

// Writes the module's log lines to stderr, so that stdout holds the table alone.
class StderrBackend
    : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
  public:
    void consume(const boost::log::record_view& record) {
        const auto channel = boost::log::extract<std::string>("Channel", record);
        const auto message = boost::log::extract<std::string>("Message", record);
        std::fprintf(stderr, "[%s] %s\n", channel ? channel->c_str() : "",
                     message ? message->c_str() : "");
    }
};

// ---------------------------------------------------------------------------------------------
// Our client services.

namespace ours {

// A delegator with its own context: every service it makes is a client service.
struct Services {
    explicit Services(std::string endpoint) : endpoint(std::move(endpoint)) {}

    std::shared_ptr<MessageService> create(const std::string& name) {
        auto future = delegator->createMessageService(name, {{"endpoint", endpoint}});
        if (!future.waitFor(kStallBound))
            throw std::runtime_error("creating " + name + " timed out");
        return future.get();
    }

    const std::string endpoint;
    std::shared_ptr<Context> context = makeContext();
    std::shared_ptr<MessageServiceFactoryDelegatorImpl> delegator =
        std::make_shared<MessageServiceFactoryDelegatorImpl>(
            std::make_shared<MessageServiceFactoryServerDelegate>(bayeux::makeBayeuxServer()),
            std::make_shared<MessageServiceFactoryClientDelegate>(context));
};

template <class T>
T await(Future<T>&& future, const char* what) {
    if (!future.waitFor(kStallBound))
        throw std::runtime_error(std::string(what) + " timed out");
    return future.get();
}

void disconnectAll(const std::vector<std::shared_ptr<MessageService>>& services) {
    std::vector<Future<DisconnectResult>> pending;
    for (const auto& service : services)
        pending.push_back(service->disconnect());
    for (auto& done : pending)
        done.waitFor(kStallBound);
}

// At most `size` publishes unanswered. The publishing thread sleeps once the window is full
// and wakes when half of it has been answered, not at every answer, as a host streaming
// messages would do it. The counts live in a shared state, since an answer may still arrive
// after a failed run has given up on the window.
class PublishWindow {
  public:
    explicit PublishWindow(long size) : state_(std::make_shared<State>(size)) {}

    // Waits for room for one more publish.
    void acquire() { state_->wait(state_->size - 1, "room in the window"); }

    // Counts the publish as unanswered until its future resolves.
    void release(Future<PublishResult>&& answer) {
        {
            std::lock_guard<std::mutex> lock(state_->mutex);
            ++state_->unanswered;
        }
        answer.then([state = state_](Future<PublishResult>&& answered) {
            std::string error;
            try {
                answered.get();
            } catch (const std::exception& e) {
                error = e.what();
            }
            const auto now = Clock::now();
            std::lock_guard<std::mutex> lock(state->mutex);
            state->longestGap = std::max(state->longestGap, seconds(now - state->lastAnswer));
            state->lastAnswer = now;
            --state->unanswered;
            if (!error.empty() && state->error.empty())
                state->error = error;
            if (state->unanswered <= state->wakeAt || !state->error.empty())
                state->changed.notify_one();
        });
    }

    // Waits until every publish is answered.
    void drain() { state_->wait(0, "the last answers"); }

    // The longest time between two answers (or the start and the first answer), in seconds.
    double longestGap() {
        std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->longestGap;
    }

  private:
    struct State {
        explicit State(long size) : size(size) {}

        // Waits until at most `most` publishes are unanswered; from a full window, until half
        // of it is free.
        void wait(long most, const char* what) {
            std::unique_lock<std::mutex> lock(mutex);
            if (unanswered > most) {
                wakeAt = std::min(most, size / 2);
                const bool done = changed.wait_for(
                    lock, kStallBound, [&] { return unanswered <= wakeAt || !error.empty(); });
                wakeAt = -1;
                if (!done)
                    throw std::runtime_error(std::string("orvale: waiting for ") + what +
                                             " timed out");
            }
            if (!error.empty())
                throw std::runtime_error("orvale: a publish failed: " + error);
        }

        const long size;
        std::mutex mutex;  // guards every member below
        std::condition_variable changed;
        long unanswered = 0;
        long wakeAt = -1;   // the count at which the waiting thread wants waking; -1: none
        std::string error;  // the first failure
        Clock::time_point lastAnswer = Clock::now();
        double longestGap = 0;
    };

    const std::shared_ptr<State> state_;
};

Phase throughput(const std::string& endpoint, pid_t server, int subscribers, long messages,
                 long window, const std::string& channel) {
    Services services(endpoint);
    Countdown delivered(messages * subscribers);
    std::vector<std::shared_ptr<MessageService>> all;
    std::vector<std::shared_ptr<Subscription>> handles;
    for (int s = 0; s < subscribers; ++s) {
        all.push_back(services.create("sub" + std::to_string(s)));
        handles.push_back(
            await(all.back()->subscribe(channel, [&](const JsonMessage&) { delivered.arrive(); }),
                  "subscribing"));
    }
    auto publisher = services.create("pub");
    all.push_back(publisher);

    const double cpuBefore = ownCpuSeconds();
    const double serverBefore = processCpuSeconds(server);
    const auto start = Clock::now();
    PublishWindow unanswered(window);  // made at the start: answer gaps count from here
    for (long i = 0; i < messages; ++i) {
        unanswered.acquire();
        unanswered.release(publisher->publish(channel, "{\"n\":" + std::to_string(i) + "}"));
    }
    unanswered.drain();
    const auto finished = delivered.wait(kStallBound);
    const double cpuAfter = ownCpuSeconds();
    const double serverAfter = processCpuSeconds(server);
    handles.clear();
    disconnectAll(all);
    if (!finished)
        throw std::runtime_error("orvale: " + std::to_string(delivered.count()) + " of " +
                                 std::to_string(messages * subscribers) + " delivered");
    return {messages * subscribers / seconds(*finished - start),
            cpuAfter - cpuBefore,
            serverAfter - serverBefore,
            seconds(*finished - start),
            messages,
            unanswered.longestGap()};
}

// Publish -> callback with one message in flight, in microseconds.
Percentiles latency(const std::string& endpoint, int rounds, int warmUp) {
    Services services(endpoint);
    auto publisher = services.create("pub");
    auto subscriber = services.create("sub");
    const std::vector<double> samples = orvale::bench::publishToCallbackMicros(
        *publisher, *subscriber, "/load/latency", rounds + warmUp, kStallBound);
    disconnectAll({publisher, subscriber});
    return percentiles(std::vector<double>(samples.begin() + warmUp, samples.end()));
}

}  // namespace ours

// ---------------------------------------------------------------------------------------------
// Faye's Node client, run by bench/faye_client_load.js.

Phase phaseOf(const boost::json::object& object) {
    auto number = [&](const char* name) {
        const auto* v = object.if_contains(name);
        return v && v->is_number() ? v->to_number<double>() : 0.0;
    };
    return {number("rate"),
            number("cpuSeconds"),
            number("serverCpuSeconds"),
            number("seconds"),
            static_cast<long>(number("messages")),
            number("longestGapSeconds")};
}

// The JSON line the Node script ends with; `longPolling` keeps its clients off WebSocket and
// runs only the 1->1 phase.
boost::json::object runFayeClient(const std::string& port, pid_t server, long messages, long window,
                                  int rounds, bool longPolling) {
    std::vector<std::string> args{"http://127.0.0.1:" + port + "/bayeux",
                                  "--messages",
                                  std::to_string(messages),
                                  "--window",
                                  std::to_string(window),
                                  "--rounds",
                                  std::to_string(rounds),
                                  "--server-pid",
                                  std::to_string(server)};
    if (longPolling)
        args.insert(args.end(), {"--long-polling", "1"});
    const auto node =
        orvale::test::startNode(std::string(ORVALE_SOURCE_DIR) + "/bench/faye_client_load.js", args,
                                std::chrono::minutes(2));
    const std::string line = *node->firstLine(std::chrono::seconds(0));
    boost::json::error_code ec;
    const auto value = boost::json::parse(line, ec);
    const auto* object = value.if_object();
    const auto* result = object ? object->if_contains("result") : nullptr;
    if (ec || !result || !result->is_string() || result->get_string() != "ok")
        throw std::runtime_error("faye client: " + line);
    return *object;
}

Row fayeClient(const std::string& port, pid_t server, long messages, long window, int rounds) {
    const auto object = runFayeClient(port, server, messages, window, rounds, false);
    Row row{"faye.Client (Node)", phaseOf(object.at("oneToOne").as_object()),
            phaseOf(object.at("oneToFour").as_object()), std::nullopt};
    const auto& latency = object.at("latency").as_object();
    row.latency = Percentiles{latency.at("p50Micros").to_number<double>(),
                              latency.at("p99Micros").to_number<double>()};
    return row;
}

// ---------------------------------------------------------------------------------------------

double per10k(double cpu, long messages) {
    return messages ? cpu * 10000.0 / static_cast<double>(messages) : 0;
}

void printRow(const Row& row) {
    const auto& a = row.oneToOne;
    const auto& b = row.oneToFour;
    char p50[16] = "-", p99[16] = "-";
    if (row.latency) {
        std::snprintf(p50, sizeof p50, "%.0f", row.latency->p50);
        std::snprintf(p99, sizeof p99, "%.0f", row.latency->p99);
    }
    std::printf("%-24s %8.0f %8.0f %6s %6s %8.3f %8.3f %8.3f %8.3f %5.0f%% %6.0f\n",
                row.label.c_str(), a.rate, b.rate, p50, p99, per10k(a.clientCpu, a.messages),
                per10k(b.clientCpu, b.messages), per10k(a.serverCpu, a.messages),
                per10k(b.serverCpu, b.messages), a.wall > 0 ? 100.0 * a.serverCpu / a.wall : 0,
                1000 * std::max(a.longestGap, b.longestGap));
}

void printTable(const Row& bare, const Row& orvale, const Row& node) {
    std::printf("%-24s %8s %8s %6s %6s %8s %8s %8s %8s %6s %6s\n", "", "deliv/s", "deliv/s",
                "lat us", "lat us", "client", "client", "server", "server", "server", "gap");
    std::printf("%-24s %8s %8s %6s %6s %8s %8s %8s %8s %6s %6s\n", "client", "1->1", "1->4", "p50",
                "p99", "cpu 1->1", "cpu 1->4", "cpu 1->1", "cpu 1->4", "busy", "ms");
    for (const Row* row : {&bare, &orvale, &node})
        printRow(*row);
    std::printf(
        "cpu: CPU seconds per 10,000 published messages over the throughput phase; busy: server "
        "CPU / wall time, 1->1;\ngap: the longest time between two publish answers. The raw "
        "client reads each socket on a thread of its own: its 1->4 is no ceiling.\n");
    const double cpuRatio = per10k(orvale.oneToOne.clientCpu, orvale.oneToOne.messages) /
                            std::max(1e-9, per10k(node.oneToOne.clientCpu, node.oneToOne.messages));
    std::printf(
        "orvale 1->1: %.0f%% of the raw client's rate, %.0f%% of faye.Client's, at %.2f times "
        "faye.Client's CPU per message.\n",
        100.0 * orvale.oneToOne.rate / bare.oneToOne.rate,
        100.0 * orvale.oneToOne.rate / node.oneToOne.rate, cpuRatio);
}

// Both clients over long-polling, 1->1: deliveries come with the answers to held connects.
void printLongPolling(const Phase& orvale, const Phase& node) {
    std::printf("\nlong-polling 1->1       deliv/s  client cpu  server cpu\n");
    for (const auto& [label, phase] : {std::make_pair("orvale client services", &orvale),
                                       std::make_pair("faye.Client (Node)", &node)})
        std::printf("%-24s %7.0f %11.3f %11.3f\n", label, phase->rate,
                    per10k(phase->clientCpu, phase->messages),
                    per10k(phase->serverCpu, phase->messages));
    std::printf(
        "orvale over long-polling: %.0f%% of faye.Client's rate at %.2f times its CPU per "
        "message.\n",
        100.0 * orvale.rate / std::max(1e-9, node.rate),
        per10k(orvale.clientCpu, orvale.messages) /
            std::max(1e-9, per10k(node.clientCpu, node.messages)));
}

void runLongPolling(const std::string& port, pid_t server, long messages, long window, int rounds) {
    const std::string endpoint = "http://127.0.0.1:" + port + "/bayeux";
    ours::throughput(endpoint, server, 1, std::min(10000L, messages), window, "/lp/warm");
    const Phase orvale = ours::throughput(endpoint, server, 1, messages, window, "/lp/one");
    const auto node = runFayeClient(port, server, messages, window, rounds, true);
    printLongPolling(orvale, phaseOf(node.at("oneToOne").as_object()));
}

}  // namespace

int main(int argc, char** argv) {
    const bool orvaleOnly = argc > 1 && std::string_view(argv[1]) == "--orvale-only";
    const bool longPollingOnly = argc > 1 && std::string_view(argv[1]) == "--long-polling";
    if (orvaleOnly || longPollingOnly) {
        --argc;
        ++argv;
    }
    const long messages = argc > 1 ? std::atol(argv[1]) : 40000;
    const long window = argc > 2 ? std::atol(argv[2]) : 500;
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 5000;
    if (messages < 4 || window < 1 || rounds < 1) {
        std::fprintf(stderr,
                     "usage: client_load [--orvale-only|--long-polling] [MESSAGES>=4 [WINDOW>=1 "
                     "[ROUNDS>=1]]]\n");
        return 2;
    }
    ::setenv("ORVALE_SOURCE_DIR", ORVALE_SOURCE_DIR, 0);
    if (auto why = orvale::test::nodeUnavailable()) {
        std::fprintf(stderr, "client_load: %s (run scripts/bootstrap)\n", why->c_str());
        return 1;
    }
    const int warmUp = std::min(1000, rounds);
    boost::log::core::get()->add_sink(
        boost::make_shared<boost::log::sinks::synchronous_sink<StderrBackend>>());
    try {
        const auto faye = orvale::test::startNode("faye_server.js", {"--timeout", "2"});
        const std::string port = *faye->firstLine(std::chrono::seconds(0));
        const pid_t server = faye->pid();
        const std::string endpoint = "ws://127.0.0.1:" + port + "/bayeux";

        if (orvaleOnly) {
            ours::throughput(endpoint, server, 1, std::min(10000L, messages), window, "/load/warm");
            const auto one = ours::throughput(endpoint, server, 1, messages, window, "/load/one");
            const auto four =
                ours::throughput(endpoint, server, 4, messages / 4, window, "/load/four");
            std::printf(
                "orvale: 1->1 %.0f deliv/s, %.3f cpu s/10k; 1->4 %.0f deliv/s, %.3f cpu s/10k\n",
                one.rate, per10k(one.clientCpu, one.messages), four.rate,
                per10k(four.clientCpu, four.messages));
            return 0;
        }
        if (longPollingOnly)
            return runLongPolling(port, server, messages, window, rounds), 0;
        // Warms the server (and both kinds of client) before anything is measured.
        raw::throughput(port, server, 1, std::min(10000L, messages), window, "/raw/warm");
        ours::throughput(endpoint, server, 1, std::min(10000L, messages), window, "/load/warm");

        Row bare{"raw WebSocket (Beast)",
                 raw::throughput(port, server, 1, messages, window, "/raw/one"),
                 raw::throughput(port, server, 4, messages / 4, window, "/raw/four"),
                 raw::latency(port, rounds, warmUp)};
        Row orvale{"orvale client services",
                   ours::throughput(endpoint, server, 1, messages, window, "/load/one"),
                   ours::throughput(endpoint, server, 4, messages / 4, window, "/load/four"),
                   ours::latency(endpoint, rounds, warmUp)};
        Row node = fayeClient(port, server, messages, window, rounds);

        std::printf(
            "Faye server on port %s; %ld messages 1->1, %ld 1->4, window %ld, %d latency "
            "rounds\n",
            port.c_str(), messages, messages / 4, window, rounds);
        printTable(bare, orvale, node);
        runLongPolling(port, server, messages, window, rounds);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "client_load: %s\n", e.what());
        return 1;
    }
    return 0;
}
