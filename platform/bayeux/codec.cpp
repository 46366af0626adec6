// The Bayeux 1.0 JSON wire codec: messages to frames and frames to messages.
//
// Encoding writes the JSON text directly; `data` and `ext` are JSON text already and go in as
// they are. Decoding parses the frame with Boost.JSON into a per-call arena and builds the
// message classes; every problem with one element is reported and that element left out, so a
// peer can never crash, hang or exhaust the process with what it sends.

#include "connector/bayeux/codec.h"

#include <algorithm>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <exception>
#include <optional>
#include <stdexcept>
#include <utility>

#include "json_text.h"

namespace connector::bayeux::codec {

namespace json = boost::json;

namespace {

// Larger frames are refused before parsing; the transport's own limit is normally lower.
constexpr std::size_t kMaxFrameBytes = std::size_t{64} << 20;
// Nesting deeper than this is refused: it bounds the recursion of parsing and re-serializing.
constexpr std::size_t kMaxDepth = 64;

// ---------------------------------------------------------------------------------------------
// Encoding

template <class Integer>
void appendInteger(std::string& out, Integer value) {
    char buffer[32];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

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

// ---------------------------------------------------------------------------------------------
// Decoding

// What is wrong with one element; caught per element so the rest of the frame still decodes.
struct Problem : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void appendValue(std::string& out, const json::value& value);

void appendDouble(std::string& out, double value) {
    // JSON has no infinities; a literal too large for a double comes back as null.
    if (!std::isfinite(value)) {
        out.append("null");
        return;
    }
    // "-0" would read back as the integer 0; the fraction keeps it a negative zero.
    if (value == 0 && std::signbit(value)) {
        out.append("-0.0");
        return;
    }
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

// Serializes a parsed value compactly; numbers keep their shortest round-trip form.
void appendValue(std::string& out, const json::value& value) {
    switch (value.kind()) {
        case json::kind::null:
            out.append("null");
            break;
        case json::kind::bool_:
            out.append(value.get_bool() ? "true" : "false");
            break;
        case json::kind::int64:
            appendInteger(out, value.get_int64());
            break;
        case json::kind::uint64:
            appendInteger(out, value.get_uint64());
            break;
        case json::kind::double_:
            appendDouble(out, value.get_double());
            break;
        case json::kind::string: {
            const auto& s = value.get_string();
            appendQuoted(out, std::string_view(s.data(), s.size()));
            break;
        }
        case json::kind::array: {
            out.push_back('[');
            bool first = true;
            for (const auto& element : value.get_array()) {
                if (!first)
                    out.push_back(',');
                first = false;
                appendValue(out, element);
            }
            out.push_back(']');
            break;
        }
        case json::kind::object: {
            out.push_back('{');
            bool first = true;
            for (const auto& member : value.get_object()) {
                if (!first)
                    out.push_back(',');
                first = false;
                appendQuoted(out, std::string_view(member.key().data(), member.key().size()));
                out.push_back(':');
                appendValue(out, member.value());
            }
            out.push_back('}');
            break;
        }
    }
}

std::string toText(const json::value& value) {
    std::string out;
    appendValue(out, value);
    return out;
}

std::string toStdString(const json::string& s) {
    return std::string(s.data(), s.size());
}

bool isMetaChannel(std::string_view channel) {
    return channel.compare(0, 6, "/meta/") == 0 || channel == "/meta";
}

// The source text of the `data` and `ext` members of one element. They are handed on as the
// peer wrote them: re-serializing would cost time, and this Boost.JSON release does not always
// parse long or large decimals to the nearest double, so their values could drift on each hop.
struct RawMembers {
    std::optional<std::string_view> data;
    std::optional<std::string_view> ext;
};

// Walks a frame that Boost.JSON has already accepted, so it only needs to find boundaries.
class RawScanner {
  public:
    explicit RawScanner(std::string_view text) : text_(text) {}

    // One entry per element of a top-level array, or one for a top-level object.
    std::vector<RawMembers> elements() {
        std::vector<RawMembers> out;
        skipSpace();
        if (at('{')) {
            out.push_back(members());
        } else if (at('[')) {
            ++pos_;
            skipSpace();
            while (pos_ < text_.size() && !at(']')) {
                if (at('{'))
                    out.push_back(members());
                else {
                    skipValue();
                    out.emplace_back();
                }
                skipSpace();
                if (at(','))
                    ++pos_;
                skipSpace();
            }
        }
        return out;
    }

  private:
    bool at(char c) const { return pos_ < text_.size() && text_[pos_] == c; }

    void skipSpace() {
        while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' ||
                                       text_[pos_] == '\n' || text_[pos_] == '\r'))
            ++pos_;
    }

    // From an opening quote to just past the closing one.
    void skipString() {
        ++pos_;
        while (pos_ < text_.size() && text_[pos_] != '"')
            pos_ += text_[pos_] == '\\' ? 2 : 1;
        ++pos_;
    }

    // Any value; containers by counting brackets, so depth costs no recursion.
    void skipValue() {
        if (at('"'))
            return skipString();
        if (at('{') || at('[')) {
            std::size_t depth = 0;
            do {
                const char c = text_[pos_];
                if (c == '"') {
                    skipString();
                    continue;
                }
                if (c == '{' || c == '[')
                    ++depth;
                if (c == '}' || c == ']')
                    --depth;
                ++pos_;
            } while (depth > 0 && pos_ < text_.size());
            return;
        }
        while (pos_ < text_.size() && text_[pos_] != ',' && text_[pos_] != '}' &&
               text_[pos_] != ']' && text_[pos_] != ' ' && text_[pos_] != '\t' &&
               text_[pos_] != '\n' && text_[pos_] != '\r')
            ++pos_;
    }

    // The key at pos_ decoded, as far as telling "data" and "ext" apart needs.
    std::string key() {
        const std::size_t start = pos_ + 1;
        skipString();
        std::string_view raw = text_.substr(start, pos_ - start - 1);
        if (raw.find('\\') == std::string_view::npos)
            return std::string(raw);
        std::string decoded;
        for (std::size_t i = 0; i < raw.size(); ++i) {
            if (raw[i] != '\\' || i + 1 >= raw.size()) {
                decoded.push_back(raw[i]);
                continue;
            }
            const char e = raw[++i];
            if (e == 'u' && i + 4 < raw.size()) {
                unsigned value = 0;
                std::from_chars(raw.data() + i + 1, raw.data() + i + 5, value, 16);
                decoded.push_back(value < 0x80 ? static_cast<char>(value) : '?');
                i += 4;
            } else {
                decoded.push_back(e == '"' || e == '\\' || e == '/' ? e : '?');
            }
        }
        return decoded;
    }

    RawMembers members() {
        RawMembers out;
        ++pos_;
        skipSpace();
        while (pos_ < text_.size() && at('"')) {
            const std::string name = key();
            skipSpace();
            if (at(':'))
                ++pos_;
            skipSpace();
            const std::size_t start = pos_;
            skipValue();
            const std::string_view value = text_.substr(start, pos_ - start);
            // A repeated member counts once, the last one, as for every other member.
            if (name == "data")
                out.data = value;
            if (name == "ext")
                out.ext = value;
            skipSpace();
            if (at(','))
                ++pos_;
            skipSpace();
        }
        if (at('}'))
            ++pos_;
        return out;
    }

    std::string_view text_;
    std::size_t pos_ = 0;
};

// Typed access to the members of one message object; a mistyped member is a Problem.
class Fields {
  public:
    Fields(const json::object& object, const RawMembers& raw) : object_(object), raw_(raw) {}

