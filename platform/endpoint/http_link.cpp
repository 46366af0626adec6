// A client's HTTP connection to the hub: long-polling requests and WebSocket upgrades.
//
// Everything here runs on the connection's I/O thread. One request is served at a time; a POST
// whose /meta/connect is held waits, with its other replies, until the session releases it
// through the Link, and one that subscribed waits until the cluster knows it. An upgrade hands the
// stream over to a WebSocket link. A response larger than maxOutputBytes is not written: the
// connection is closed instead, as a WebSocket whose output passes the bound is.
//
// Each request names its browser with its own cookies, whatever connection it comes over; a
// handshake from a request without an id this hub issued sets BAYEUX_BROWSER in its answer.
//
// Pages of other origins reach it as cross_origin.h says: requests and preflights from allowed
// origins are answered with CORS headers, others refused; a POST body may be the form
// `message=<JSON>`, and a GET with `message` and `jsonp` in its query is answered with a
// script calling `jsonp` with the replies.

#include <boost/asio/post.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <chrono>
#include <optional>
#include <utility>

#include "connections.h"
#include "connector/log/diagnostic_logger.h"
#include "cross_origin.h"
#include "hub.h"
#include "operator_routes.h"

namespace connector::bayeux::endpoint {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace log = foundation::log;
using error_code = boost::system::error_code;

const log::basic_diagnostic_logger<char> logger("connector::bayeux::endpoint");

// Time allowed for the TLS handshake, for a whole request to arrive (an idle keep-alive
// connection included) and for a response to be written.
constexpr std::chrono::seconds kHandshakeTimeout{30};
constexpr std::chrono::seconds kRequestTimeout{60};
constexpr std::chrono::seconds kWriteTimeout{30};
constexpr std::uint32_t kHeaderLimit = 16 * 1024;

template <class Stream>
constexpr bool kSecure = std::is_same_v<Stream, TlsStream>;

template <class Stream>
class HttpLink final : public Link, public std::enable_shared_from_this<HttpLink<Stream>> {
  public:
    HttpLink(Stream&& stream, std::shared_ptr<Hub> hub, ConnectionSlot slot)
        : stream_(std::move(stream)),
          hub_(std::move(hub)),
          slot_(std::move(slot)),
          meter_(hub_->gauges()),
          sender_(hub_->sender(Transport::LongPolling, {}, slot_.address())) {}

    void start() {
        if constexpr (kSecure<Stream>) {
            beast::get_lowest_layer(stream_).expires_after(kHandshakeTimeout);
            stream_.async_handshake(
                asio::ssl::stream_base::server, [self = this->shared_from_this()](error_code ec) {
                    if (ec)
                        logger.log(log::trace, "TLS handshake failed: ", ec.message());
                    else
                        self->readRequest();
                });
        } else {
            readRequest();
        }
    }

    // Long-polling sessions never take deliveries through a link; they come with the connect.
    void deliveriesReady(std::shared_ptr<RemoteSession>) override {}

    void connectReleased(std::shared_ptr<RemoteSession> session, ConnectRelease release) override {
        asio::post(stream_.get_executor(),
                   [self = this->shared_from_this(), session = std::move(session),
                    release = std::move(release)]() mutable {
                       self->onConnectReleased(session, release);
                   });
    }

    void subscriptionsShared() override {
        asio::post(stream_.get_executor(),
                   [self = this->shared_from_this()] { self->onSubscriptionsShared(); });
    }

  private:
    void readRequest() {
        parser_.emplace();
        parser_->body_limit(hub_->options().maxMessageBytes);
        parser_->header_limit(kHeaderLimit);
        beast::get_lowest_layer(stream_).expires_after(kRequestTimeout);
        http::async_read(
            stream_, buffer_, *parser_,
            [self = this->shared_from_this()](error_code ec, std::size_t) { self->onRequest(ec); });
    }

