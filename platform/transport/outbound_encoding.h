#pragma once
// Turns what a client hands a connection into the JSON text of its Bayeux messages, on the
// sending thread, for either transport.
//
// Thread safety: a function of its arguments; any thread.

#include <string>
#include <utility>
#include <vector>

#include "connector/bayeux/messages.h"

namespace connector::bayeux::transport {

// Messages encoded for a connection's queue: their text one after the other, and where each
// ends.
struct EncodedMessages {
    std::string text;
    std::vector<std::pair<std::size_t, bool>> ends;  // end offset, is a meta connect
    void clear() {
        text.clear();
        ends.clear();
    }
};

// Encodes `message` (each message of a batch) into `out`. A handshake carries the API key stored
// under "orvapikey" in `state`, read now so that a key stored after connecting still counts.
// What is not a Bayeux message is logged as dropped (for `url`) and left out; when encoding
// fails, that is logged and the whole of `message` is dropped (false).
bool encodeOutbound(Message* message, const common::ContextState* state, const std::string& url,
                    EncodedMessages& out);

}  // namespace connector::bayeux::transport