    const json::value* find(std::string_view name) const { return object_.if_contains(name); }
    bool has(std::string_view name) const { return find(name) != nullptr; }

    std::string string(std::string_view name, bool required = false) const {
        const json::value* v = find(name);
        if (!v) {
            if (required)
                throw Problem("missing " + std::string(name));
            return {};
        }
        if (!v->is_string())
            throw Problem(std::string(name) + " is not a string");
        return toStdString(v->get_string());
    }

    std::string channel() const {
        std::string channel = string("channel", true);
        if (channel.empty() || channel[0] != '/')
            throw Problem("channel '" + channel + "' is not a channel name");
        return channel;
    }

    // Ids are strings in Bayeux; some clients send integers, which are taken as their text.
    std::string id() const {
        const json::value* v = find("id");
        if (!v)
            return {};
        if (v->is_string())
            return toStdString(v->get_string());
        if (v->is_int64())
            return std::to_string(v->get_int64());
        if (v->is_uint64())
            return std::to_string(v->get_uint64());
        throw Problem("id is neither a string nor an integer");
    }

    bool boolean(std::string_view name) const {
        const json::value* v = find(name);
        if (!v->is_bool())
            throw Problem(std::string(name) + " is not a boolean");
        return v->get_bool();
    }

    std::vector<std::string> strings(std::string_view name) const {
        std::vector<std::string> out;
        const json::value* v = find(name);
        if (!v)
            return out;
        if (!v->is_array())
            throw Problem(std::string(name) + " is not an array");
        for (const auto& element : v->get_array()) {
            if (!element.is_string())
                throw Problem(std::string(name) + " holds something other than strings");
            out.push_back(toStdString(element.get_string()));
        }
        return out;
    }

    // A subscription is a pattern or an array of them; a message holds one, so the first is kept.
    std::string subscription(bool required) const {
        std::string pattern = firstSubscription(required);
        if (required && pattern.empty())
            throw Problem("subscription is empty");
        return pattern;
    }

