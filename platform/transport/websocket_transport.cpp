// The WebSocket transport service: answers ConnectTransport with an open connection.
//
// The service starts its I/O thread with the first connection and builds its TLS context with
// the first wss:// URL. When the service itself goes (its Context is destroyed) it closes the
// connections it opened and joins its thread once they have finished closing, so nothing stays
// connected or running behind a context that is gone.

#include "connector/bayeux/websocket_transport.h"

#include <algorithm>
#include <boost/asio/ssl/context.hpp>
#include <boost/system/system_error.hpp>
#include <stdexcept>
#include <vector>

#include "connector/common/mutex.h"
#include "connector/log/diagnostic_logger.h"
#include "io_thread.h"
#include "websocket_connection.h"

namespace connector::bayeux {

Address webSocketTransportAddress() {
    return Address("connector/bayeux/webSocket/client", "connector/http/client");
}

namespace transport {
namespace {

class TransportService {
  public:
    explicit TransportService(WebSocketTransportOptions options) : options_(std::move(options)) {}

    ~TransportService() {
        std::vector<std::weak_ptr<Connection>> connections;
        {
            common::MutexLock lock(mutex_);
            connections.swap(connections_);
        }
        for (auto& weak : connections)
            if (auto connection = weak.lock())
                connection->close();
    }

    Future<MessagePtr> connect(Context& context, MessagePtr request) {
        const auto* connect = dynamic_cast<const ConnectTransport*>(request.get());
        if (!connect) {
            return makeFailedFuture<MessagePtr>(std::invalid_argument(
                "The WebSocket transport answers ConnectTransport only, not " +
                (request ? foundation::log::typeName(*request) : std::string("nothing"))));
        }
        ConnectionSettings settings;
        settings.url = connect->getUrl();
        std::string problem;
        auto parts = parseWebSocketUrl(settings.url, problem);
        if (!parts)
            return failure(settings.url, problem);
        settings.parts = std::move(*parts);
        settings.options = options_;
        settings.state = context.getState();

        Promise<MessagePtr> promise;
        auto future = promise.getFuture();
        std::shared_ptr<Connection> connection;
        {
            common::MutexLock lock(mutex_);
            if (!io_)
                io_ = std::make_shared<IoThread>();
            settings.io = io_;
            settings.context = io_->context();
            if (settings.parts.secure) {
                if (!tls_) {
                    try {
                        tls_ = makeTlsContext();
                    } catch (const std::exception& e) {
                        return failure(settings.url, e.what());
                    }
                }
                settings.tls = tls_;
            }
            connections_.erase(std::remove_if(connections_.begin(), connections_.end(),
                                              [](const auto& weak) { return weak.expired(); }),
                               connections_.end());
        }
        // Opening posts to the I/O thread, whose handlers may resolve the promise: no lock here.
        connection = openWebSocketConnection(std::move(settings), std::move(promise));
        {
            common::MutexLock lock(mutex_);
            connections_.push_back(connection);
        }
        return future;
    }

  private:
    static Future<MessagePtr> failure(const std::string& url, const std::string& cause) {
        return makeFailedFuture<MessagePtr>(
            std::runtime_error("Cannot connect to " + url + ": " + cause));
    }

    std::shared_ptr<boost::asio::ssl::context> makeTlsContext() const {
        auto tls =
            std::make_shared<boost::asio::ssl::context>(boost::asio::ssl::context::tls_client);
        tls->set_options(boost::asio::ssl::context::default_workarounds |
                         boost::asio::ssl::context::no_sslv2 | boost::asio::ssl::context::no_sslv3);
        tls->set_default_verify_paths();
        if (!options_.caFile.empty()) {
            boost::system::error_code ec;
            tls->load_verify_file(options_.caFile, ec);
            if (ec)
                throw std::runtime_error("cannot load the CA file " + options_.caFile + ": " +
                                         ec.message());
        }
        return tls;
    }

    const WebSocketTransportOptions options_;

    common::Mutex mutex_;
    std::shared_ptr<IoThread> io_ ORVALE_GUARDED_BY(mutex_);
    std::shared_ptr<boost::asio::ssl::context> tls_ ORVALE_GUARDED_BY(mutex_);
    std::vector<std::weak_ptr<Connection>> connections_ ORVALE_GUARDED_BY(mutex_);
};

}  // namespace
}  // namespace transport

ServiceHandler makeWebSocketTransport(WebSocketTransportOptions options) {
    auto service = std::make_shared<transport::TransportService>(std::move(options));
    return [service](Context& context, std::unique_ptr<Message> request) {
        return service->connect(context, std::move(request));
    };
}

}  // namespace connector::bayeux
