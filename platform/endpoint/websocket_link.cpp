// A client's WebSocket connection to the hub.
//
// Everything here runs on the connection's I/O thread; sessions reach it only through the Link
// calls, which post. Frames are read one at a time; replies and deliveries collect in `out_`
// and leave as one JSON array per write, so a busy socket batches whatever arrives meanwhile.
// The write waits for the end of the thread's turn (io_turns.h): a client whose frames are
// already there has them all read and answered in one write, instead of a write per frame.
// Reading pauses while too much output waits, so a client that sends faster than it reads is
// held back by its own backlog, and while a frame's subscriptions are not yet known to the rest
// of the cluster: its replies, and what follows them, wait until they are.
//
// With compression on, frames are inflated as they are read, the frame bound applying to the
// inflated bytes, and deflated as they are written.
//
// Bounds: once the output waiting for the peer (the frame being written and what collects behind
// it) passes maxOutputBytes the connection is closed. A timer closes a connection that sends no
// frame for the idle time while the hub waits for one (pings do not count, so a client cannot
// keep a connection it never reads alive with them), or whose peer leaves one write unfinished
// for as long.
//
// The sessions handshaken here are bound to this connection, and to the browser id its upgrade
// carried in a cookie; an upgrade without one this hub issued gets a new one in its answer,
// under its own name (browser_id.h says why). A WebSocket whose upgrade carried a session's
// browser id may drive that session too: a client that handshook over long-polling moves over
// so. One that carried none and names such a session is closed without an answer: it left
// before the handshake's answer set the cookie, and the client's next one carries it.

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <optional>
#include <string_view>
#include <vector>

#include "connections.h"
#include "connector/log/diagnostic_logger.h"
#include "hub.h"
#include "server/deferred_wakes.h"