    std::optional<Advice> advice() const {
        const json::value* v = find("advice");
        if (!v)
            return std::nullopt;
        if (!v->is_object())
            throw Problem("advice is not an object");
        const json::object& object = v->get_object();
        Advice advice;
        if (const json::value* r = object.if_contains("reconnect")) {
            if (!r->is_string())
                throw Problem("advice.reconnect is not a string");
            advice.reconnect = toStdString(r->get_string());
        }
        advice.interval = milliseconds(object, "interval");
        advice.timeout = milliseconds(object, "timeout");
        return advice;
    }

    std::string ext() const {
        if (!raw_.ext)
            return {};
        if (raw_.ext->empty() || raw_.ext->front() != '{')
            throw Problem("ext is not an object");
        return std::string(*raw_.ext);
    }

    std::string data(bool required) const {
        if (!raw_.data) {
            if (required)
                throw Problem("missing data");
            return {};
        }
        return std::string(*raw_.data);
    }

  private:
    std::string firstSubscription(bool required) const {
        const json::value* v = find("subscription");
        if (!v) {
            if (required)
                throw Problem("missing subscription");
            return {};
        }
        if (v->is_string())
            return toStdString(v->get_string());
        if (v->is_array()) {
            const auto& array = v->get_array();
            for (const auto& element : array)
                if (!element.is_string())
                    throw Problem("subscription holds something other than strings");
            if (!array.empty())
                return toStdString(array.front().get_string());
            if (required)
                throw Problem("subscription is an empty array");
            return {};
        }
        throw Problem("subscription is neither a string nor an array");
    }

    static std::int64_t milliseconds(const json::object& advice, std::string_view name) {
        const json::value* v = advice.if_contains(name);
        if (!v)
            return -1;
        if (v->is_int64())
            return v->get_int64() < 0 ? -1 : v->get_int64();
        if (v->is_uint64())
            return static_cast<std::int64_t>(std::min<std::uint64_t>(v->get_uint64(), INT64_MAX));
        if (v->is_double()) {
            double d = v->get_double();
            if (!(d >= 0))
                return -1;
            if (d >= 9.2e18)
                return INT64_MAX;
            return static_cast<std::int64_t>(d);
        }
        throw Problem("advice." + std::string(name) + " is not a number");
    }

