// Reading Bayeux 1.0 JSON frames: one strict pass over the frame (json_reader.h) builds the
// message classes from the members they need. Every problem with one element is reported and
// that element left out, so a peer can never crash, hang or exhaust the process with what it
// sends. Also here, since it parses: adding a member to an ext object.

#include "bayeux/codec.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <optional>
#include <stdexcept>
#include <utility>

#include "connector/bayeux/channel.h"
#include "json_reader.h"
#include "json_text.h"

namespace connector::bayeux::codec {

namespace jr = json_reader;

namespace {

// Larger frames are refused before parsing; the transport's own limit is normally lower.
constexpr std::size_t kMaxFrameBytes = std::size_t{64} << 20;

// What is wrong with one element; caught per element so the rest of the frame still decodes.
struct Problem : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Asked of every decoded message: the kind alone, without checking the whole name.
bool isMetaChannel(std::string_view channel) {
    return ChannelName::kindOf(channel) == ChannelName::Kind::meta;
}

// The member names the decoder reads, each with its slot; anything else is passed over.
enum Slot : std::size_t {
    Channel,
    Id,
    ClientId,
    Successful,
    Error,
    Data,
    Ext,
    AdviceMember,
    Version,
    SupportedConnectionTypes,
    Subscription,
    ConnectionType,
    MinimumVersion,
    Reconnect,
    Interval,
    Timeout,
    kKnownCount
};
constexpr std::string_view kKnownNames[kKnownCount] = {"channel",
                                                       "id",
                                                       "clientId",
                                                       "successful",
                                                       "error",
                                                       "data",
                                                       "ext",
                                                       "advice",
                                                       "version",
                                                       "supportedConnectionTypes",
                                                       "subscription",
                                                       "connectionType",
                                                       "minimumVersion",
                                                       "reconnect",
                                                       "interval",
                                                       "timeout"};

// The slot of a known name, or kKnownCount; by length first, as this runs for every member.
constexpr std::size_t slotOf(std::string_view name) {
    auto is = [&](Slot slot) -> std::size_t {
        return kKnownNames[slot] == name ? slot : kKnownCount;
    };
    switch (name.size()) {
        case 2:
            return is(Id);
        case 3:
            return is(Ext);
        case 4:
            return is(Data);
        case 5:
            return is(Error);
        case 6:
            return is(AdviceMember);
        case 7:
            return name[0] == 'c' ? is(Channel) : name[0] == 'v' ? is(Version) : is(Timeout);
        case 8:
            return name[0] == 'c' ? is(ClientId) : is(Interval);
        case 9:
            return is(Reconnect);
        case 10:
            return is(Successful);
        case 12:
            return is(Subscription);
        case 14:
            return name[0] == 'c' ? is(ConnectionType) : is(MinimumVersion);
        case 24:
            return is(SupportedConnectionTypes);
        default:
            return kKnownCount;
    }
}

// Checks the switch above against the names: each name must find its own slot.
constexpr bool everyNameFindsItsSlot() {
    for (std::size_t slot = 0; slot < kKnownCount; ++slot)
        if (slotOf(kKnownNames[slot]) != slot)
            return false;
    return true;
}
static_assert(everyNameFindsItsSlot(), "slotOf and kKnownNames disagree");

// Typed access to the members of one message object; a mistyped member is a Problem. A
// repeated member counts once, the last one. The members are sorted into slots by name once,
// since every message is asked for most of the names.
class Fields {
  public:
    explicit Fields(const std::vector<jr::Member>& members) : members_(members) { index(); }

    const jr::Value* find(std::string_view name) const { return slots_[slotOf(name)]; }
    bool has(std::string_view name) const { return find(name) != nullptr; }

    std::string string(std::string_view name, bool required = false) const {
        const jr::Value* v = find(name);
        if (!v) {
            if (required)
                throw Problem("missing " + std::string(name));
            return {};
        }
        if (v->type != jr::Type::String)
            throw Problem(std::string(name) + " is not a string");
        return jr::text(*v);
    }

    std::string channel() const {
        std::string channel = string("channel", true);
        if (!ChannelName::isRooted(channel))
            throw Problem("channel '" + channel + "' is not a channel name");
        return channel;
    }

    // Ids are strings in Bayeux; some clients send integers, which are taken as their text.
    std::string id() const {
        const jr::Value* v = find("id");
        if (!v)
            return {};
        if (v->type == jr::Type::String)
            return jr::text(*v);
        if (v->type == jr::Type::Number) {
            const jr::Number n = jr::number(v->text);
            if (n.kind == jr::Number::Kind::Int64)
                return std::to_string(n.i);
            if (n.kind == jr::Number::Kind::UInt64)
                return std::to_string(n.u);
        }
        throw Problem("id is neither a string nor an integer");
    }

    bool boolean(std::string_view name) const {
        const jr::Value* v = find(name);
        if (v->type != jr::Type::Bool)
            throw Problem(std::string(name) + " is not a boolean");
        return v->text == "true";
    }

