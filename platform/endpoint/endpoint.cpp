// The Bayeux endpoint: the listening socket, the I/O threads, the timer that sweeps sessions,
// and orderly shutdown.
//
// Each I/O thread (one, or two from four cores on) runs its own io_context, so a connection
// lives on one thread and needs no strand; accepted sockets are spread over the threads in turn.
// The threads run their handlers in turns (io_turns.h).
// A connection beyond maxConnections is closed as soon as it is accepted; a failed accept (out
// of descriptors, say) is retried after a pause that grows while the failures go on.
// stop() first ends every session (after which no session posts to a connection), then stops and
// joins the threads, then destroys the io_contexts, which frees every connection still waiting on
// one.

#include "connector/bayeux/endpoint.h"

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "accept_backoff.h"
#include "common/doubling_log.h"
#include "connections.h"
#include "connector/common/mutex.h"
#include "connector/log/diagnostic_logger.h"
#include "hub.h"
#include "io_turns.h"
#include "operator_routes.h"

namespace connector::bayeux {

namespace {

namespace asio = boost::asio;
namespace log = foundation::log;
using tcp = asio::ip::tcp;
using error_code = boost::system::error_code;
using endpoint::Hub;

const log::basic_diagnostic_logger<char> logger("connector::bayeux::endpoint");

std::chrono::milliseconds sweepInterval(const EndpointOptions& options) {
    const auto shortest =
        std::min({options.connectTimeout, options.sessionTimeout, options.connectGrace});
    return std::clamp(shortest / 10, std::chrono::milliseconds(5), std::chrono::milliseconds(500));
}

std::shared_ptr<asio::ssl::context> makeTls(const EndpointOptions& options) {
    if (options.certFile.empty() && options.keyFile.empty())
        return nullptr;
    if (options.certFile.empty() || options.keyFile.empty())
        throw std::runtime_error("TLS needs both a certificate file and a key file");
    auto tls = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_server);
    tls->set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
                     asio::ssl::context::no_sslv3 | asio::ssl::context::no_tlsv1 |
                     asio::ssl::context::no_tlsv1_1);
    error_code ec;
    tls->use_certificate_chain_file(options.certFile, ec);
    if (ec)
        throw std::runtime_error("Cannot load the certificate " + options.certFile + ": " +
                                 ec.message());
    tls->use_private_key_file(options.keyFile, asio::ssl::context::pem, ec);
    if (ec)
        throw std::runtime_error("Cannot load the key " + options.keyFile + ": " + ec.message());
    return tls;
}

// The most handlers an I/O thread runs before it wakes the delivery threads: enough for a busy
// publisher's window of a thousand publishes (a read and a write for each frame of them).
constexpr std::size_t kHandlersPerTurn = 128;
// How long a stopping endpoint lets its loops send the replies that tell clients to come back.
constexpr std::chrono::milliseconds kStopGrace{500};

class Loop {
  public:
    Loop() : work_(asio::make_work_guard(io_)) {
        thread_ = std::thread([this] { run(); });
    }
    asio::io_context& io() { return io_; }
    void stop() {
        io_.stop();
        if (thread_.joinable())
            thread_.join();
    }
    // Runs what was posted before now, then what that started (a reply's write, say), for at
    // most `bound`: true when the loop got that far.
    bool settle(std::chrono::steady_clock::time_point bound) {
        if (std::this_thread::get_id() == thread_.get_id())
            return false;  // it would wait for itself
        for (int round = 0; round < 2; ++round) {
            auto done = std::make_shared<std::promise<void>>();
            auto ran = done->get_future();
            asio::post(io_, [done] { done->set_value(); });
            if (ran.wait_until(bound) != std::future_status::ready)
                return false;
        }
        return true;
    }

  private:
    void run() {
        for (;;) {
            try {
                endpoint::runInTurns(io_, kHandlersPerTurn);
                return;
            } catch (const std::exception& e) {
                logger.log(log::error, "An endpoint I/O handler failed: ", e.what());
            } catch (...) {
                logger.log(log::error, "An endpoint I/O handler failed");
            }
        }
    }

