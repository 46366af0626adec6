#pragma once
// What a Bayeux server's answer to a long-polling POST means: the cookies it sets go to the
// jar, a status other than 200 ends the connection, and the body is a frame of messages.
// Only included by the transport's own .cpp files and the fuzz target.
//
// Thread safety: functions of their arguments (the jar is safe from any thread).

#include <boost/beast/http/field.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "connector/bayeux/cookie_jar.h"
#include "connector/bayeux/messages.h"
#include "ws_url.h"

namespace connector::bayeux::transport {

using HttpResponse = boost::beast::http::response<boost::beast::http::string_body>;
using HttpResponseParser = boost::beast::http::response_parser<boost::beast::http::string_body>;

struct HttpReply {
    std::vector<std::unique_ptr<BayeuxMessage>> messages;
    std::vector<std::string> problems;  // parts of the body left out, for the log
    std::string failure;                // set when the answer is no Bayeux answer at all
};

// Header lines beyond this many bytes end the connection, as a body beyond the frame limit does.
constexpr std::uint32_t kHttpReplyHeaderLimit = 16 * 1024;

// Keeps the cookies that the header `fields` of an answer from `url` set.
template <class Fields>
void storeCookies(const Fields& fields, CookieJar* jar, const WebSocketUrl& url) {
    if (!jar)
        return;
    const auto range = fields.equal_range(boost::beast::http::field::set_cookie);
    for (auto it = range.first; it != range.second; ++it)
        jar->store(it->value(), url.host, url.target, url.secure);
}

// Bounds what the parser accepts: the header limit above and `maxBody` bytes of body.
void limitReplyParser(HttpResponseParser& parser, std::size_t maxBody);

// Reads `response`, which answered a request to `url`; its cookies go to `jar` when given.
HttpReply readReply(const HttpResponse& response, CookieJar* jar, const WebSocketUrl& url);

// Parses `bytes` as one whole response, bounded as above, then reads it; a response that does
// not parse, or is incomplete, is a failure.
HttpReply readRawReply(std::string_view bytes, std::size_t maxBody, CookieJar* jar,
                       const WebSocketUrl& url);

}  // namespace connector::bayeux::transport
