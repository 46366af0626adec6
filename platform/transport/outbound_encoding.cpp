// Encoding of outbound messages, shared by the WebSocket and long-polling connections.

#include "outbound_encoding.h"

#include <exception>
#include <typeinfo>

#include "../bayeux/json_text.h"
#include "bayeux/codec.h"
#include "connector/log/diagnostic_logger.h"

namespace connector::bayeux::transport {

namespace {

const foundation::log::basic_diagnostic_logger<char> logger("connector::bayeux::transport");

void addApiKey(BayeuxMessage& handshake, const common::ContextState* state) {
    if (!state)
        return;
    const auto key = state->getString("orvapikey");
    if (!key)
        return;
    std::string quoted;
    codec::appendQuoted(quoted, *key);
    handshake.setExt(codec::withExtMember(handshake.getExt(), "orvapikey", quoted));
}

void encodeInto(Message* message, const common::ContextState* state, const std::string& url,
                EncodedMessages& out) {
    if (!message)
        return;
    // Publishes are nearly all of the traffic: their exact type spares the cast.
    auto* bayeux = typeid(*message) == typeid(PublishRequest)
                       ? static_cast<PublishRequest*>(message)
                       : dynamic_cast<BayeuxMessage*>(message);
    if (bayeux) {
        if (bayeux->kind() == Kind::HandshakeRequest)
            addApiKey(*bayeux, state);
        codec::encodeInto(*bayeux, out.text);
        out.ends.emplace_back(out.text.size(), bayeux->kind() == Kind::ConnectRequest);
    } else if (auto* container = dynamic_cast<BayeuxContainer*>(message)) {
        for (auto& inner : container->messages())
            encodeInto(inner.get(), state, url, out);
    } else {
        logger.log(foundation::log::error, "Dropped an outbound ",
                   foundation::log::typeName(*message), " to ", url, ": not a Bayeux message");
    }
}

}  // namespace

bool encodeOutbound(Message* message, const common::ContextState* state, const std::string& url,
                    EncodedMessages& out) {
    try {
        encodeInto(message, state, url, out);
        return true;
    } catch (const std::exception& e) {
        logger.log(foundation::log::error, "Dropped an outbound message to ", url, ": ", e.what());
        out.clear();
        return false;
    }
}

}  // namespace connector::bayeux::transport