    asio::io_context io_{1};
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    std::thread thread_;
};

class EndpointImpl final : public BayeuxEndpoint {
  public:
    EndpointImpl(std::shared_ptr<BayeuxServer> server, EndpointOptions options)
        : tls_(makeTls(options)),
          sweepEvery_(sweepInterval(options)),
          maxConnections_(std::max<std::size_t>(options.maxConnections, 1)),
          maxPerAddress_(options.maxConnectionsPerAddress),
          addressWanted_(options.maxConnectionsPerAddress > 0 ||
                         options.maxSessionsPerAddress > 0) {
        if (!server)
            throw std::invalid_argument("The endpoint needs a Bayeux server");
        if (options.operatorRoutes && endpoint::isOperatorRoute(options.path))
            throw std::invalid_argument("The endpoint's path " + options.path +
                                        " is taken by an operator route");
        hub_ = std::make_shared<Hub>(std::move(server), options);
        // One thread serves every connection on a small machine, where the server's delivery
        // threads need the other cores; a second one pays off from four cores on.
        const unsigned threads = std::thread::hardware_concurrency() >= 4 ? 2 : 1;
        for (unsigned i = 0; i < threads; ++i)
            loops_.push_back(std::make_unique<Loop>());
        try {
            listen(options.host, options.port);
        } catch (...) {
            stop();
            throw;
        }
        sweepTimer_.emplace(loops_[0]->io());
        asio::post(loops_[0]->io(), [this] {
            accept();
            scheduleSweep();
        });
        logger.log(log::trace, "Serving Bayeux at ", tls_ ? "wss" : "ws", "://", options.host, ":",
                   port_, options.path);
    }

    ~EndpointImpl() override { stop(); }

    std::uint16_t port() const override { return port_; }
    std::size_t sessionCount() const override { return hub_->sessionCount(); }

    EndpointStats stats() const override {
        const endpoint::Gauges& gauges = *hub_->gauges();
        EndpointStats stats;
        stats.connections = gauges.connections.load(std::memory_order_relaxed);
        stats.outputBytes = gauges.outputBytes.load(std::memory_order_relaxed);
        stats.droppedMessages = gauges.droppedMessages.load(std::memory_order_relaxed);
        return stats;
    }

    void stop() override {
        common::MutexLock lock(stopMutex_);
        if (stopped_)
            return;
        stopped_ = true;
        hub_->shutdown();
        // The loops run the stopping replies the hub has just posted, so that held connects and
        // late handshakes hear "handshake" before their connections close.
        const auto bound = std::chrono::steady_clock::now() + kStopGrace;
        for (auto& loop : loops_)
            loop->settle(bound);
        for (auto& loop : loops_)
            loop->stop();
        acceptor_.reset();
        sweepTimer_.reset();
        retryTimer_.reset();
        loops_.clear();
    }

  private:
    void listen(const std::string& host, std::uint16_t port) {
        error_code ec;
        tcp::resolver resolver(loops_[0]->io());
        auto results = resolver.resolve(host, std::to_string(port), tcp::resolver::passive, ec);
        if (ec || results.empty())
            throw std::runtime_error("Cannot resolve " + host + ": " +
                                     (ec ? ec.message() : "no address"));
        const tcp::endpoint where = results.begin()->endpoint();
        acceptor_.emplace(loops_[0]->io());
        acceptor_->open(where.protocol(), ec);
        if (!ec)
            acceptor_->set_option(asio::socket_base::reuse_address(true), ec);
        if (!ec)
            acceptor_->bind(where, ec);
        if (!ec)
            acceptor_->listen(asio::socket_base::max_listen_connections, ec);
        if (ec)
            throw std::runtime_error("Cannot listen on " + host + ":" + std::to_string(port) +
                                     ": " + ec.message());
        port_ = acceptor_->local_endpoint().port();
    }

    void accept() {
        asio::io_context& target = loops_[nextLoop_++ % loops_.size()]->io();
        acceptor_->async_accept(target, [this](error_code ec, tcp::socket socket) {
            onAccepted(ec, std::move(socket));
        });
    }

