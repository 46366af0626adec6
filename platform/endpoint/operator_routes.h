#pragma once
// The routes an operator asks the hub on: /metrics (Prometheus text format 0.0.4), /healthz
// (the process answers), /readyz (it welcomes new sessions and, in a cluster, is linked to it),
// /status (a page that shows the hub's figures live) and /status.json (those figures).
//
// They are served only when EndpointOptions::operatorRoutes is set, beside the Bayeux path on
// the same port, without the API key: they tell whoever reaches them the channel names and the
// load, so they stay off unless the operator opens them.
//
// Reads the hub's lock-free counters, and takes the hub's locks briefly for the session and
// subscription figures. Called on a connection's I/O thread.

#include <boost/beast/http/status.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "connections.h"

namespace connector::bayeux::endpoint {

class Hub;

struct OperatorAnswer {
    boost::beast::http::status status = boost::beast::http::status::ok;
    std::string body;
    const char* contentType = "text/plain; charset=utf-8";
};

// The answer to `request` when it names an operator route, else nothing.
std::optional<OperatorAnswer> answerOperatorRequest(const Hub& hub, const HttpRequest& request);

// Whether `path` is one of the operator routes, which the Bayeux endpoint's path must not be.
bool isOperatorRoute(std::string_view path);

// The exposition of every metric, and the figures of the status page as JSON.
std::string metricsText(const Hub& hub);
std::string statusJson(const Hub& hub);

}  // namespace connector::bayeux::endpoint
