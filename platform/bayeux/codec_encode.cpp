// Writing Bayeux 1.0 JSON frames: the JSON text is written directly; `data` and `ext` are JSON
// text already and go in as they are.

#include <string>
#include <string_view>

#include "bayeux/codec.h"
#include "json_text.h"

namespace connector::bayeux::codec {

namespace {

// Writes the members of one JSON object, separating them with commas.
class ObjectWriter {
  public:
    explicit ObjectWriter(std::string& out) : out_(out) { out_.push_back('{'); }
    void finish() { out_.push_back('}'); }

    void key(std::string_view name) {
        if (!first_)
            out_.push_back(',');
        first_ = false;
        out_.push_back('"');
        out_.append(name);  // member names are our own constants, never in need of escapes
        out_.append("\":");
    }
    void string(std::string_view name, std::string_view value) {
        key(name);
        appendQuoted(out_, value);
    }
    void optionalString(std::string_view name, std::string_view value) {
        if (!value.empty())
            string(name, value);
    }
    void boolean(std::string_view name, bool value) {
        key(name);
        out_.append(value ? "true" : "false");
    }
    void integer(std::string_view name, std::int64_t value) {
        key(name);
        appendInteger(out_, value);
    }
    void raw(std::string_view name, std::string_view jsonText) {
        key(name);
        out_.append(jsonText);
    }
    void strings(std::string_view name, const std::vector<std::string>& values) {
        key(name);
        out_.push_back('[');
        for (std::size_t i = 0; i < values.size(); ++i) {
            if (i)
                out_.push_back(',');
            appendQuoted(out_, values[i]);
        }
        out_.push_back(']');
    }

  private:
    std::string& out_;
    bool first_ = true;
};

// The channel member, without the copy that bayeuxChannel() makes.
std::string_view channelOf(const BayeuxMessage& message) {
    switch (message.kind()) {
        case Kind::PublishRequest:
            return static_cast<const PublishRequest&>(message).getChannel();
        case Kind::PublishResponse:
            return static_cast<const PublishResponse&>(message).getChannel();
        default:
            return metaChannel(message.kind());
    }
}

void writeAdvice(ObjectWriter& writer, std::string& out, const Advice& advice) {
    writer.key("advice");
    ObjectWriter inner(out);
    inner.optionalString("reconnect", advice.reconnect);
    if (advice.interval >= 0)
        inner.integer("interval", advice.interval);
    if (advice.timeout >= 0)
        inner.integer("timeout", advice.timeout);
    inner.finish();
}

}  // namespace

void appendQuoted(std::string& out, std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    out.push_back('"');
    std::size_t runStart = 0;
    std::size_t i = 0;
    // Names and ids rarely need an escape: eight bytes at a time until one might.
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    std::uint64_t word;
    while (i + 8 <= text.size() && escapeFlags8(bytes + i, word) == 0)
        i += 8;
    for (; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (!kNeedsEscape[c])
            continue;
        out.append(text.data() + runStart, i - runStart);
        runStart = i + 1;
        switch (c) {
            case '"':
                out.append("\\\"");
                break;
            case '\\':
                out.append("\\\\");
                break;
            case '\n':
                out.append("\\n");
                break;
            case '\r':
                out.append("\\r");
                break;
            case '\t':
                out.append("\\t");
                break;
            case '\b':
                out.append("\\b");
                break;
            case '\f':
                out.append("\\f");
                break;
            default: {
                const char escape[] = {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 0xF]};
                out.append(escape, sizeof escape);
            }
        }
    }
    out.append(text.data() + runStart, text.size() - runStart);
    out.push_back('"');
}

void encodeInto(const BayeuxMessage& message, std::string& out) {
    ObjectWriter writer(out);
    writer.string("channel", channelOf(message));
    writer.optionalString("id", message.getId());
    writer.optionalString("clientId", message.getClientId());
    switch (message.kind()) {
        case Kind::HandshakeRequest: {
            const auto& m = static_cast<const HandshakeRequest&>(message);
            writer.optionalString("version", m.getVersion());
            writer.optionalString("minimumVersion", m.getMinimumVersion());
            if (!m.getSupportedConnectionTypes().empty())
                writer.strings("supportedConnectionTypes", m.getSupportedConnectionTypes());
            break;
        }
        case Kind::HandshakeResponse: {
            const auto& m = static_cast<const HandshakeResponse&>(message);
            writer.optionalString("version", m.getVersion());
            if (!m.getSupportedConnectionTypes().empty())
                writer.strings("supportedConnectionTypes", m.getSupportedConnectionTypes());
            break;
        }
        case Kind::ConnectRequest:
            writer.optionalString("connectionType",
                                  static_cast<const ConnectRequest&>(message).getConnectionType());
            break;
        case Kind::SubscribeRequest:
            writer.optionalString("subscription",
                                  static_cast<const SubscribeRequest&>(message).getChannel());
            break;
        case Kind::SubscribeResponse:
            writer.optionalString("subscription",
                                  static_cast<const SubscribeResponse&>(message).getChannel());
            break;
        case Kind::UnsubscribeRequest:
            writer.optionalString("subscription",
                                  static_cast<const UnsubscribeRequest&>(message).getChannel());
            break;
        case Kind::UnsubscribeResponse:
            writer.optionalString("subscription",
                                  static_cast<const UnsubscribeResponse&>(message).getChannel());
            break;
        case Kind::PublishRequest: {
            const auto& json = static_cast<const PublishRequest&>(message).getJson();
            writer.raw("data", json.empty() ? std::string_view("null") : std::string_view(json));
            break;
        }
        case Kind::ConnectResponse:
        case Kind::DisconnectRequest:
        case Kind::DisconnectResponse:
        case Kind::PublishResponse:
            break;
    }
    if (isResponse(message.kind())) {
        const auto* response = static_cast<const BayeuxResponse*>(&message);
        writer.boolean("successful", response->isSuccessful());
        writer.optionalString("error", response->getError());
    }
    if (message.getAdvice())
        writeAdvice(writer, out, *message.getAdvice());
    if (!message.getExt().empty())
        writer.raw("ext", message.getExt());
    writer.finish();
}

std::string encode(const std::vector<const BayeuxMessage*>& messages) {
    std::string out;
    out.reserve(64 * messages.size() + 2);
    out.push_back('[');
    bool first = true;
    for (const BayeuxMessage* message : messages) {
        if (!message)
            continue;
        if (!first)
            out.push_back(',');
        first = false;
        encodeInto(*message, out);
    }
    out.push_back(']');
    return out;
}

std::string encode(const BayeuxMessage& message) {
    std::string out;
    out.push_back('[');
    encodeInto(message, out);
    out.push_back(']');
    return out;
}

}  // namespace connector::bayeux::codec
