// libFuzzer entry over the Bayeux codec: whatever bytes arrive, both decoders must return
// without crashing, leaking or hanging, and what they decoded must encode into a frame that
// decodes again to as many messages, without errors, and encodes to the same text.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "connector/bayeux/codec.h"

namespace {

using connector::bayeux::BayeuxMessage;
using connector::bayeux::codec::Decoded;

std::string reencode(const Decoded& decoded) {
    std::vector<const BayeuxMessage*> messages;
    for (const auto& message : decoded.messages)
        messages.push_back(message.get());
    return connector::bayeux::codec::encode(messages);
}

void check(std::string_view frame, Decoded (*decode)(std::string_view), const char* side) {
    const Decoded first = decode(frame);
    if (first.messages.empty())
        return;
    const std::string encoded = reencode(first);
    const Decoded second = decode(encoded);
    if (!second.errors.empty() || second.messages.size() != first.messages.size()) {
        std::fprintf(stderr, "%s: the re-encoded frame does not decode again: %s\n%s\n", side,
                     second.errors.empty() ? "message count differs" : second.errors[0].c_str(),
                     encoded.c_str());
        std::abort();
    }
    for (std::size_t i = 0; i < first.messages.size(); ++i) {
        if (first.messages[i]->kind() != second.messages[i]->kind()) {
            std::fprintf(stderr, "%s: message %zu changed its class\n%s\n", side, i,
                         encoded.c_str());
            std::abort();
        }
    }
    if (reencode(second) != encoded) {
        std::fprintf(stderr, "%s: encoding is not stable\n%s\n", side, encoded.c_str());
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view frame(reinterpret_cast<const char*>(data), size);
    check(frame, &connector::bayeux::codec::decodeFromServer, "server");
    check(frame, &connector::bayeux::codec::decodeFromClient, "client");
    return 0;
}
