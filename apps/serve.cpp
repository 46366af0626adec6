// orvale serve: a Bayeux hub until SIGINT or SIGTERM.

#include <sys/resource.h>

#include <iostream>
#include <optional>
#include <thread>

#include "cli.h"
#include "commands.h"
#include "connector/bayeux/endpoint.h"
#include "connector/log/diagnostic_logger.h"
#include "console_log.h"
#include "signals.h"

namespace orvale::app {

namespace {

const char* const kUsage =
    R"(usage: orvale serve [--host H] [--port P] [--path /bayeux] [--api-key K | --api-key-file F]
                   [--cert FILE --key FILE] [--connect-timeout MS] [--session-timeout MS]
                   [--max-sessions N] [--max-sessions-per-connection N] [--max-connections N]
                   [--max-connections-per-address N] [--max-sessions-per-address N]
                   [--max-queue-bytes B] [--max-output-bytes B] [--max-messages-per-frame N]
                   [--max-subscriptions N] [--max-channel-bytes B] [--max-channel-segments N]
                   [--connect-grace MS] [--ws-idle-timeout MS] [--log-format text|json]
                   [--cluster nats://H:P[,nats://H:P...]] [--allow-origin O[,O...]] [--deflate]
                   [--operator-routes]

Serves Bayeux clients (CometD, Faye, orvale client services) over WebSocket and HTTP
long-polling at ws://H:P/path, printing that URL on the first line of stdout, until SIGINT or
SIGTERM.

  --host H               address to listen on (default 127.0.0.1)
  --port P               port (default 8080; 0 picks a free one)
  --path /bayeux         path of the endpoint (default /bayeux)
  --api-key K            handshakes must carry ext.orvapikey equal to K
  --api-key-file F       the same, K being the first line of F (out of sight of ps)
  --cert, --key          PEM certificate and key: serve wss:// and https://
  --connect-timeout MS   how long a /meta/connect is held (default 25000; from 1)
  --session-timeout MS   a session without /meta/connect for this long ends (default 45000)
  --max-sessions N       handshakes beyond N sessions are refused (default 100000)
  --max-sessions-per-connection N
                         live sessions one connection may handshake; more get
                         "503::Too many sessions on this connection" (default 16; raise it
                         behind a proxy that pools many clients' requests on few connections)
  --max-messages-per-frame N
                         a WebSocket frame or HTTP body of more messages is refused whole:
                         the WebSocket is closed (1009), the HTTP request answered 413 and its
                         connection closed (default 1000)
  --max-subscriptions N  channels one session may be subscribed to at once; more get
                         "403:<channel>:Too many subscriptions" (default 1000)
  --max-channel-bytes B, --max-channel-segments N
                         the longest channel name, and the most segments, a subscribe or
                         publish may carry; beyond them it gets "405::Channel name too long"
                         (defaults 1024 and 16)
  --connect-grace MS     a session that sends no /meta/connect this long after its handshake
                         ends (default 10000)
  --max-connections N    connections beyond N are closed on arrival (default 100000, or
                         fewer to stay within the limit of open files)
  --max-connections-per-address N
                         connections beyond N from one client address are closed on arrival
                         (default 0: no bound, as proxies and NAT share addresses)
  --max-sessions-per-address N
                         live sessions the clients at one address may hold; more get
                         "503::Too many sessions from this address" (default 0: no bound); set
                         it with --max-connections-per-address, since long-polling sessions
                         outlive their connections
  --max-queue-bytes B    bytes of messages queued for one session (default 4194304); a full
                         queue drops its oldest messages and the session's next /meta/connect
                         reply carries ext.dropped, the number lost
  --max-output-bytes B   a connection whose unread output passes B is closed (default 16777216)
  --ws-idle-timeout MS   a WebSocket that sends no frame, or takes no output, for this long is
                         closed; at least twice --connect-timeout (default 60000)
  --cluster URLS         join the hubs and host processes of a cluster through these NATS
                         servers (comma-separated): every member's clients share channels
  --allow-origin O[,O...]
                         origins (https://app.example.com) whose pages may use the hub across
                         origins: CORS answers for long-polling and callback-polling for them,
                         403 for other origins' pages; '*' allows every origin (default: none)
  --deflate              permessage-deflate for WebSocket clients that offer it (default off);
                         a frame inflating past 1 MiB closes its connection
  --operator-routes      also serve, on this port and without the API key: /metrics
                         (Prometheus), /healthz (200 while the process runs), /readyz (200
                         while new sessions are welcome and any cluster link is up, else 503),
                         /status (a live page) and /status.json; off by default, since they
                         show channel names and load to whoever reaches the port
  --log-format F         text (default): "orvale [severity] logger: message" lines on stderr;
                         json: one object a line, {"time","severity","logger","message"} and
                         "fields" for structured records

A session is bound to the client that made it: requests for it are served only over the
WebSocket it was handshaken on, or with its browser's id in a cookie (HttpOnly, SameSite=Strict,
Secure under TLS), which the hub sets for clients that bring none: BAYEUX_BROWSER on long-polling
handshake answers, BAYEUX_BROWSER_WS on WebSocket upgrade answers. Anything else is answered
"402::Unknown client". Under TLS with --allow-origin the cookies are SameSite=None; Partitioned,
so that the allowed sites' pages can long-poll; over plain HTTP browsers send them to same-site
pages only (another port of the same host, say).
)";

// Each connection takes a file descriptor. The soft limit of open files, often 1024, is raised
// to the hard one; connections past what it then allows would fail to be accepted rather than be
// closed on arrival as counted. So the default bound stays below it, and a bound given above it
// is warned of.
std::size_t boundByFileLimit(std::size_t maxConnections, bool given) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return maxConnections;
    if (limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    // Some descriptors go to the process itself: its log, its listening sockets, a cluster link.
    constexpr rlim_t kOwnFiles = 64;
    if (limit.rlim_cur == RLIM_INFINITY || limit.rlim_cur >= maxConnections + kOwnFiles)
        return maxConnections;
    const std::size_t allowed = limit.rlim_cur > kOwnFiles ? limit.rlim_cur - kOwnFiles : 1;
    if (!given)
        return allowed;
    static const foundation::log::basic_diagnostic_logger<char> logger("orvale::serve");
    logger.log(foundation::log::warning, "The limit of open files (", limit.rlim_cur,
               ") is below --max-connections (", maxConnections, "): connections past about ",
               allowed, " will fail to be accepted; raise it (ulimit -n)");
    return maxConnections;
}

}  // namespace

int runServe(const Words& words) {
    const Args args(words,
                    {"--host",
                     "--port",
                     "--path",
                     "--api-key",
                     "--api-key-file",
                     "--cert",
                     "--key",
                     "--connect-timeout",
                     "--session-timeout",
                     "--max-sessions",
                     "--max-connections",
                     "--max-connections-per-address",
                     "--max-sessions-per-address",
                     "--max-queue-bytes",
                     "--max-output-bytes",
                     "--ws-idle-timeout",
                     "--max-sessions-per-connection",
                     "--max-messages-per-frame",
                     "--max-subscriptions",
                     "--max-channel-bytes",
                     "--max-channel-segments",
                     "--connect-grace",
                     "--log-format",
                     "--cluster",
                     "--allow-origin"},
                    {"--help", "--deflate", "--operator-routes"});
    if (args.has("--help")) {
        std::cout << kUsage;
        return 0;
    }
    if (!args.positional().empty())
        throw UsageError("unexpected argument '" + args.positional().front() + "'");
    const std::string logFormat = args.value("--log-format", "text");
    if (logFormat != "text" && logFormat != "json")
        throw UsageError("--log-format is text or json");
    setConsoleLogFormat(logFormat == "json" ? LogFormat::Json : LogFormat::Text);
    connector::bayeux::EndpointOptions options;
    options.host = args.value("--host", options.host);
    options.port = static_cast<std::uint16_t>(args.number("--port", 8080, 0, 65535));
    options.path = args.value("--path", options.path);
    if (options.path.empty() || options.path[0] != '/')
        throw UsageError("--path must start with '/'");
    options.apiKey = apiKey(args);
    options.certFile = args.value("--cert", "");
    options.keyFile = args.value("--key", "");
    if (options.certFile.empty() != options.keyFile.empty())
        throw UsageError("--cert and --key go together");
    options.connectTimeout = std::chrono::milliseconds(
        args.number("--connect-timeout", options.connectTimeout.count(), 1, 3600000));
    options.sessionTimeout = std::chrono::milliseconds(
        args.number("--session-timeout", options.sessionTimeout.count(), 1, 86400000));
    options.maxSessions = args.number("--max-sessions", options.maxSessions, 1, 10000000);
    options.maxConnections =
        boundByFileLimit(args.number("--max-connections", options.maxConnections, 1, 10000000),
                         args.has("--max-connections"));
    options.maxConnectionsPerAddress =
        args.number("--max-connections-per-address", options.maxConnectionsPerAddress, 0, 10000000);
    options.maxSessionsPerAddress =
        args.number("--max-sessions-per-address", options.maxSessionsPerAddress, 0, 10000000);
    constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;
    options.maxQueueBytes = args.number("--max-queue-bytes", options.maxQueueBytes, 1024, kGiB);
    options.maxOutputBytes =
        args.number("--max-output-bytes", options.maxOutputBytes, 64 * 1024, 4 * kGiB);
    options.webSocketIdleTimeout = std::chrono::milliseconds(
        args.number("--ws-idle-timeout", options.webSocketIdleTimeout.count(), 1, 86400000));
    options.maxSessionsPerConnection =
        args.number("--max-sessions-per-connection", options.maxSessionsPerConnection, 1, 10000000);
    options.maxMessagesPerFrame =
        args.number("--max-messages-per-frame", options.maxMessagesPerFrame, 1, 10000000);
    options.maxSubscriptionsPerSession =
        args.number("--max-subscriptions", options.maxSubscriptionsPerSession, 1, 10000000);
    options.maxChannelBytes =
        args.number("--max-channel-bytes", options.maxChannelBytes, 2, 1 << 20);
    options.maxChannelSegments =
        args.number("--max-channel-segments", options.maxChannelSegments, 1, 1024);
    options.connectGrace = std::chrono::milliseconds(
        args.number("--connect-grace", options.connectGrace.count(), 1, 86400000));
    for (std::string origins = args.value("--allow-origin", ""); !origins.empty();) {
        const auto comma = origins.find(',');
        options.allowedOrigins.push_back(origins.substr(0, comma));
        origins = comma == std::string::npos ? std::string() : origins.substr(comma + 1);
    }
    options.deflate = args.has("--deflate");
    options.operatorRoutes = args.has("--operator-routes");

    // On a machine of fewer than four cores one delivery thread beside the hub's one I/O thread
    // beats more threads taking turns on the same cores.
    connector::bayeux::BayeuxServerOptions serverOptions;
    if (std::thread::hardware_concurrency() < 4)
        serverOptions.threads = 1;
    for (std::string urls = args.value("--cluster", ""); !urls.empty();) {
        const auto comma = urls.find(',');
        serverOptions.clusterUrls.push_back(urls.substr(0, comma));
        urls = comma == std::string::npos ? std::string() : urls.substr(comma + 1);
    }
    std::optional<StopWhileStarting> starting(std::in_place);  // joining a cluster takes seconds
    std::shared_ptr<connector::bayeux::BayeuxServer> server;
    try {
        server = connector::bayeux::makeBayeuxServer(serverOptions);
    } catch (const std::exception& e) {
        throw Failure(e.what());
    }
    std::unique_ptr<connector::bayeux::BayeuxEndpoint> endpoint;
    try {
        endpoint = connector::bayeux::startBayeuxEndpoint(server, options);
    } catch (const std::exception& e) {
        throw Failure(e.what());
    }
    const bool secure = !options.certFile.empty();
    // An IPv6 address goes in brackets, as a URL spells it.
    const bool bracketed = options.host.find(':') != std::string::npos;
    std::cout << (secure ? "wss://" : "ws://") << (bracketed ? "[" : "") << options.host
              << (bracketed ? "]" : "") << ":" << endpoint->port() << options.path << std::endl;
    const std::atomic<bool> never{false};
    starting.reset();
    waitForStop(never);
    endpoint->stop();
    return 0;
}

}  // namespace orvale::app