namespace connector::bayeux::endpoint {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
namespace log = foundation::log;
using error_code = boost::system::error_code;

const log::basic_diagnostic_logger<char> logger("connector::bayeux::endpoint");

// Output waiting beyond this stops reading until a write completes.
constexpr std::size_t kHighWater = 1024 * 1024;
// Buffers larger than this are given back once their frame has gone.
constexpr std::size_t kKeptBuffer = 16 * 1024;
// Output that waits for the end of a turn at most; more is written at once.
constexpr std::size_t kTurnOutput = 8 * 1024;

template <class Stream>
constexpr bool kSecure = std::is_same_v<Stream, TlsStream>;

// Compression as offered to clients. Context takeover keeps a window per direction, so that the
// field names every delivery repeats compress to a few bytes; frames under the threshold go out
// as they are, since compressing them costs more than it saves.
websocket::permessage_deflate deflateOptions() {
    websocket::permessage_deflate deflate;
    deflate.server_enable = true;
    deflate.server_max_window_bits = 15;
    deflate.client_max_window_bits = 15;
    deflate.compLevel = 6;
    deflate.memLevel = 8;
    deflate.msg_size_threshold = 128;
    return deflate;
}

template <class Stream>
class WebSocketLink final : public Link,
                            public std::enable_shared_from_this<WebSocketLink<Stream>> {
  public:
    WebSocketLink(Stream&& stream, std::shared_ptr<Hub> hub, ConnectionSlot slot)
        : ws_(std::move(stream)),
          hub_(std::move(hub)),
          slot_([&slot] {
              slot.upgraded();
              return std::move(slot);
          }()),
          meter_(hub_->gauges()),
          idleTimer_(ws_.get_executor()),
          idleTime_(
              std::max(hub_->options().webSocketIdleTimeout, 2 * hub_->options().connectTimeout)) {}

    void start(HttpRequest request, std::shared_ptr<ConnectionSessions> sessions) {
        CarriedIds browser;
        hub_->browsers().fromRequest(request, browser);
        std::string setCookie;
        const bool carriedNone = browser.empty();
        if (carriedNone) {
            browser.webSocket = hub_->browsers().issue();
            setCookie = browserCookie(browser.webSocket, hub_->options().path, kSecure<Stream>,
                                      !hub_->options().allowedOrigins.empty(),
                                      BrowserIds::kWebSocketCookie);
        }
        sender_ = hub_->sender(Transport::WebSocket, std::move(browser), slot_.address());
        sender_.upgradeCarriedNone = carriedNone;
        if (sessions)
            sender_.sessions = std::move(sessions);
        beast::get_lowest_layer(ws_).expires_never();
        ws_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
        // The upgrade answer names the hub, not the library under it.
        ws_.set_option(websocket::stream_base::decorator(
            [setCookie = std::move(setCookie)](websocket::response_type& response) {
                response.set(beast::http::field::server, "orvale");
                if (!setCookie.empty())
                    response.set(beast::http::field::set_cookie, setCookie);
            }));
        // The bound counts inflated bytes, so a small compressed frame cannot grow past it.
        ws_.read_message_max(hub_->options().maxMessageBytes);
        if (hub_->options().deflate)
            ws_.set_option(deflateOptions());
        ws_.auto_fragment(false);
        ws_.text(true);
        upgrade_.emplace(std::move(request));
        ws_.async_accept(
            *upgrade_, [self = this->shared_from_this()](error_code ec) { self->onAccepted(ec); });
    }

    void deliveriesReady(std::shared_ptr<RemoteSession> session) override {
        asio::post(ws_.get_executor(),
                   [self = this->shared_from_this(), session = std::move(session)]() mutable {
                       self->onDeliveriesReady(std::move(session));
                   });
    }

    void connectReleased(std::shared_ptr<RemoteSession> session, ConnectRelease release) override {
        asio::post(ws_.get_executor(),
                   [self = this->shared_from_this(), session = std::move(session),
                    release = std::move(release)]() mutable {
                       self->onConnectReleased(*session, release);
                   });
    }

    void subscriptionsShared() override {
        asio::post(ws_.get_executor(),
                   [self = this->shared_from_this()] { self->onSubscriptionsShared(); });
    }

  private:
    void onAccepted(error_code ec) {
        upgrade_.reset();
        if (ec) {
            logger.log(log::trace, "WebSocket upgrade failed: ", ec.message());
            closed_ = true;
            return;
        }
        read();
        watchIdle(Clock::now() + idleTime_);
    }

    void read() {
        readSince_ = Clock::now();
        ws_.async_read(readBuffer_, [self = this->shared_from_this()](error_code ec, std::size_t) {
            self->onRead(ec);
        });
    }

    void onRead(error_code ec) {
        if (ec) {
            if (ec == websocket::error::message_too_big)
                logger.log(log::warning, "Closed a WebSocket that sent a frame over ",
                           hub_->options().maxMessageBytes, " bytes");
            else if (ec != websocket::error::closed)
                logger.log(log::trace, "WebSocket ended: ", ec.message());
            // Closed outright, so that a write its peer no longer takes cannot hold the link.
            abort();
            return;
        }
        const std::string_view frame(static_cast<const char*>(readBuffer_.data().data()),
                                     readBuffer_.size());
        FrameOutcome outcome;
        try {
            // Deliveries that were ready before this frame go out before its replies. During a
            // write they wait in their sessions' queues, whose bounds hold them, as before.
            if (!writing_)
                gatherDeliveries();
            outcome = hub_->handleFrame(frame, self(), sender_, out_);
        } catch (const std::exception& e) {
            return failed(e);
        }
        if (outcome.tooManyMessages || outcome.closeForCookie) {
            // Refused whole, as a frame over the byte limit is: the client learns it by the close,
            // which the stream's close timeout bounds.
            end();
            ws_.async_close(
                outcome.tooManyMessages
                    ? websocket::close_reason(websocket::close_code::too_big, "too many messages")
                    : websocket::close_reason(websocket::close_code::try_again_later,
                                              "reconnect with the session's cookie"),
                [self = this->shared_from_this()](error_code) {});
            return;
        }
        readBuffer_.consume(readBuffer_.size());
        if (readBuffer_.capacity() > kKeptBuffer)
            readBuffer_.shrink_to_fit();
        if (outcome.awaitingCluster) {
            // Nothing is written or read until the cluster knows the frame's subscriptions.
            awaitingCluster_ = true;
            readPaused_ = true;
            return;
        }
        readOn();
        flushSoon();
    }

    void onSubscriptionsShared() {
        awaitingCluster_ = false;
        readOn();
        flushSoon();
    }

    // Reads the next frame unless too much output waits.
    void readOn() {
        if (closed_)
            return;
        if (writing_ && out_.bytes() > kHighWater) {
            readPaused_ = true;
        } else {
            readPaused_ = false;
            read();
        }
    }

    void onDeliveriesReady(std::shared_ptr<RemoteSession> session) {
        if (closed_)
            return;
        ready_.push_back(std::move(session));
        flush();
    }

    void onConnectReleased(RemoteSession& session, const ConnectRelease& release) {
        if (closed_)
            return;
        hub_->appendConnectAnswer(session, self(), Transport::WebSocket, release, out_);
        flush();
    }

    // Flushes when the thread's turn ends, or at once outside a turn or once enough waits.
    void flushSoon() {
        if (!DeferredWakes::active() || out_.bytes() > kTurnOutput)
            return flush();
        if (closed_ || flushQueued_)
            return;
        flushQueued_ = true;
        turnEnd().push_back(this->shared_from_this());
        DeferredWakes::atEnd(&flushAtTurnEnd);
    }

    // The links of this thread that flush when its turn ends.
    static std::vector<std::shared_ptr<WebSocketLink>>& turnEnd() {
        thread_local std::vector<std::shared_ptr<WebSocketLink>> links;
        return links;
    }

    static void flushAtTurnEnd() {
        std::vector<std::shared_ptr<WebSocketLink>> links;
        links.swap(turnEnd());
        for (const auto& link : links) {
            link->flushQueued_ = false;
            try {
                link->flush();
            } catch (const std::exception& e) {
                link->failed(e);  // the other links of the turn still flush
            }
        }
    }

    // Sends everything waiting as one frame unless a write is under way.
    void flush() {
        if (closed_)
            return;
        if (writing_ || awaitingCluster_)
            return checkOutput();
        gatherDeliveries();
        if (!out_.empty()) {
            writeCount_ = out_.count();
            writeBuffer_ = out_.close(std::move(spare_));
            hub_->gauges()->sentBytes.fetch_add(writeBuffer_.size(), std::memory_order_relaxed);
            writing_ = true;
            writeSince_ = Clock::now();
            ws_.async_write(asio::buffer(writeBuffer_),
                            [self = this->shared_from_this()](error_code ec, std::size_t) {
                                self->onWritten(ec);
                            });
        }
        checkOutput();
    }

    // Moves the deliveries of the sessions that are ready into the output.
    void gatherDeliveries() {
        if (ready_.empty())
            return;
        const std::shared_ptr<Link> link = self();
        for (const auto& session : ready_)
            hub_->appendDeliveries(*session, link, out_);
        ready_.clear();
    }

    // Closes the connection once the output waiting for its peer passes the bound.
    void checkOutput() {
        const std::size_t waiting = (writing_ ? writeBuffer_.size() : 0) + out_.bytes();
        meter_.set(waiting);
        const std::size_t limit = hub_->options().maxOutputBytes;
        if (waiting <= limit)
            return;
        logger.log(log::warning, "Closed a connection whose unread output passed ", limit,
                   " bytes");
        hub_->gauges()->slowConsumerMessages.fetch_add(out_.count() + (writing_ ? writeCount_ : 0),
                                                       std::memory_order_relaxed);
        abort();
    }

    // Checks at `when` that the peer still sends frames and takes what is written to it.
    void watchIdle(Clock::time_point when) {
        idleTimer_.expires_at(when);
        idleTimer_.async_wait([weak = this->weak_from_this()](error_code ec) {
            if (ec)
                return;
            if (auto self = weak.lock())
                self->onIdleCheck();
        });
    }

    void onIdleCheck() {
        if (closed_)
            return;
        const auto now = Clock::now();
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(idleTime_).count();
        if (writing_ && now - writeSince_ >= idleTime_) {
            logger.log(log::warning, "Closed a WebSocket whose peer took no output for ", ms,
                       " ms");
            return abort();
        }
        // While reading is paused the hub waits for no frame, and while a write is under way a
        // read may wait behind it (the pong to a ping queues after it): the write is watched.
        const bool watchRead = !readPaused_ && !writing_;
        if (watchRead && now - readSince_ >= idleTime_) {
            logger.log(log::trace, "Closed a WebSocket that sent no frame for ", ms, " ms");
            return abort();
        }
        Clock::time_point next = now + idleTime_;
        if (writing_)
            next = std::min(next, writeSince_ + idleTime_);
        if (watchRead)
            next = std::min(next, readSince_ + idleTime_);
        watchIdle(next);
    }

    void onWritten(error_code ec) {
        writing_ = false;
        // The time the pending read may have waited behind this write is not the peer's silence.
        const auto now = Clock::now();
        readSince_ += now - std::max(writeSince_, readSince_);
        spare_ = std::move(writeBuffer_);
        spare_.clear();
        if (spare_.capacity() > kKeptBuffer)
            spare_ = std::string();
        if (ec) {
            logger.log(log::trace, "Writing to a WebSocket failed: ", ec.message());
            end();
            return;
        }
        flush();
        if (closed_)
            return;
        if (!writing_)
            out_.trim(kKeptBuffer);
        if (readPaused_ && !awaitingCluster_)
            readOn();
    }

    // Stops serving: nothing more is read, queued or written.
    void end() {
        closed_ = true;
        ready_.clear();
        out_ = FrameBuilder();
        meter_.set(writing_ ? writeBuffer_.size() : 0);
        idleTimer_.cancel();
    }

    // Only resource exhaustion gets here: this client is dropped, the hub goes on.
    void failed(const std::exception& e) {
        logger.log(log::error, "Closing a WebSocket after a failure: ", e.what());
        abort();
    }

    void abort() {
        end();
        error_code ignored;
        beast::get_lowest_layer(ws_).socket().close(ignored);
    }

    std::shared_ptr<Link> self() { return this->shared_from_this(); }

    websocket::stream<Stream> ws_;
    const std::shared_ptr<Hub> hub_;
    const ConnectionSlot slot_;  // counts this connection while it lives
    OutputMeter meter_;
    asio::steady_timer idleTimer_;
    const Clock::duration idleTime_;
    Clock::time_point readSince_;         // when the pending read began
    Clock::time_point writeSince_;        // when the pending write began
    Sender sender_;                       // set by start()
    std::optional<HttpRequest> upgrade_;  // the upgrade request, until it has been answered
    beast::flat_buffer readBuffer_;
    FrameBuilder out_;                                   // replies and deliveries not yet written
    std::string writeBuffer_;                            // the frame being written
    std::size_t writeCount_ = 0;                         // messages in writeBuffer_
    std::string spare_;                                  // storage for the next frame
    std::vector<std::shared_ptr<RemoteSession>> ready_;  // sessions whose deliveries wait
    bool writing_ = false;
    bool readPaused_ = false;
    bool awaitingCluster_ = false;  // the last frame's replies wait for the cluster
    bool flushQueued_ = false;      // in turnEnd(), to flush when this thread's turn ends
    bool closed_ = false;
};

template <class Stream>
void start(Stream&& stream, HttpRequest&& request, std::shared_ptr<Hub>&& hub,
           ConnectionSlot&& slot, std::shared_ptr<ConnectionSessions>&& sessions) {
    auto link =
        std::make_shared<WebSocketLink<Stream>>(std::move(stream), std::move(hub), std::move(slot));
    link->start(std::move(request), std::move(sessions));
}

}  // namespace

void serveWebSocket(PlainStream stream, HttpRequest request, std::shared_ptr<Hub> hub,
                    ConnectionSlot slot, std::shared_ptr<ConnectionSessions> sessions) {
    start(std::move(stream), std::move(request), std::move(hub), std::move(slot),
          std::move(sessions));
}

void serveWebSocket(TlsStream stream, HttpRequest request, std::shared_ptr<Hub> hub,
                    ConnectionSlot slot, std::shared_ptr<ConnectionSessions> sessions) {
    start(std::move(stream), std::move(request), std::move(hub), std::move(slot),
          std::move(sessions));
}

}  // namespace connector::bayeux::endpoint
