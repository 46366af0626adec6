#pragma once
// The service behind a client transport's Context address: answers ConnectTransport with an
// open connection, for either transport (its URL parser, settings and opener given).
//
// The service starts its I/O thread with the first connection and builds its TLS context with
// the first secure URL. When the service itself goes (its Context is destroyed) it closes the
// connections it opened and joins its thread once they have finished closing, so nothing stays
// connected or running behind a context that is gone.
//
// Thread safety: connect() may be called from any thread at once; mutex_ guards the members
// below it. Only included by the transport's own .cpp files.

#include <algorithm>
#include <boost/asio/ssl/context.hpp>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "connection.h"
#include "connector/common/mutex.h"
#include "connector/log/diagnostic_logger.h"
#include "io_thread.h"
#include "tls_client.h"
#include "ws_url.h"

namespace connector::bayeux::transport {

template <class Settings>
class TransportService {
  public:
    using Options = decltype(Settings::options);
    using Parse = std::optional<WebSocketUrl> (*)(const std::string&, std::string&);
    using Open = std::shared_ptr<Connection> (*)(Settings, Promise<MessagePtr>);

    // `name` says which transport refuses a request of the wrong type.
    TransportService(Options options, const char* name, Parse parse, Open open)
        : options_(std::move(options)), name_(name), parse_(parse), open_(open) {}

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
                std::string(name_) + " answers ConnectTransport only, not " +
                (request ? foundation::log::typeName(*request) : std::string("nothing"))));
        }
        Settings settings;
        settings.url = connect->getUrl();
        std::string problem;
        auto parts = parse_(settings.url, problem);
        if (!parts)
            return failure(settings.url, problem);
        settings.parts = std::move(*parts);
        settings.options = options_;
        settings.state = context.getState();
        settings.headers = connect->getHeaders();
        settings.cookies = connect->getCookieJar();

        Promise<MessagePtr> promise;
        auto future = promise.getFuture();
        {
            common::MutexLock lock(mutex_);
            if (!io_)
                io_ = std::make_shared<IoThread>();
            settings.io = io_;
            settings.context = io_->context();
            if (settings.parts.secure) {
                if (!tls_) {
                    try {
                        tls_ = makeClientTlsContext(options_.caFile);
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
        auto connection = open_(std::move(settings), std::move(promise));
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

    const Options options_;
    const char* const name_;
    const Parse parse_;
    const Open open_;

    common::Mutex mutex_;
    std::shared_ptr<IoThread> io_ ORVALE_GUARDED_BY(mutex_);
    std::shared_ptr<boost::asio::ssl::context> tls_ ORVALE_GUARDED_BY(mutex_);
    std::vector<std::weak_ptr<Connection>> connections_ ORVALE_GUARDED_BY(mutex_);
};

}  // namespace connector::bayeux::transport
