#pragma once
// The Bayeux 1.0 JSON wire codec.
//
// A frame is a JSON array of message objects; a single object is accepted too. Decoding never
// throws: what cannot be understood is reported in `errors` and left out.
//
// Thread safety: pure functions; any thread.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "connector/bayeux/messages.h"

namespace connector::bayeux::codec {

// JSON nested deeper than this is refused: it bounds the recursion of parsing and
// re-serializing, and what the hub reads off the wire or sends on it stays within it.
inline constexpr std::size_t kMaxDepth = 64;

// Why part of a frame was left out.
struct DecodeError {
    // The message's position in the frame; empty when the whole frame was refused.
    std::optional<std::size_t> index;
    // The message's channel and id as it sent them, where they could be read; empty otherwise.
    std::string channel;
    std::string id;
    std::string reason;

    // "message 3: missing data", or the frame's reason alone: for log lines.
    std::string text() const;
};

struct Decoded {
    std::vector<std::unique_ptr<BayeuxMessage>> messages;
    std::vector<DecodeError> errors;
    // The frame held more elements than the caller allows: nothing of it was decoded.
    bool tooManyMessages = false;
};

// Appends one message as a JSON object to `out`.
void encodeInto(const BayeuxMessage& message, std::string& out);
// A frame: a JSON array of the messages, in order.
std::string encode(const std::vector<const BayeuxMessage*>& messages);
std::string encode(const BayeuxMessage& message);

// Decodes what a server sends to a client: a message with `successful` is a response, its class
// chosen by channel (any non-meta channel gives a PublishResponse); a message on a non-meta
// channel with `data` and no `successful` is a delivered PublishRequest. Of a frame's elements
// that cannot be decoded, the first kMostServerErrors get an error each and the rest one more
// that counts them.
inline constexpr std::size_t kMostServerErrors = 16;
Decoded decodeFromServer(std::string_view frame);

// Decodes what a client sends to a server: meta requests by channel, and PublishRequests. A frame
// of more than `maxMessages` elements is refused whole (one frame-level error, tooManyMessages).
Decoded decodeFromClient(std::string_view frame, std::size_t maxMessages = SIZE_MAX);

}  // namespace connector::bayeux::codec
