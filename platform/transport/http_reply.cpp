// Reading the answers to long-polling requests.

#include "http_reply.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/http/status.hpp>

#include "bayeux/codec.h"

namespace connector::bayeux::transport {

namespace http = boost::beast::http;

void limitReplyParser(HttpResponseParser& parser, std::size_t maxBody) {
    parser.header_limit(kHttpReplyHeaderLimit);
    parser.body_limit(maxBody);
}

HttpReply readReply(const HttpResponse& response, CookieJar* jar, const WebSocketUrl& url) {
    HttpReply reply;
    storeCookies(response.base(), jar, url);
    if (response.result() != http::status::ok) {
        reply.failure = "HTTP status " + std::to_string(response.result_int());
        return reply;
    }
    codec::Decoded decoded = codec::decodeFromServer(response.body());
    if (decoded.messages.empty() && !decoded.errors.empty() && !decoded.errors[0].index) {
        reply.failure = "the body is no Bayeux frame: " + decoded.errors[0].text();
        return reply;
    }
    for (const auto& problem : decoded.errors)
        reply.problems.push_back(problem.text());
    reply.messages = std::move(decoded.messages);
    return reply;
}

HttpReply readRawReply(std::string_view bytes, std::size_t maxBody, CookieJar* jar,
                       const WebSocketUrl& url) {
    HttpResponseParser parser;
    limitReplyParser(parser, maxBody);
    parser.eager(true);
    boost::system::error_code ec;
    std::size_t used = 0;
    while (!ec && !parser.is_done() && used < bytes.size()) {
        const std::size_t n =
            parser.put(boost::asio::buffer(bytes.data() + used, bytes.size() - used), ec);
        if (n == 0 && !ec)
            break;
        used += n;
    }
    if (ec == http::error::need_more)
        ec = {};
    // Only a parser that has seen a header may be told of the end.
    if (!ec && !parser.is_done() && parser.got_some())
        parser.put_eof(ec);
    if (ec || !parser.is_done()) {
        HttpReply reply;
        reply.failure = ec ? ec.message() : "incomplete response";
        return reply;
    }
    return readReply(parser.get(), jar, url);
}

}  // namespace connector::bayeux::transport