    void onRequest(error_code ec) {
        if (ec == http::error::body_limit) {
            logger.log(log::warning, "Refused an HTTP body over ", hub_->options().maxMessageBytes,
                       " bytes");
            hub_->gauges()->countRefusal("413");
            keepAlive_ = false;
            return respond(http::status::payload_too_large, "", "text/plain");
        }
        if (ec) {
            if (ec != http::error::end_of_stream && ec != asio::error::operation_aborted)
                logger.log(log::trace, "HTTP connection ended: ", ec.message());
            return close();
        }
        HttpRequest& request = parser_->get();
        allowOrigin_.clear();
        jsonp_.clear();
        keepAlive_ = request.keep_alive();
        version_ = request.version();
        if (hub_->options().operatorRoutes) {
            if (auto answer = answerOperatorRequest(*hub_, request))
                return respond(answer->status, std::move(answer->body), answer->contentType, false);
        }
        if (!servesPath(request.target()))
            return respond(http::status::not_found, "", "text/plain");
        const auto& allowed = hub_->options().allowedOrigins;
        OriginCheck origin = checkOrigin(request, allowed);
        if (beast::websocket::is_upgrade(request)) {
            // A page another site runs must not drive the sessions of the browser it runs in.
            if (origin.refused)
                request.erase(http::field::cookie);
            serveWebSocket(std::move(stream_), parser_->release(), hub_, std::move(slot_),
                           sender_.sessions);
            return;
        }
        if (origin.refused) {
            logger.log(log::trace, "Refused a request from a page of another origin");
            return respond(http::status::forbidden, "", "text/plain");
        }
        allowOrigin_ = std::move(origin.allowOrigin);
        std::optional<std::string> form;
        if (request.method() == http::verb::options) {
            if (allowOrigin_.empty())
                return respond(http::status::forbidden, "", "text/plain");
            preflightHeaders_ = request[http::field::access_control_request_headers];
            return respond(http::status::no_content, "", "text/plain");
        } else if (request.method() == http::verb::get) {
            auto callback = queryParameter(request.target(), "jsonp");
            form = queryParameter(request.target(), "message");
            if (!callback || !form)
                return respond(http::status::method_not_allowed, "", "text/plain");
            if (!callbackNameValid(*callback) || !callbackPollingAllowed(request, allowed))
                return respond(http::status::forbidden, "", "text/plain");
            jsonp_ = std::move(*callback);
        } else if (request.method() != http::verb::post) {
            return respond(http::status::method_not_allowed, "", "text/plain");
        } else if (beast::string_view body = request.body(); body.substr(0, 8) == "message=") {
            if (!(form = formDecode(body.substr(8))))
                return respond(http::status::bad_request, "", "text/plain");
        }

        FrameBuilder out;
        FrameOutcome outcome;
        try {
            // Assigned into the storage of the last request's: no allocation after the first.
            hub_->browsers().fromRequest(request, sender_.browser);
            outcome = hub_->handleFrame(form ? *form : request.body(), self(), sender_, out);
        } catch (const std::exception& e) {
            logger.log(log::error, "Closing an HTTP connection after a failure: ", e.what());
            return close();
        }
        parser_.reset();  // the body is not needed while a connect is held
        if (outcome.tooManyMessages) {
            keepAlive_ = false;
            return respond(http::status::payload_too_large, "", "text/plain");
        }
        if (!outcome.issuedBrowser.empty()) {
            setCookie_ = browserCookie(outcome.issuedBrowser, hub_->options().path, kSecure<Stream>,
                                       !allowed.empty());
        }
        if (outcome.awaitingCluster) {
            awaiting_.emplace(std::move(outcome), std::move(out));
            return;
        }
        answerFrame(std::move(outcome), std::move(out));
    }

    void answerFrame(FrameOutcome outcome, FrameBuilder out) {
        if (outcome.heldSession) {
            heldSession_ = std::move(outcome.heldSession);
            heldToken_ = outcome.heldToken;
            heldReplies_ = std::move(out);
            beast::get_lowest_layer(stream_).expires_never();
            // Released while the cluster was being waited for: answered now.
            if (auto released = std::exchange(releasedWhileAwaiting_, std::nullopt))
                onConnectReleased(released->first, released->second);
            return;
        }
        respond(outcome.unreadable ? http::status::bad_request : http::status::ok, out.close(),
                "application/json;charset=UTF-8");
    }

    void onSubscriptionsShared() {
        if (!awaiting_)
            return;
        auto [outcome, out] = std::move(*awaiting_);
        awaiting_.reset();
        answerFrame(std::move(outcome), std::move(out));
    }

    // The endpoint's path, or below it: some long-polling clients append the meta channel
    // (/bayeux/connect, say) when a request carries only one meta message.
    bool servesPath(beast::string_view target) const {
        const std::string& path = hub_->options().path;
        const beast::string_view requested = target.substr(0, target.find('?'));
        if (requested.substr(0, path.size()) != path)
            return false;
        return requested.size() == path.size() || path.back() == '/' ||
               requested[path.size()] == '/';
    }

    void onConnectReleased(const std::shared_ptr<RemoteSession>& session,
                           const ConnectRelease& release) {
        if (awaiting_ && session == awaiting_->first.heldSession &&
            release.token == awaiting_->first.heldToken) {
            releasedWhileAwaiting_.emplace(session, release);
            return;
        }
        if (session != heldSession_ || release.token != heldToken_)
            return;  // answered already, or a connect this connection no longer holds
        heldSession_.reset();
        FrameBuilder out = std::move(heldReplies_);
        heldReplies_ = FrameBuilder();
        try {
            hub_->appendConnectAnswer(*session, self(), Transport::LongPolling, release, out);
        } catch (const std::exception& e) {
            logger.log(log::error, "Closing an HTTP connection after a failure: ", e.what());
            return close();
        }
        respond(http::status::ok, out.close(), "application/json;charset=UTF-8");
    }

