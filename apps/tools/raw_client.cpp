#include "raw_client.h"

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <deque>
#include <functional>
#include <stdexcept>

namespace orvale::tools {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using error_code = boost::system::error_code;
using Clock = std::chrono::steady_clock;

struct RawClient::Stream {
    explicit Stream(asio::io_context& io) : ws(io) {}
    websocket::stream<tcp::socket> ws;
    websocket::response_type upgrade;
    beast::flat_buffer buffer;
    std::string outgoing;
    // Frames of sendAsync, the first being written; each with what runs once it is.
    std::deque<std::pair<std::string, std::function<void()>>> queued;
};

HubAddress parseHubUrl(const std::string& url) {
    const std::string scheme = "ws://";
    if (url.compare(0, scheme.size(), scheme) != 0)
        throw std::runtime_error("not a ws:// URL: " + url);
    const auto slash = url.find('/', scheme.size());
    const std::string authority = url.substr(scheme.size(), slash - scheme.size());
    const auto colon = authority.rfind(':');
    if (colon == std::string::npos)
        throw std::runtime_error("no port in " + url);
    return {authority.substr(0, colon), authority.substr(colon + 1),
            slash == std::string::npos ? "/" : url.substr(slash)};
}

long occurrences(std::string_view text, std::string_view what) {
    // Skipping by the key's length leaves the cores to the servers: a plain search stops at every
    // quote of the JSON.
    const std::boyer_moore_horspool_searcher searcher(what.begin(), what.end());
    long n = 0;
    for (auto at = text.begin(); (at = std::search(at, text.end(), searcher)) != text.end();
         at += static_cast<std::ptrdiff_t>(what.size()))
        ++n;
    return n;
}

RawClient::RawClient(asio::io_context& io, const HubAddress& hub, const Options& options)
    : io_(io), stream_(std::make_unique<Stream>(io)) {
    auto& ws = stream_->ws;
    auto& socket = ws.next_layer();
    const tcp::endpoint target(asio::ip::make_address(hub.host),
                               static_cast<unsigned short>(std::stoi(hub.port)));
    socket.open(target.protocol());
    if (options.receiveBuffer > 0)
        shrinkReceiveBuffer(options.receiveBuffer);
    if (!options.source.empty())
        socket.bind(tcp::endpoint(asio::ip::make_address(options.source), 0));
    if (!complete([&](auto handler) { socket.async_connect(target, handler); }, kWait))
        throw std::runtime_error("cannot connect to " + hub.host + ":" + hub.port);
    socket.set_option(tcp::no_delay(true));
    ws.read_message_max(std::size_t{64} << 20);
    if (options.deflate) {
        websocket::permessage_deflate offer;
        offer.client_enable = true;
        ws.set_option(offer);
    }
    if (!options.cookie.empty())
        ws.set_option(websocket::stream_base::decorator(
            [cookie = options.cookie](websocket::request_type& request) {
                request.set(beast::http::field::cookie, cookie);
            }));
    const std::string host = hub.host + ":" + hub.port;
    if (!complete(
            [&](auto handler) { ws.async_handshake(stream_->upgrade, host, hub.path, handler); },
            kWait))
        throw std::runtime_error("WebSocket handshake with " + host + " failed");
    ws.text(true);
}

std::uint64_t tcpBytesReceived(int socket);  // tcp_bytes.cpp

std::uint64_t RawClient::bytesReceived() const {
    return tcpBytesReceived(stream_->ws.next_layer().native_handle());
}

RawClient::~RawClient() {
    close();
}

template <class Start>
bool RawClient::complete(Start&& start, Millis timeout) {
    bool done = false;
    error_code failure;
    start([&](error_code ec, auto&&...) {
        failure = ec;
        done = true;
    });
    io_.restart();
    const auto deadline = Clock::now() + timeout;
    while (!done && io_.run_one_until(deadline) > 0) {
    }
    if (!done) {
        // Closing ends the operation, whose handler still has to run before `done` goes away.
        close();
        io_.restart();
        while (!done && io_.run_one() > 0) {
        }
        return false;
    }
    return !failure;
}

void RawClient::close() {
    error_code ignored;
    stream_->ws.next_layer().close(ignored);
}

void RawClient::shrinkReceiveBuffer(int bytes) {
    stream_->ws.next_layer().set_option(asio::socket_base::receive_buffer_size(bytes));
}

bool RawClient::send(std::string_view frame, Millis timeout) {
    stream_->outgoing.assign(frame);
    return complete(
        [&](auto handler) { stream_->ws.async_write(asio::buffer(stream_->outgoing), handler); },
        timeout);
}

void RawClient::sendAsync(std::string frame, std::function<void()> written) {
    stream_->queued.emplace_back(std::move(frame), std::move(written));
    if (stream_->queued.size() == 1)
        writeQueued();
}

void RawClient::writeQueued() {
    stream_->ws.async_write(asio::buffer(stream_->queued.front().first),
                            [this](error_code, std::size_t) {
                                auto written = std::move(stream_->queued.front().second);
                                stream_->queued.pop_front();
                                if (!stream_->queued.empty())
                                    writeQueued();
                                if (written)
                                    written();
                            });
}

bool RawClient::ping(Millis timeout) {
    return complete([&](auto handler) { stream_->ws.async_ping({}, handler); }, timeout);
}

std::optional<std::string_view> RawClient::read(Millis timeout) {
    auto& buffer = stream_->buffer;
    buffer.clear();
    if (!complete([&](auto handler) { stream_->ws.async_read(buffer, handler); }, timeout))
        return std::nullopt;
    return std::string_view(static_cast<const char*>(buffer.data().data()), buffer.size());
}

std::optional<std::string_view> RawClient::next(Millis timeout) {
    auto frame = read(timeout);
    if (frame && !clientId_.empty() && frame->find("\"/meta/connect\"") != frame->npos)
        sendConnect();
    return frame;
}

std::optional<std::string> RawClient::readUntil(std::string_view needle, Millis timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<Millis>(deadline - Clock::now());
        const auto frame = next(std::max(left, Millis(1)));
        if (!frame)
            return std::nullopt;
        if (frame->find(needle) != frame->npos)
            return std::string(*frame);
    }
}