    const json::object& object_;
    const RawMembers& raw_;
};

// Fields every message may carry.
void readCommon(const Fields& fields, BayeuxMessage& message) {
    message.setId(fields.id());
    message.setClientId(fields.string("clientId"));
    message.setExt(fields.ext());
    if (auto advice = fields.advice())
        message.setAdvice(std::move(*advice));
}

std::unique_ptr<BayeuxMessage> decodeServerMessage(const json::object& object,
                                                   const RawMembers& raw) {
    Fields fields(object, raw);
    std::string channel = fields.channel();
    std::unique_ptr<BayeuxMessage> message;
    if (fields.has("successful")) {
        std::unique_ptr<BayeuxResponse> response;
        if (channel == meta::handshake) {
            auto handshake = std::make_unique<HandshakeResponse>();
            handshake->setVersion(fields.string("version"));
            handshake->setSupportedConnectionTypes(fields.strings("supportedConnectionTypes"));
            response = std::move(handshake);
        } else if (channel == meta::connect) {
            response = std::make_unique<ConnectStreamResponse>();
        } else if (channel == meta::disconnect) {
            response = std::make_unique<DisconnectResponse>();
        } else if (channel == meta::subscribe) {
            auto subscribe = std::make_unique<SubscribeResponse>();
            subscribe->setChannel(fields.subscription(false));
            response = std::move(subscribe);
        } else if (channel == meta::unsubscribe) {
            auto unsubscribe = std::make_unique<UnsubscribeResponse>();
            unsubscribe->setChannel(fields.subscription(false));
            response = std::move(unsubscribe);
        } else {
            response = std::make_unique<PublishResponse>(channel);
        }
        response->setSuccessful(fields.boolean("successful"));
        response->setError(fields.string("error"));
        message = std::move(response);
    } else if (!isMetaChannel(channel) && fields.has("data")) {
        auto publish = std::make_unique<PublishRequest>();
        publish->setChannel(std::move(channel));
        publish->setJson(fields.data(true));
        message = std::move(publish);
    } else if (isMetaChannel(channel)) {
        throw Problem("message on " + channel + " has no successful field");
    } else {
        throw Problem("message on " + channel + " has neither successful nor data");
    }
    readCommon(fields, *message);
    return message;
}

std::unique_ptr<BayeuxMessage> decodeClientMessage(const json::object& object,
                                                   const RawMembers& raw) {
    Fields fields(object, raw);
    std::string channel = fields.channel();
    std::unique_ptr<BayeuxMessage> message;
    if (channel == meta::handshake) {
        auto handshake = std::make_unique<HandshakeRequest>();
        handshake->setVersion(fields.string("version"));
        handshake->setMinimumVersion(fields.string("minimumVersion"));
        handshake->setSupportedConnectionTypes(fields.strings("supportedConnectionTypes"));
        message = std::move(handshake);
    } else if (channel == meta::connect) {
        message = std::make_unique<ConnectRequest>(fields.string("connectionType"));
    } else if (channel == meta::disconnect) {
        message = std::make_unique<DisconnectRequest>();
    } else if (channel == meta::subscribe) {
        auto subscribe = std::make_unique<SubscribeRequest>();
        subscribe->setChannel(fields.subscription(true));
        message = std::move(subscribe);
    } else if (channel == meta::unsubscribe) {
        auto unsubscribe = std::make_unique<UnsubscribeRequest>();
        unsubscribe->setChannel(fields.subscription(true));
        message = std::move(unsubscribe);
    } else if (isMetaChannel(channel)) {
        throw Problem("unknown meta channel " + channel);
    } else {
        auto publish = std::make_unique<PublishRequest>();
        publish->setJson(fields.data(true));
        publish->setChannel(std::move(channel));
        message = std::move(publish);
    }
    readCommon(fields, *message);
    return message;
}

using ElementDecoder = std::unique_ptr<BayeuxMessage> (*)(const json::object&, const RawMembers&);

void decodeElement(const json::value& element, const RawMembers& raw, std::size_t index,
                   ElementDecoder decoder, Decoded& out) {
    if (!element.is_object()) {
        out.errors.push_back("message " + std::to_string(index) + ": not an object");
        return;
    }
    try {
        out.messages.push_back(decoder(element.get_object(), raw));
    } catch (const Problem& problem) {
        out.errors.push_back("message " + std::to_string(index) + ": " + problem.what());
    }
}

Decoded decodeFrame(std::string_view frame, ElementDecoder decoder) {
    Decoded out;
    if (frame.size() > kMaxFrameBytes) {
        out.errors.push_back("frame of " + std::to_string(frame.size()) +
                             " bytes exceeds the limit of " + std::to_string(kMaxFrameBytes));
        return out;
    }
    try {
        // The parsed tree lives only for this call: an arena spares one allocation per node.
        unsigned char initial[4096];
        json::monotonic_resource arena(initial, sizeof initial);
        json::parse_options options;
        options.max_depth = kMaxDepth;
        json::error_code ec;
        json::value root = json::parse(json::string_view(frame.data(), frame.size()), ec,
                                       json::storage_ptr(&arena), options);
        if (ec) {
            out.errors.push_back("invalid JSON: " + ec.message());
            return out;
        }
        if (!root.is_array() && !root.is_object()) {
            out.errors.push_back("frame is neither an array nor an object");
            return out;
        }
        const std::vector<RawMembers> raw = RawScanner(frame).elements();
        if (root.is_array()) {
            const json::array& elements = root.get_array();
            if (raw.size() != elements.size()) {
                out.errors.push_back("frame could not be scanned");  // cannot happen to valid JSON
                return out;
            }
            out.messages.reserve(elements.size());
            for (std::size_t i = 0; i < elements.size(); ++i)
                decodeElement(elements[i], raw[i], i, decoder, out);
        } else if (raw.size() == 1) {
            decodeElement(root, raw[0], 0, decoder, out);
        }
    } catch (const std::exception& e) {
        // Only allocation failure gets here; what decoded so far is kept.
        out.errors.push_back(std::string("cannot decode frame: ") + e.what());
    }
    return out;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

void appendQuoted(std::string& out, std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    out.push_back('"');
    std::size_t runStart = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != '"' && c != '\\')
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

std::string withExtMember(std::string_view ext, std::string_view name, std::string_view value) {
    json::error_code ec;
    json::object object;
    if (!ext.empty()) {
        json::value parsed = json::parse(json::string_view(ext.data(), ext.size()), ec);
        if (!ec && parsed.is_object())
            object = std::move(parsed.get_object());
    }
    json::value member = json::parse(json::string_view(value.data(), value.size()), ec);
    if (ec)
        member = json::string(json::string_view(value.data(), value.size()));
    object[json::string_view(name.data(), name.size())] = std::move(member);
    return toText(object);
}

void encodeInto(const BayeuxMessage& message, std::string& out) {
    ObjectWriter writer(out);
    writer.string("channel", message.bayeuxChannel());
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
    if (const auto* response = dynamic_cast<const BayeuxResponse*>(&message)) {
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

Decoded decodeFromServer(std::string_view frame) {
    return decodeFrame(frame, &decodeServerMessage);
}

Decoded decodeFromClient(std::string_view frame) {
    return decodeFrame(frame, &decodeClientMessage);
}

}  // namespace connector::bayeux::codec