    void onAccepted(error_code ec, tcp::socket socket) {
        if (ec == asio::error::operation_aborted)
            return;
        if (ec) {
            if (backoff_.failures() == 0)
                logger.log(log::warning, "Accepting a connection failed: ", ec.message(),
                           "; retrying after growing pauses");
            retryTimer_.emplace(loops_[0]->io());
            retryTimer_->expires_after(backoff_.failed());
            retryTimer_->async_wait([this](error_code ec) {
                if (!ec)
                    accept();
            });
            return;
        }
        // Every episode whose start was logged gets its end logged, however short it was.
        if (const std::uint64_t failures = backoff_.succeeded(); failures > 0)
            logger.log(log::warning, "Accepting connections again after ", failures,
                       " failed attempts");
        serve(std::move(socket));
        accept();
    }

    void serve(tcp::socket socket) {
        error_code ignored;
        if (hub_->gauges()->connections.load(std::memory_order_relaxed) >= maxConnections_) {
            if (!refusing_)
                logger.log(log::warning, "Refusing connections: ", maxConnections_,
                           " are open already");
            refusing_ = true;
            socket.close(ignored);
            return;
        }
        refusing_ = false;
        std::string address;
        if (addressWanted_)
            address = socket.remote_endpoint(ignored).address().to_string();
        if (maxPerAddress_ > 0) {
            if (!hub_->gauges()->addresses.add(address, maxPerAddress_)) {
                if (const std::uint64_t n = refusedByAddress_.next())
                    logger.log(log::warning, "Refused a connection from ", address, ", which has ",
                               maxPerAddress_, " open already (", n, " refused so far)");
                socket.close(ignored);
                return;
            }
        }
        socket.set_option(tcp::no_delay(true), ignored);
        endpoint::ConnectionSlot slot(hub_->gauges(), std::move(address), maxPerAddress_ > 0);
        try {
            if (tls_)
                endpoint::serveHttp(endpoint::TlsStream(std::move(socket), *tls_), hub_,
                                    std::move(slot));
            else
                endpoint::serveHttp(endpoint::PlainStream(std::move(socket)), hub_,
                                    std::move(slot));
        } catch (const std::exception& e) {
            logger.log(log::error, "Cannot serve a new connection: ", e.what());
        }
    }

    void scheduleSweep() {
        sweepTimer_->expires_after(sweepEvery_);
        sweepTimer_->async_wait([this](error_code ec) {
            if (ec)
                return;
            try {
                hub_->sweep(endpoint::Clock::now());
            } catch (const std::exception& e) {
                logger.log(log::error, "Sweeping sessions failed: ", e.what());
            }
            scheduleSweep();
        });
    }

    // Declared first so that it outlives every TLS stream, which are freed with loops_.
    const std::shared_ptr<asio::ssl::context> tls_;
    const std::chrono::milliseconds sweepEvery_;
    const std::size_t maxConnections_;
    const std::size_t maxPerAddress_;  // 0: no bound
    const bool addressWanted_;         // a bound per address needs each peer's address
    common::DoublingLog refusedByAddress_;
    std::shared_ptr<Hub> hub_;
    std::vector<std::unique_ptr<Loop>> loops_;
    // On loops_[0]; reset before the loops go.
    std::optional<tcp::acceptor> acceptor_;
    std::optional<asio::steady_timer> sweepTimer_;
    std::optional<asio::steady_timer> retryTimer_;
    // Touched on loops_[0] only.
    std::size_t nextLoop_ = 0;
    endpoint::AcceptBackoff backoff_;
    bool refusing_ = false;  // the connections at the cap are being refused
    std::uint16_t port_ = 0;
    common::Mutex stopMutex_;  // serialises stop()
    bool stopped_ ORVALE_GUARDED_BY(stopMutex_) = false;
};

}  // namespace

std::unique_ptr<BayeuxEndpoint> startBayeuxEndpoint(std::shared_ptr<BayeuxServer> server,
                                                    EndpointOptions options) {
    return std::make_unique<EndpointImpl>(std::move(server), std::move(options));
}

}  // namespace connector::bayeux