    std::vector<std::string> strings(std::string_view name) const {
        std::vector<std::string> out;
        const jr::Value* v = find(name);
        if (!v)
            return out;
        if (v->type != jr::Type::Array)
            throw Problem(std::string(name) + " is not an array");
        for (const auto& element : jr::elements(v->text)) {
            if (element.type != jr::Type::String)
                throw Problem(std::string(name) + " holds something other than strings");
            out.push_back(jr::text(element));
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
        const jr::Value* v = find("advice");
        if (!v)
            return std::nullopt;
        if (v->type != jr::Type::Object)
            throw Problem("advice is not an object");
        const Fields inner(jr::members(v->text));
        Advice advice;
        if (const jr::Value* r = inner.find("reconnect")) {
            if (r->type != jr::Type::String)
                throw Problem("advice.reconnect is not a string");
            advice.reconnect = jr::text(*r);
        }
        advice.interval = inner.milliseconds("interval");
        advice.timeout = inner.milliseconds("timeout");
        return advice;
    }

    std::string ext() const {
        const jr::Value* v = find("ext");
        if (!v)
            return {};
        if (v->type != jr::Type::Object)
            throw Problem("ext is not an object");
        return std::string(v->text);
    }

    // The source text, as the peer wrote it: re-serializing would cost time and could make
    // numbers drift on each hop.
    std::string data(bool required) const {
        const jr::Value* v = find("data");
        if (!v) {
            if (required)
                throw Problem("missing data");
            return {};
        }
        return std::string(jr::source(*v));
    }

  private:
    // Owns the members of a nested object.
    explicit Fields(std::vector<jr::Member>&& members)
        : owned_(std::move(members)), members_(owned_) {
        index();
    }

    void index() {
        for (const auto& member : members_) {
            const std::size_t slot =
                member.keyEscaped ? slotOf(jr::unescape(member.key)) : slotOf(member.key);
            if (slot < kKnownCount)
                slots_[slot] = &member.value;
        }
    }

    std::string firstSubscription(bool required) const {
        const jr::Value* v = find("subscription");
        if (!v) {
            if (required)
                throw Problem("missing subscription");
            return {};
        }
        if (v->type == jr::Type::String)
            return jr::text(*v);
        if (v->type == jr::Type::Array) {
            const auto array = jr::elements(v->text);
            for (const auto& element : array)
                if (element.type != jr::Type::String)
                    throw Problem("subscription holds something other than strings");
            if (!array.empty())
                return jr::text(array.front());
            if (required)
                throw Problem("subscription is an empty array");
            return {};
        }
        throw Problem("subscription is neither a string nor an array");
    }

    std::int64_t milliseconds(std::string_view name) const {
        const jr::Value* v = find(name);
        if (!v)
            return -1;
        if (v->type != jr::Type::Number)
            throw Problem("advice." + std::string(name) + " is not a number");
        const jr::Number n = jr::number(v->text);
        if (n.kind == jr::Number::Kind::Int64)
            return n.i < 0 ? -1 : n.i;
        if (n.kind == jr::Number::Kind::UInt64)
            return static_cast<std::int64_t>(std::min<std::uint64_t>(n.u, INT64_MAX));
        if (!(n.d >= 0))
            return -1;
        if (n.d >= 9.2e18)
            return INT64_MAX;
        return static_cast<std::int64_t>(n.d);
    }

    const std::vector<jr::Member> owned_;
    const std::vector<jr::Member>& members_;
    // One past the last slot stays null: it answers every unknown name.
    const jr::Value* slots_[kKnownCount + 1] = {};
};

// Fields every message may carry.
void readCommon(const Fields& fields, BayeuxMessage& message) {
    message.setId(fields.id());
    message.setClientId(fields.string("clientId"));
    message.setExt(fields.ext());
    if (auto advice = fields.advice())
        message.setAdvice(std::move(*advice));
}

std::unique_ptr<BayeuxMessage> decodeServerMessage(const Fields& fields) {
    std::string channel = fields.channel();
    std::unique_ptr<BayeuxMessage> message;
    if (fields.has("successful")) {
        std::unique_ptr<BayeuxResponse> response;
        // Answers to publishes are most of them; the meta names are compared only for meta.
        if (!isMetaChannel(channel)) {
            response = std::make_unique<PublishResponse>(std::move(channel));
        } else if (channel == meta::handshake) {
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
            response = std::make_unique<PublishResponse>(std::move(channel));
        }
        response->setSuccessful(fields.boolean("successful"));
        response->setError(fields.string("error"));
        message = std::move(response);
    } else if (!isMetaChannel(channel) && fields.has("data")) {
        auto publish = std::make_unique<PublishRequest>();
        publish->setChannel(std::move(channel));
        publish->setJson(fields.data(true));
        publish->setDataValidated();
        message = std::move(publish);
    } else if (isMetaChannel(channel)) {
        throw Problem("message on " + channel + " has no successful field");
    } else {
        throw Problem("message on " + channel + " has neither successful nor data");
    }
    readCommon(fields, *message);
    return message;
}

std::unique_ptr<BayeuxMessage> decodeClientMessage(const Fields& fields) {
    std::string channel = fields.channel();
    std::unique_ptr<BayeuxMessage> message;
    if (!isMetaChannel(channel)) {
        auto publish = std::make_unique<PublishRequest>();
        publish->setJson(fields.data(true));
        publish->setDataValidated();
        publish->setChannel(std::move(channel));
        message = std::move(publish);
    } else if (channel == meta::handshake) {
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
    } else {
        throw Problem("unknown meta channel " + channel);
    }
    readCommon(fields, *message);
    return message;
}

using ElementDecoder = std::unique_ptr<BayeuxMessage> (*)(const Fields&);

// What an undecodable message said of itself: its channel and id where they have a readable
// form, so that the answer to it can name them.
DecodeError elementError(const Fields& fields, std::size_t index, std::string reason) {
    DecodeError error{index, {}, {}, std::move(reason)};
    if (const jr::Value* channel = fields.find("channel");
        channel && channel->type == jr::Type::String)
        error.channel = jr::text(*channel);
    try {
        error.id = fields.id();
    } catch (const Problem&) {
        // An id of another type is left out of the answer.
    }
    return error;
}

// Errors kept of one frame, beyond which they are only counted: a frame of thousands of bad
// elements would otherwise cost an error, and a log line, for each.
struct ErrorBudget {
    std::size_t most;
    std::size_t leftOut = 0;

