#include "raw_client.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>

#include "cli.h"

namespace orvale::app {

namespace asio = boost::asio;
namespace beast = boost::beast;
using tcp = asio::ip::tcp;
using error_code = boost::system::error_code;

struct RawClient::Stream {
    explicit Stream(asio::io_context& io) : ws(io) {}
    beast::websocket::stream<tcp::socket> ws;
    beast::flat_buffer buffer;
};

HubAddress parseHubUrl(const std::string& url) {
    const std::string scheme = "ws://";
    if (url.compare(0, scheme.size(), scheme) != 0)
        throw Failure("not a ws:// URL: " + url);
    const auto slash = url.find('/', scheme.size());
    const std::string authority = url.substr(scheme.size(), slash - scheme.size());
    const auto colon = authority.rfind(':');
    if (colon == std::string::npos)
        throw Failure("no port in " + url);
    return {authority.substr(0, colon), authority.substr(colon + 1),
            slash == std::string::npos ? "/" : url.substr(slash)};
}

RawClient::RawClient(asio::io_context& io, const HubAddress& hub, const std::string& source,
                     bool deflate)
    : io_(io), stream_(std::make_unique<Stream>(io)) {
    if (deflate) {
        beast::websocket::permessage_deflate offer;
        offer.client_enable = true;
        stream_->ws.set_option(offer);
    }
    auto& socket = stream_->ws.next_layer();
    const tcp::endpoint target(asio::ip::make_address(hub.host),
                               static_cast<unsigned short>(std::stoi(hub.port)));
    socket.open(target.protocol());
    if (!source.empty())
        socket.bind(tcp::endpoint(asio::ip::make_address(source), 0));
    socket.connect(target);
    socket.set_option(tcp::no_delay(true));
    stream_->ws.read_message_max(64 * 1024 * 1024);
    stream_->ws.handshake(hub.host + ":" + hub.port, hub.path);
    stream_->ws.text(true);
}

RawClient::~RawClient() {
    close();
}

void RawClient::close() {
    error_code ignored;
    stream_->ws.next_layer().close(ignored);
}

std::uint64_t tcpBytesReceived(int socket);  // tcp_bytes.cpp

std::uint64_t RawClient::bytesReceived() const {
    return tcpBytesReceived(stream_->ws.next_layer().native_handle());
}

void RawClient::shrinkReceiveBuffer(int bytes) {
    stream_->ws.next_layer().set_option(asio::socket_base::receive_buffer_size(bytes));
}

void RawClient::send(std::string_view frame) {
    stream_->ws.write(asio::buffer(frame.data(), frame.size()));
}

std::optional<std::string> RawClient::read(std::chrono::milliseconds timeout) {
    bool done = false;
    error_code failure;
    stream_->buffer.clear();
    stream_->ws.async_read(stream_->buffer, [&](error_code ec, std::size_t) {
        failure = ec;
        done = true;
    });
    io_.restart();
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done && io_.run_one_until(deadline) > 0) {
    }
    if (!done) {
        // Closing ends the read, whose handler still has to run before `done` goes away.
        error_code ignored;
        stream_->ws.next_layer().close(ignored);
        io_.restart();
        while (!done && io_.run_one() > 0) {
        }
        return std::nullopt;
    }
    if (failure)
        return std::nullopt;
    return beast::buffers_to_string(stream_->buffer.data());
}

bool RawClient::readUntil(std::string_view needle, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        const auto frame = read(std::max(left, std::chrono::milliseconds(1)));
        if (!frame)
            return false;
        if (!clientId_.empty() && frame->find("\"/meta/connect\"") != std::string::npos)
            sendConnect();
        if (frame->find(needle) != std::string::npos)
            return true;
    }
}

void RawClient::readUntilAsync(std::string needle, std::function<void()> done) {
    readFrames(std::make_shared<std::string>(std::move(needle)), std::move(done));
}

void RawClient::drainAsync(std::function<void()> onFrame) {
    stream_->buffer.clear();
    stream_->ws.async_read(stream_->buffer, [this, onFrame](error_code ec, std::size_t) {
        if (ec)
            return;
        onFrame();
        drainAsync(onFrame);
    });
}

void RawClient::readFrames(std::shared_ptr<std::string> needle, std::function<void()> done) {
    stream_->buffer.clear();
    stream_->ws.async_read(stream_->buffer, [this, needle, done](error_code ec, std::size_t) {
        if (ec)
            return;
        const auto data = stream_->buffer.data();
        const std::string_view frame(static_cast<const char*>(data.data()), data.size());
        if (!clientId_.empty() && frame.find("\"/meta/connect\"") != frame.npos)
            sendConnect();
        if (frame.find(*needle) != frame.npos) {
            done();
            return;
        }
        readFrames(needle, done);
    });
}

std::optional<std::string> RawClient::handshake(std::chrono::milliseconds timeout) {
    send(
        R"([{"channel":"/meta/handshake","version":"1.0","supportedConnectionTypes":["websocket"]}])");
    auto reply = read(timeout);
    if (!reply)
        return std::string("no reply");
    const std::string key = "\"clientId\":\"";
    const auto at = reply->find(key);
    if (at == std::string::npos || reply->find("\"successful\":true") == std::string::npos)
        return reply;
    const auto start = at + key.size();
    clientId_ = reply->substr(start, reply->find('"', start) - start);
    return std::nullopt;
}

bool RawClient::subscribeAndConnect(const std::string& channel, std::chrono::milliseconds timeout) {
    // Some servers answer a frame as a whole: a held connect in the same frame would hold back
    // the subscription's answer.
    send(R"([{"channel":"/meta/subscribe","clientId":")" + clientId_ + R"(","subscription":")" +
         channel + "\"}]");
    if (!readUntil("\"/meta/subscribe\"", timeout))
        return false;
    sendConnect();
    return true;
}

void RawClient::sendConnect() {
    send(R"([{"channel":"/meta/connect","connectionType":"websocket","clientId":")" + clientId_ +
         "\"}]");
}

std::string RawClient::publishMessage(const std::string& channel, std::string_view jsonData) const {
    std::string message =
        R"({"channel":")" + channel + R"(","clientId":")" + clientId_ + R"(","data":)";
    message.append(jsonData);
    return message + "}";
}

}  // namespace orvale::app
