#pragma once
// What a client connection does the same way over either transport: it is started and closed
// from any thread and posts its work to its I/O thread; it connects within the connect timeout
// and fails its promise with one line when it cannot; it encodes each message on the sending
// thread and queues it under its mutex; and it hands what a frame or body held to the inbound
// stream. Included by the transports' .cpp files only: it brings in Asio.
//
// `Derived` (a final class that befriends this one) provides, on the I/O thread unless noted:
// - onResolved(results): goes on connecting to the resolved addresses;
// - interruptConnect(): stops what connecting has under way besides the resolver;
// - describe(ec): the cause of a failed connect, for the failure line;
// - onCloseWhileOpen(): a close was asked for once connected;
// - queueLocked(encoded), on the sending thread, with mutex_ held: queues the messages; true
//   when drain() must be posted;
// - drain(): sends what is queued;
// - finish(clean): ends the connection, once.
//
// Thread safety: send() and close() may be called from any thread; mutex_ guards
// closeRequested_ and what Derived queues; every other member belongs to the I/O thread, the
// one strand of the connection.

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "connection.h"
#include "connector/common/mutex.h"
#include "connector/log/diagnostic_logger.h"
#include "done_signal.h"
#include "inbound_publisher.h"
#include "io_thread.h"
#include "outbound_encoding.h"
#include "stream_handles.h"

namespace connector::bayeux::transport {

template <class Derived, class Settings>
class ClientConnection : public Connection, public std::enable_shared_from_this<Derived> {
  public:
    void start() {
        inbound_ = makeConnectionInbound(io_, [weak = this->weak_from_this()] {
            if (auto self = weak.lock())
                self->close();
        });
        post([self = this->shared_from_this()] { self->beginConnect(); });
    }

    // The message is encoded here, on the sending thread, and released where it was made; the
    // I/O thread only writes what is queued.
    void send(MessagePtr message) override {
        thread_local EncodedMessages encoded;
        encoded.clear();
        if (!encodeOutbound(message.get(), settings_.state.get(), settings_.url, encoded) ||
            encoded.ends.empty())
            return;
        bool schedule = false;
        {
            Derived& self = derived();
            common::MutexLock lock(mutex_);
            if (closeRequested_)
                return;
            self.mutex_.assumeHeld();  // mutex_, as the analysis sees it through Derived
            schedule = self.queueLocked(encoded);
        }
        if (encoded.text.capacity() > kKeptEncodeBuffer)
            encoded.text = std::string();
        if (schedule)
            post([self = this->shared_from_this()] { self->drain(); });
    }

    void close() override {
        {
            common::MutexLock lock(mutex_);
            if (closeRequested_)
                return;
            closeRequested_ = true;
        }
        post([self = this->shared_from_this()] { self->onCloseRequested(); });
    }

  protected:
    using error_code = boost::system::error_code;
    using tcp = boost::asio::ip::tcp;
    enum class Phase { Connecting, Open, Closing, Closed };

    ClientConnection(Settings settings, Promise<MessagePtr> promise)
        : context_(settings.context),
          io_(settings.io),
          settings_(std::move(settings)),
          resolver_(*context_),
          timer_(*context_),
          connectPromise_(std::move(promise)),
          closed_(std::make_shared<DoneSignal>()) {}

    // Runs `task` on the I/O thread; nothing runs once the service has stopped it, since the
    // service closed every connection before.
    void post(std::function<void()> task) {
        if (auto thread = io_.lock())
            thread->post(std::move(task));
    }

    bool interrupted() const { return timedOut_ || aborted_; }

    // Connected: the client gets its streams.
    void opened() {
        timer_.cancel();
        phase_ = Phase::Open;
        connectionLog().log(foundation::log::trace, "Connected to ", settings_.url);
    }
    void handOverStreams() {
        connectPromise_.setValue(makeStreams(this->weak_from_this(), inbound_, closed_));
    }

    void failConnect(error_code ec) {
        std::string cause;
        if (timedOut_)
            cause = "timed out after " + std::to_string(settings_.options.connectTimeoutMs) + " ms";
        else if (aborted_)
            cause = "the transport was shut down";
        else
            cause = derived().describe(ec);
        phase_ = Phase::Closed;
        timer_.cancel();
        derived().interruptConnect();
        {
            common::MutexLock lock(mutex_);
            closeRequested_ = true;
        }
        closed_->resolve(false);
        connectionLog().log(foundation::log::trace, "Cannot connect to ", settings_.url, ": ",
                            cause);
        connectPromise_.setException(
            std::runtime_error("Cannot connect to " + settings_.url + ": " + cause));
    }

    // Ends the connection uncleanly unless it has ended within kCloseTimeout, however long the
    // peer takes to answer what is still under way; arming it again moves the deadline.
    void armCloseDeadline() {
        timer_.expires_after(kCloseTimeout);
        timer_.async_wait([self = this->shared_from_this()](error_code ec) {
            if (!ec)
                self->finish(false);
        });
    }

    // Hands what one frame or body held to the client: one message alone, several as a batch.
    template <class Messages>
    void pushInbound(Messages& messages) {
        if (messages.size() == 1) {
            inbound_->push(std::move(messages.front()));
        } else if (messages.size() > 1) {
            auto container = std::make_unique<BayeuxContainer>();
            container->messages().reserve(messages.size());
            for (auto& message : messages)
                container->messages().push_back(std::move(message));
            inbound_->push(std::move(container));
        }
    }

    static const foundation::log::basic_diagnostic_logger<char>& connectionLog() {
        static const foundation::log::basic_diagnostic_logger<char> instance(
            "connector::bayeux::transport");
        return instance;
    }

    // First member: the io_context object outlives the sockets, resolver and timers.
    const std::shared_ptr<boost::asio::io_context> context_;
    const std::weak_ptr<IoThread> io_;
    const Settings settings_;
    tcp::resolver resolver_;
    boost::asio::steady_timer timer_;  // the connect deadline, then the close deadline
    Promise<MessagePtr> connectPromise_;
    std::shared_ptr<InboundPublisher> inbound_;
    const std::shared_ptr<DoneSignal> closed_;
    Phase phase_ = Phase::Connecting;
    bool timedOut_ = false;
    bool aborted_ = false;

    common::Mutex mutex_;
    bool closeRequested_ ORVALE_GUARDED_BY(mutex_) = false;

  private:
    static constexpr std::chrono::seconds kCloseTimeout{2};
    // A sending thread's encoding buffer is given back after a message larger than this.
    static constexpr std::size_t kKeptEncodeBuffer = 256 * 1024;

    Derived& derived() { return static_cast<Derived&>(*this); }

    void beginConnect() {
        if (phase_ != Phase::Connecting)
            return;
        timer_.expires_after(std::chrono::milliseconds(settings_.options.connectTimeoutMs));
        timer_.async_wait([self = this->shared_from_this()](error_code ec) {
            if (ec || self->phase_ != Phase::Connecting)
                return;
            self->timedOut_ = true;
            self->resolver_.cancel();
            self->interruptConnect();
        });
        resolver_.async_resolve(
            settings_.parts.host, settings_.parts.port,
            [self = this->shared_from_this()](error_code ec, tcp::resolver::results_type results) {
                if (ec || self->interrupted())
                    return self->failConnect(ec);
                self->onResolved(std::move(results));
            });
    }

    void onCloseRequested() {
        if (phase_ == Phase::Connecting) {
            aborted_ = true;
            resolver_.cancel();
            derived().interruptConnect();
        } else {
            derived().onCloseWhileOpen();
        }
    }
};

}  // namespace connector::bayeux::transport
