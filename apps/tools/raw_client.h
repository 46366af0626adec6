#pragma once
// A bare Bayeux client of the hub over one WebSocket: frames are written and read as text by
// hand, so that thousands of clients cost a load run little, a benchmark measures the hub
// rather than its client, a hostile client can send what no client service would, and a test
// sees exactly what went over the wire.
//
// Thread safety: a client is used from one thread at a time, the thread that runs its
// io_context; the blocking calls run that io_context themselves until they are done or their
// time is up, so handlers of other clients on the same io_context may run inside them.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace boost::asio {
class io_context;
}

namespace orvale::tools {

struct HubAddress {
    std::string host, port, path;
};
// ws://host:port/path; std::runtime_error for anything else.
HubAddress parseHubUrl(const std::string& url);
// How many times `what` occurs in `text`: bare clients count messages in a frame by a key
// each message holds once, without decoding it.
long occurrences(std::string_view text, std::string_view what);

class RawClient {
  public:
    using Millis = std::chrono::milliseconds;
    static constexpr Millis kWait{5000};

    struct Options {
        std::string source;     // the local address to connect from, when not empty
        std::string cookie;     // name=value, sent with the upgrade as a browser sends it
        int receiveBuffer = 0;  // the socket's receive buffer, set before connecting when > 0
        bool deflate = false;   // offers permessage-deflate with the upgrade
    };

    // Connects and upgrades within kWait; std::runtime_error when it cannot.
    RawClient(boost::asio::io_context& io, const HubAddress& hub, const Options& options);
    RawClient(boost::asio::io_context& io, const HubAddress& hub, const std::string& source = "")
        : RawClient(io, hub, Options{source, "", 0, false}) {}
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    // Shrinks the socket's receive buffer, so that a client that never reads stops taking
    // bytes from the hub soon.
    void shrinkReceiveBuffer(int bytes);
    // Closes the socket; reads in progress end with an error, once the io_context runs.
    void close();

    // Writes one text frame; false (and the socket closed) when it could not be written in time.
    bool send(std::string_view frame, Millis timeout = kWait);
    // Writes one text frame in the background, after those queued before it, then calls
    // `written` on the io thread however the write ended. For handlers already running on the
    // io thread, which a blocking send() would have run the io_context again from within.
    void sendAsync(std::string frame, std::function<void()> written = {});
    bool ping(Millis timeout = kWait);
    // The next frame, valid until the next read; nothing (and the socket closed) when `timeout`
    // passes first, nothing when the hub closed the connection.
    std::optional<std::string_view> read(Millis timeout);
    // The same, answering a held connect that comes back with the next connect.
    std::optional<std::string_view> next(Millis timeout);
    // Reads (as next() does) until a frame holds `needle`; that frame, or nothing on timeout or
    // close.
    std::optional<std::string> readUntil(std::string_view needle, Millis timeout);
    // Reads in the background until a frame holds `needle`, then calls `done` on the io thread.
    void readUntilAsync(std::string needle, std::function<void()> done);
    // Reads every frame in the background, calling `onFrame` on the io thread for each and
    // `onEnd` there once the connection has ended.
    void drainAsync(std::function<void(std::string_view)> onFrame,
                    std::function<void()> onEnd = {});
    void drainAsync(std::function<void()> onFrame) {
        drainAsync([onFrame](std::string_view) { onFrame(); });
    }

    // Handshakes; the reply when the hub refused, nothing on success.
    std::optional<std::string> handshake(Millis timeout);
    // Subscribes to `channel` and sends the connect that the hub holds; false on refusal.
    bool subscribeAndConnect(const std::string& channel, Millis timeout);
    void sendConnect() { send(connectFrame()); }
    // Ends the session, so that the server forgets it at once rather than when it times out.
    void sendDisconnect() { send(disconnectFrame()); }
    std::string connectFrame() const;
    std::string disconnectFrame() const;
    std::string publishMessage(const std::string& channel, std::string_view jsonData) const;
    // The same, appended to `frame`.
    void appendPublish(std::string& frame, const std::string& channel,
                       std::string_view jsonData) const;
    const std::string& clientId() const { return clientId_; }
    // The bytes this client's socket has received so far, as TCP counts them.
    std::uint64_t bytesReceived() const;
    // The Server and Set-Cookie headers of the upgrade answer.
    std::string server() const;
    std::string setCookie() const;

  private:
    struct Stream;
    // Starts an operation with a handler that notes its outcome and runs the io_context until
    // it completes; false, and the socket closed, when it does not complete in time.
    template <class Start>
    bool complete(Start&& start, Millis timeout);
    void readFrames(std::shared_ptr<std::string> needle, std::function<void()> done);
    void writeQueued();

    boost::asio::io_context& io_;
    std::unique_ptr<Stream> stream_;
    std::string clientId_;
};

}  // namespace orvale::tools
