// libFuzzer entry over the Bayeux codec: any bytes decode without crash, leak or hang, and what
// decoded re-encodes to a frame that round-trips to the same text. The JSON reader agrees with
// Boost.JSON; as a long-polling answer no byte leaves a line break in a Cookie header.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <boost/json/parse.hpp>

#include "bayeux/codec.h"
#include "transport/http_reply.h"

namespace {

using connector::bayeux::BayeuxMessage;
using connector::bayeux::codec::Decoded;

// Stops the run with `what` and the text it is about.
[[noreturn]] void fail(const std::string& what, const std::string& shown = {}) {
    std::fprintf(stderr, "%s\n%s\n", what.c_str(), shown.c_str());
    std::abort();
}

std::string reencode(const Decoded& decoded) {
    std::vector<const BayeuxMessage*> messages;
    for (const auto& message : decoded.messages)
        messages.push_back(message.get());
    return connector::bayeux::codec::encode(messages);
}

void check(std::string_view frame, Decoded (*decode)(std::string_view), const std::string& side) {
    const Decoded first = decode(frame);
    if (first.messages.empty())
        return;
    const std::string encoded = reencode(first);
    const Decoded second = decode(encoded);
    if (!second.errors.empty() || second.messages.size() != first.messages.size())
        fail(side + ": the re-encoded frame does not decode again: " +
                 (second.errors.empty() ? "message count differs" : second.errors[0].text()),
             encoded);
    for (std::size_t i = 0; i < first.messages.size(); ++i)
        if (first.messages[i]->kind() != second.messages[i]->kind())
            fail(side + ": message " + std::to_string(i) + " changed its class", encoded);
    if (reencode(second) != encoded)
        fail(side + ": encoding is not stable", encoded);
}

// The codec refuses nesting deeper than 64 containers, as Boost.JSON is told to here.
void checkAgreesWithBoostJson(std::string_view frame) {
    boost::json::parse_options options;
    options.max_depth = 64;
    boost::json::error_code ec;
    boost::json::parse(boost::json::string_view(frame.data(), frame.size()), ec, {}, options);
    const Decoded decoded = connector::bayeux::codec::decodeFromServer(frame);
    bool rejected = false;
    for (const auto& error : decoded.errors)
        rejected = rejected || error.reason.rfind("invalid JSON", 0) == 0;
    if (rejected != static_cast<bool>(ec))
        fail(ec ? "the codec accepts what Boost.JSON rejects: " + ec.message()
                : "the codec rejects what Boost.JSON accepts: " + decoded.errors[0].text());
}

void checkHttpReply(std::string_view bytes) {
    connector::bayeux::CookieJar jar;
    std::string problem;
    const auto url =
        connector::bayeux::transport::parseHttpUrl("https://a.example.com/bayeux", problem);
    const auto reply = connector::bayeux::transport::readRawReply(bytes, 4096, &jar, *url);
    if (!reply.failure.empty() && !reply.messages.empty())
        fail("a failed reply carries messages");
    const std::string cookies = jar.header("a.example.com", "/bayeux", true);
    if (cookies.find_first_of("\r\n") != std::string::npos)
        fail("a cookie holds a line break", cookies);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view frame(reinterpret_cast<const char*>(data), size);
    check(frame, &connector::bayeux::codec::decodeFromServer, "server");
    check(
        frame, [](std::string_view f) { return connector::bayeux::codec::decodeFromClient(f); },
        "client");
    // The hub's cap on messages per frame: past it nothing is decoded.
    const Decoded capped = connector::bayeux::codec::decodeFromClient(frame, 2);
    if (capped.tooManyMessages && !capped.messages.empty())
        fail("a frame past the cap was decoded");
    checkAgreesWithBoostJson(frame);
    checkHttpReply(frame);
    return 0;
}
