// The operator's routes: metrics, health, readiness and the status page with its figures.

#include "operator_routes.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <chrono>
#include <cstdio>
#include <initializer_list>
#include <utility>

#include "hub.h"
#include "status_page.h"

namespace connector::bayeux::endpoint {

namespace {

namespace http = boost::beast::http;
namespace json = boost::json;

// Busiest channels shown on the status page.
constexpr std::size_t kBusiest = 10;

const char* const kHandshakeOutcomeNames[kHandshakeOutcomes] = {"accepted",      "unauthorized",
                                                                "session_limit", "connection_limit",
                                                                "shutting_down", "address_limit"};

std::uint64_t read(const std::atomic<std::uint64_t>& counter) {
    return counter.load(std::memory_order_relaxed);
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", value);
    return text;
}

// Writes metric families in the text exposition format.
class Exposition {
  public:
    void family(const char* name, const char* type, const char* help) {
        text_.append("# HELP ").append(name).append(" ").append(help).append("\n");
        text_.append("# TYPE ").append(name).append(" ").append(type).append("\n");
    }
    // One sample; `labels` is empty or `key="value",...` of values that need no escaping.
    void sample(const std::string& name, const std::string& labels, const std::string& value) {
        text_.append(name);
        if (!labels.empty())
            text_.append("{").append(labels).append("}");
        text_.append(" ").append(value).append("\n");
    }
    void sample(const std::string& name, const std::string& labels, std::uint64_t value) {
        sample(name, labels, std::to_string(value));
    }
    // A family with one sample.
    void single(const char* name, const char* type, const char* help, std::uint64_t value) {
        family(name, type, help);
        sample(name, "", value);
    }
    // A histogram whose observations are multiplied by `scale` on the way out (nanoseconds to
    // seconds, say).
    template <std::size_t N>
    void histogram(const char* name, const char* help, const Histogram<N>& histogram,
                   double scale) {
        family(name, "histogram", help);
        const std::string base(name);
        std::uint64_t cumulative = 0;
        for (std::size_t i = 0; i <= N; ++i) {
            cumulative += histogram.bucket(i);
            const std::string le =
                i < N ? number(static_cast<double>(histogram.bounds()[i]) * scale) : "+Inf";
            sample(base + "_bucket", "le=\"" + le + "\"", cumulative);
        }
        sample(base + "_sum", "", number(static_cast<double>(histogram.sum()) * scale));
        // The buckets were read one by one while observations went on: the count is the last
        // cumulative bucket, so that the two agree as the format requires.
        sample(base + "_count", "", cumulative);
    }
    std::string take() { return std::move(text_); }