void RawClient::readUntilAsync(std::string needle, std::function<void()> done) {
    readFrames(std::make_shared<std::string>(std::move(needle)), std::move(done));
}

void RawClient::drainAsync(std::function<void(std::string_view)> onFrame,
                           std::function<void()> onEnd) {
    stream_->buffer.clear();
    stream_->ws.async_read(stream_->buffer, [this, onFrame, onEnd](error_code ec, std::size_t) {
        if (ec) {
            if (onEnd)
                onEnd();
            return;
        }
        const auto data = stream_->buffer.data();
        onFrame(std::string_view(static_cast<const char*>(data.data()), data.size()));
        drainAsync(onFrame, onEnd);
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
            sendAsync(connectFrame());
        if (frame.find(*needle) != frame.npos) {
            done();
            return;
        }
        readFrames(needle, done);
    });
}

std::optional<std::string> RawClient::handshake(Millis timeout) {
    send(
        R"([{"channel":"/meta/handshake","version":"1.0","supportedConnectionTypes":["websocket"]}])");
    const auto reply = read(timeout);
    if (!reply)
        return std::string("no reply");
    const std::string_view key = "\"clientId\":\"";
    const auto at = reply->find(key);
    if (at == reply->npos || reply->find("\"successful\":true") == reply->npos)
        return std::string(*reply);
    const auto start = at + key.size();
    clientId_ = std::string(reply->substr(start, reply->find('"', start) - start));
    return std::nullopt;
}

bool RawClient::subscribeAndConnect(const std::string& channel, Millis timeout) {
    // Some servers answer a frame as a whole: a held connect in the same frame would hold back
    // the subscription's answer.
    send(R"([{"channel":"/meta/subscribe","clientId":")" + clientId_ + R"(","subscription":")" +
         channel + "\"}]");
    const auto reply = readUntil("\"/meta/subscribe\"", timeout);
    if (!reply || reply->find("\"successful\":true") == std::string::npos)
        return false;
    sendConnect();
    return true;
}

std::string RawClient::connectFrame() const {
    return R"([{"channel":"/meta/connect","connectionType":"websocket","clientId":")" + clientId_ +
           "\"}]";
}

std::string RawClient::disconnectFrame() const {
    return R"([{"channel":"/meta/disconnect","clientId":")" + clientId_ + "\"}]";
}

std::string RawClient::publishMessage(const std::string& channel, std::string_view jsonData) const {
    std::string message;
    appendPublish(message, channel, jsonData);
    return message;
}

void RawClient::appendPublish(std::string& frame, const std::string& channel,
                              std::string_view jsonData) const {
    frame += R"({"channel":")";
    frame += channel;
    frame += R"(","clientId":")";
    frame += clientId_;
    frame += R"(","data":)";
    frame += jsonData;
    frame += '}';
}

std::string RawClient::server() const {
    return std::string(stream_->upgrade[beast::http::field::server]);
}

std::string RawClient::setCookie() const {
    return std::string(stream_->upgrade[beast::http::field::set_cookie]);
}

}  // namespace orvale::tools