    void add(Decoded& out, DecodeError error) {
        if (out.errors.size() < most)
            out.errors.push_back(std::move(error));
        else
            ++leftOut;
    }
};

void decodeElement(const std::vector<jr::Member>& members, std::size_t index,
                   ElementDecoder decoder, Decoded& out, ErrorBudget& budget) {
    const Fields fields(members);
    try {
        out.messages.push_back(decoder(fields));
    } catch (const Problem& problem) {
        budget.add(out, elementError(fields, index, problem.what()));
    }
}

DecodeError frameError(std::string reason) {
    return DecodeError{std::nullopt, {}, {}, std::move(reason)};
}

// One pass over the frame: each element is checked and decoded as it is read. Text that turns
// out not to be JSON further on voids the whole frame, as if nothing had been decoded.
Decoded decodeFrame(std::string_view frame, ElementDecoder decoder, std::size_t maxMessages,
                    std::size_t maxErrors) {
    Decoded out;
    ErrorBudget budget{maxErrors};
    if (frame.size() > kMaxFrameBytes) {
        out.errors.push_back(frameError("frame of " + std::to_string(frame.size()) +
                                        " bytes exceeds the limit of " +
                                        std::to_string(kMaxFrameBytes)));
        return out;
    }
    try {
        jr::Reader reader(frame, kMaxDepth);
        std::vector<jr::Member> members;
        members.reserve(16);
        const char first = reader.peek();
        if (first == '[') {
            reader.expect('[');
            if (reader.peek() == ']') {
                reader.expect(']');
            } else {
                for (std::size_t index = 0;; ++index) {
                    if (index == maxMessages) {
                        // Refused whole, before decoding the rest of it.
                        out.messages.clear();
                        out.errors.clear();
                        out.errors.push_back(frameError("frame of more than " +
                                                        std::to_string(maxMessages) + " messages"));
                        out.tooManyMessages = true;
                        return out;
                    }
                    if (reader.peek() == '{') {
                        reader.object(1, members);
                        decodeElement(members, index, decoder, out, budget);
                    } else {
                        reader.value(1);
                        budget.add(out, DecodeError{index, {}, {}, "not an object"});
                    }
                    if (reader.peek() != ',')
                        break;
                    reader.expect(',');
                }
                reader.expect(']');
            }
        } else if (first == '{') {
            reader.object(0, members);
            decodeElement(members, 0, decoder, out, budget);
        } else {
            reader.value(0);
            if (!reader.atEnd())
                reader.fail("text after the value");
            out.errors.push_back(frameError("frame is neither an array nor an object"));
            return out;
        }
        if (!reader.atEnd())
            reader.fail("text after the value");
        if (budget.leftOut > 0)
            out.errors.push_back(
                frameError(std::to_string(budget.leftOut) + " more messages could not be decoded"));
    } catch (const jr::SyntaxError& e) {
        out.messages.clear();
        out.errors.clear();
        out.errors.push_back(frameError(std::string("invalid JSON: ") + e.what()));
    } catch (const std::exception& e) {
        // Only allocation failure gets here; what decoded so far is kept.
        out.errors.push_back(frameError(std::string("cannot decode frame: ") + e.what()));
    }
    return out;
}

}  // namespace

std::string DecodeError::text() const {
    return index ? "message " + std::to_string(*index) + ": " + reason : reason;
}

Decoded decodeFromServer(std::string_view frame) {
    return decodeFrame(frame, &decodeServerMessage, SIZE_MAX, kMostServerErrors);
}

Decoded decodeFromClient(std::string_view frame, std::size_t maxMessages) {
    // Each error is answered, and the frame's size in messages is bounded already.
    return decodeFrame(frame, &decodeClientMessage, maxMessages, SIZE_MAX);
}

}  // namespace connector::bayeux::codec
