#pragma once
// A bare Bayeux client over one WebSocket, for the hub's flood and capacity runs: frames are
// written by hand, so that thousands of clients cost the load little and a hostile one can send
// what no client service would.
//
// Thread safety: a client is used from one thread at a time, the thread that runs its
// io_context; the blocking calls run that io_context themselves until they are done.

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

namespace orvale::app {

struct HubAddress {
    std::string host, port, path;
};
// ws://host:port/path; Failure for anything else.
HubAddress parseHubUrl(const std::string& url);

class RawClient {
  public:
    // Connects and upgrades, from the local address `source` when it is not empty, offering
    // permessage-deflate when `deflate`.
    RawClient(boost::asio::io_context& io, const HubAddress& hub, const std::string& source = "",
              bool deflate = false);
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    // Shrinks the socket's receive buffer, so that a client that never reads stops taking
    // bytes from the hub soon.
    void shrinkReceiveBuffer(int bytes);
    // Closes the socket; reads in progress end with an error, once the io_context runs.
    void close();

    void send(std::string_view frame);
    // The next frame; nothing when `timeout` passes first or the hub closed the connection.
    std::optional<std::string> read(std::chrono::milliseconds timeout);
    // Reads until a frame holds `needle`, answering returned connects with a new connect.
    // False on timeout or close.
    bool readUntil(std::string_view needle, std::chrono::milliseconds timeout);
    // Reads in the background until a frame holds `needle`, then calls `done` on the io thread.
    void readUntilAsync(std::string needle, std::function<void()> done);
    // Reads every frame in the background until the connection ends, calling `onFrame` on the
    // io thread for each.
    void drainAsync(std::function<void()> onFrame);

    // Handshakes; the reply when the hub refused, nothing on success.
    std::optional<std::string> handshake(std::chrono::milliseconds timeout);
    // Subscribes to `channel` and sends the connect that the hub holds; false on refusal.
    bool subscribeAndConnect(const std::string& channel, std::chrono::milliseconds timeout);
    std::string publishMessage(const std::string& channel, std::string_view jsonData) const;
    const std::string& clientId() const { return clientId_; }
    // The bytes this client's socket has received so far, as TCP counts them.
    std::uint64_t bytesReceived() const;

  private:
    struct Stream;
    void sendConnect();
    void readFrames(std::shared_ptr<std::string> needle, std::function<void()> done);

    boost::asio::io_context& io_;
    std::unique_ptr<Stream> stream_;
    std::string clientId_;
};

}  // namespace orvale::app