  private:
    std::string text_;
};

double uptimeSeconds(const Gauges& gauges) {
    return std::chrono::duration<double>(std::chrono::system_clock::now() - gauges.started).count();
}

bool ready(const HubFigures& figures) {
    return figures.accepting && (!figures.cluster || figures.cluster->connected);
}

OperatorAnswer plain(http::status status, const char* text) {
    return OperatorAnswer{status, text, "text/plain; charset=utf-8"};
}

}  // namespace

std::string metricsText(const Hub& hub) {
    const Gauges& g = *hub.gauges();
    const HubFigures figures = hub.figures();
    Exposition out;
    out.family("orvale_sessions", "gauge",
               "Client sessions, by the transport of their latest connect.");
    out.sample("orvale_sessions", "transport=\"websocket\"", figures.webSocketSessions);
    out.sample("orvale_sessions", "transport=\"long-polling\"", figures.longPollingSessions);
    const std::uint64_t connections = g.connections.load(std::memory_order_relaxed);
    const std::uint64_t webSockets = std::min<std::uint64_t>(
        g.webSocketConnections.load(std::memory_order_relaxed), connections);
    out.family("orvale_connections", "gauge", "Open client connections, by protocol.");
    out.sample("orvale_connections", "transport=\"websocket\"", webSockets);
    out.sample("orvale_connections", "transport=\"http\"", connections - webSockets);
    out.single("orvale_subscriptions", "gauge", "Channel subscriptions of client sessions.",
               figures.subscriptions);
    out.single("orvale_subscribed_channels", "gauge",
               "Distinct channels (and patterns) client sessions subscribe to.", figures.channels);
    out.single("orvale_pending_output_bytes", "gauge",
               "Replies and deliveries written but not yet taken by clients.",
               g.outputBytes.load(std::memory_order_relaxed));
    out.single("orvale_received_messages_total", "counter",
               "Bayeux messages received from clients.", read(g.receivedMessages));
    out.single("orvale_received_bytes_total", "counter",
               "Bytes of Bayeux frames received from clients.", read(g.receivedBytes));
    out.single("orvale_published_messages_total", "counter", "Publishes accepted from clients.",
               read(g.publishedMessages));
    out.single("orvale_delivered_messages_total", "counter", "Messages delivered to clients.",
               read(g.deliveredMessages));
    out.single("orvale_sent_bytes_total", "counter",
               "Bytes of replies and deliveries sent to clients.", read(g.sentBytes));
    out.family("orvale_handshakes_total", "counter", "Handshakes, by outcome.");
    for (std::size_t i = 0; i < kHandshakeOutcomes; ++i)
        out.sample("orvale_handshakes_total",
                   std::string("outcome=\"") + kHandshakeOutcomeNames[i] + "\"",
                   read(g.handshakes[i]));
    out.family("orvale_dropped_messages_total", "counter",
               "Messages lost before reaching their subscriber, by reason.");
    out.sample("orvale_dropped_messages_total", "reason=\"queue_overflow\"",
               read(g.droppedMessages));
    out.sample("orvale_dropped_messages_total", "reason=\"expired\"", read(g.expiredMessages));
    out.sample("orvale_dropped_messages_total", "reason=\"slow_consumer\"",
               read(g.slowConsumerMessages));
    out.family("orvale_refused_requests_total", "counter", "Requests refused, by error code.");
    for (std::size_t i = 0; i < kRefusalCodes.size(); ++i)
        out.sample("orvale_refused_requests_total",
                   "code=\"" + std::string(kRefusalCodes[i]) + "\"", read(g.refusals[i]));
    out.histogram("orvale_session_queue_messages",
                  "Messages waiting in each session's queue, sampled every second.", g.queueLengths,
                  1.0);
    out.histogram("orvale_delivery_latency_seconds",
                  "Time from a client's publish reaching the hub to its delivery being written "
                  "for a subscriber.",
                  g.latency, 1e-9);
    out.family("orvale_start_time_seconds", "gauge", "When the hub started, in Unix time.");
    out.sample("orvale_start_time_seconds", "",
               number(std::chrono::duration<double>(g.started.time_since_epoch()).count()));
    if (const auto& cluster = figures.cluster) {
        out.single("orvale_cluster_link_up", "gauge", "1 while the link to the cluster is up.",
                   cluster->connected ? 1 : 0);
        out.single("orvale_cluster_sent_messages_total", "counter", "Messages sent to the cluster.",
                   cluster->published);
        out.single("orvale_cluster_received_messages_total", "counter",
                   "Messages received from the cluster.", cluster->received);
        out.single("orvale_cluster_lost_messages_total", "counter",
                   "Messages for the cluster lost while its link was down.", cluster->lost);
        out.single("orvale_cluster_dropped_messages_total", "counter",
                   "Messages from the cluster dropped because this hub read them too slowly.",
                   cluster->dropped);
        out.single("orvale_cluster_reconnects_total", "counter",
                   "Times the link to the cluster came back after an outage.", cluster->reconnects);
        out.single("orvale_cluster_members", "gauge",
                   "Other members of the cluster heard from lately.", cluster->members);
    }
    return out.take();
}

std::string statusJson(const Hub& hub) {
    const Gauges& g = *hub.gauges();
    const HubFigures figures = hub.figures();
    json::object status;
    status["uptimeSeconds"] = uptimeSeconds(g);
    status["ready"] = ready(figures);
    status["sessions"] = {{"websocket", figures.webSocketSessions},
                          {"longPolling", figures.longPollingSessions}};
    status["connections"] = g.connections.load(std::memory_order_relaxed);
    status["subscriptions"] = figures.subscriptions;
    status["channels"] = figures.channels;
    status["received"] = read(g.receivedMessages);
    status["published"] = read(g.publishedMessages);
    status["delivered"] = read(g.deliveredMessages);
    status["receivedBytes"] = read(g.receivedBytes);
    status["sentBytes"] = read(g.sentBytes);
    status["dropped"] = {{"queueOverflow", read(g.droppedMessages)},
                         {"expired", read(g.expiredMessages)},
                         {"slowConsumer", read(g.slowConsumerMessages)}};
    std::uint64_t refused = 0;
    for (const auto& counter : g.refusals)
        refused += read(counter);
    status["refused"] = refused;
    status["latency"] = {{"count", g.latency.count()},
                         {"sumSeconds", static_cast<double>(g.latency.sum()) * 1e-9}};
    json::array busiest;
    for (const auto& entry : g.channels.busiest(kBusiest)) {
        json::object shown{{"channel", entry.channel}, {"published", entry.count}};
        if (entry.overcount != 0)  // it took the place of channels counted less
            shown["overcount"] = entry.overcount;
        busiest.push_back(std::move(shown));
    }
    status["busiestChannels"] = std::move(busiest);
    if (figures.cluster)
        status["cluster"] = {{"connected", figures.cluster->connected},
                             {"lost", figures.cluster->lost},
                             {"dropped", figures.cluster->dropped},
                             {"reconnects", figures.cluster->reconnects},
                             {"members", figures.cluster->members}};
    else
        status["cluster"] = nullptr;
    return json::serialize(status);
}

namespace {

enum class Route { Metrics, Health, Ready, Page, Figures };

// The operator route at `path`, if there is one: the one list of their paths.
std::optional<Route> routeAt(std::string_view path) {
    if (path == "/metrics")
        return Route::Metrics;
    if (path == "/healthz")
        return Route::Health;
    if (path == "/readyz")
        return Route::Ready;
    if (path == "/status")
        return Route::Page;
    if (path == "/status.json")
        return Route::Figures;
    return std::nullopt;
}

}  // namespace

bool isOperatorRoute(std::string_view path) {
    return routeAt(path).has_value();
}

std::optional<OperatorAnswer> answerOperatorRequest(const Hub& hub, const HttpRequest& request) {
    const auto target = request.target();
    const auto path = target.substr(0, target.find('?'));
    const auto route = routeAt(std::string_view(path.data(), path.size()));
    if (!route)
        return std::nullopt;
    if (request.method() != http::verb::get)
        return plain(http::status::method_not_allowed, "");
    switch (*route) {
        case Route::Metrics:
            return OperatorAnswer{http::status::ok, metricsText(hub),
                                  "text/plain; version=0.0.4; charset=utf-8"};
        case Route::Health:
            return plain(http::status::ok, "ok\n");
        case Route::Ready:
            return ready(hub.figures()) ? plain(http::status::ok, "ready\n")
                                        : plain(http::status::service_unavailable, "not ready\n");
        case Route::Page:
            return OperatorAnswer{http::status::ok, kStatusPage, "text/html; charset=utf-8"};
        case Route::Figures:
            break;
    }
    return OperatorAnswer{http::status::ok, statusJson(hub), "application/json"};
}

}  // namespace connector::bayeux::endpoint