    // `traffic`: the body counts among the bytes sent to Bayeux clients.
    void respond(http::status status, std::string body, const char* contentType,
                 bool traffic = true) {
        const std::size_t limit = hub_->options().maxOutputBytes;
        if (body.size() > limit) {
            logger.log(log::warning, "Closed a connection whose unread output passed ", limit,
                       " bytes");
            return close();
        }
        meter_.set(body.size());
        if (!jsonp_.empty() && status == http::status::ok) {
            // The comment keeps the callback name off the start of the body, where a browser
            // could take it for another content type.
            body = "/**/" + jsonp_ + "(" + body + ");";
            contentType = "text/javascript;charset=UTF-8";
        }
        if (traffic)
            hub_->gauges()->sentBytes.fetch_add(body.size(), std::memory_order_relaxed);
        response_.emplace(status, version_);
        response_->set(http::field::server, "orvale");
        response_->set(http::field::content_type, contentType);
        response_->set(http::field::cache_control, "no-cache, no-store");
        response_->set("X-Content-Type-Options", "nosniff");
        if (!setCookie_.empty())
            response_->set(http::field::set_cookie, std::exchange(setCookie_, {}));
        if (!allowOrigin_.empty()) {
            response_->set(http::field::access_control_allow_origin, allowOrigin_);
            response_->set(http::field::access_control_allow_credentials, "true");
            response_->set(http::field::vary, "Origin");
        }
        if (status == http::status::no_content) {
            response_->set(http::field::access_control_allow_methods, "POST, GET, OPTIONS");
            if (!preflightHeaders_.empty())
                response_->set(http::field::access_control_allow_headers,
                               std::exchange(preflightHeaders_, {}));
            response_->set(http::field::access_control_max_age, "600");
        }
        response_->keep_alive(keepAlive_);
        response_->body() = std::move(body);
        response_->prepare_payload();
        beast::get_lowest_layer(stream_).expires_after(kWriteTimeout);
        http::async_write(
            stream_, *response_,
            [self = this->shared_from_this()](error_code ec, std::size_t) { self->onWritten(ec); });
    }

    void onWritten(error_code ec) {
        response_.reset();
        meter_.set(0);
        if (ec) {
            logger.log(log::trace, "Writing an HTTP response failed: ", ec.message());
            return close();
        }
        if (!keepAlive_)
            return close();
        if (buffer_.capacity() > 16 * 1024)
            buffer_.shrink_to_fit();
        readRequest();
    }

    void close() {
        error_code ignored;
        auto& socket = beast::get_lowest_layer(stream_).socket();
        socket.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
        socket.close(ignored);
    }

    std::shared_ptr<Link> self() { return this->shared_from_this(); }

    Stream stream_;
    const std::shared_ptr<Hub> hub_;
    ConnectionSlot slot_;  // counts this connection; goes to the WebSocket link on an upgrade
    OutputMeter meter_;
    Sender sender_;          // its browser is that of the request being served
    std::string setCookie_;  // for the answer to the request being served
    // How the answer to the request being served goes to a page of another origin: the origin
    // its CORS headers name, the headers a preflight asked for, the callback a script calls.
    std::string allowOrigin_;
    std::string preflightHeaders_;
    std::string jsonp_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    std::optional<http::response<http::string_body>> response_;
    unsigned version_ = 11;
    bool keepAlive_ = true;
    std::shared_ptr<RemoteSession> heldSession_;  // whose connect this request waits for
    std::uint64_t heldToken_ = 0;
    FrameBuilder heldReplies_;  // the other replies of the request being held
    // A request whose replies wait until the cluster knows its subscriptions, and the release of
    // its connect should that come first.
    std::optional<std::pair<FrameOutcome, FrameBuilder>> awaiting_;
    std::optional<std::pair<std::shared_ptr<RemoteSession>, ConnectRelease>> releasedWhileAwaiting_;
};

template <class Stream>
void start(Stream&& stream, std::shared_ptr<Hub>&& hub, ConnectionSlot&& slot) {
    auto link =
        std::make_shared<HttpLink<Stream>>(std::move(stream), std::move(hub), std::move(slot));
    link->start();
}

}  // namespace

void serveHttp(PlainStream stream, std::shared_ptr<Hub> hub, ConnectionSlot slot) {
    start(std::move(stream), std::move(hub), std::move(slot));
}

void serveHttp(TlsStream stream, std::shared_ptr<Hub> hub, ConnectionSlot slot) {
    start(std::move(stream), std::move(hub), std::move(slot));
}

}  // namespace connector::bayeux::endpoint
