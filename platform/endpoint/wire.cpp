// The hub's own Bayeux JSON: deliveries, error replies, and the API key of a handshake, the one
// place that parses JSON here.

#include "wire.h"

#include <boost/json/monotonic_resource.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

#include "bayeux/json_text.h"
#include "connector/bayeux/channel.h"

namespace connector::bayeux::endpoint {

namespace json = boost::json;

namespace {

// Parsing limits for the error paths; the frame size is already bounded by the connection.
json::parse_options parseOptions() {
    json::parse_options options;
    options.max_depth = codec::kMaxDepth;
    return options;
}

std::string_view view(const json::string& s) {
    return std::string_view(s.data(), s.size());
}

bool isKnownMetaChannel(std::string_view channel) {
    return channel == meta::handshake || channel == meta::connect || channel == meta::disconnect ||
           channel == meta::subscribe || channel == meta::unsubscribe;
}

}  // namespace

void FrameBuilder::append(FrameBuilder& other) {
    if (other.count_ == 0)
        return;
    if (count_ != 0)
        text_.push_back(',');
    text_.append(other.text_, 1, std::string::npos);
    count_ += other.count_;
    other.text_.resize(1);
    other.count_ = 0;
}

std::string FrameBuilder::close(std::string spare) {
    text_.push_back(']');
    std::string frame = std::move(text_);
    text_ = std::move(spare);
    text_.assign(1, '[');
    count_ = 0;
    return frame;
}

void FrameBuilder::trim(std::size_t keep) {
    if (text_.capacity() > keep)
        text_.shrink_to_fit();
}

void appendDelivery(FrameBuilder& frame, const PublishRequest& request) {
    std::string& out = frame.next();
    out.append("{\"channel\":");
    codec::appendQuoted(out, request.getChannel());
    out.append(",\"data\":");
    const std::string& data = request.getJson();
    out.append(data.empty() ? std::string_view("null") : std::string_view(data));
    out.push_back('}');
}

void appendMessage(FrameBuilder& frame, const BayeuxMessage& message) {
    codec::encodeInto(message, frame.next());
}

namespace {

// Opens a reply object with its channel and id members, each left out when empty.
std::string& beginReply(FrameBuilder& frame, std::string_view channel, std::string_view id) {
    std::string& out = frame.next();
    out.push_back('{');
    if (!channel.empty()) {
        out.append("\"channel\":");
        codec::appendQuoted(out, channel);
        out.push_back(',');
    }
    if (!id.empty()) {
        out.append("\"id\":");
        codec::appendQuoted(out, id);
        out.push_back(',');
    }
    return out;
}

}  // namespace

void appendPublishAck(FrameBuilder& frame, std::string_view channel, std::string_view id) {
    beginReply(frame, channel, id).append("\"successful\":true}");
}

void appendErrorReply(FrameBuilder& frame, std::string_view channel, std::string_view id,
                      std::string_view error, const Advice* advice) {
    std::string& out = beginReply(frame, channel, id);
    out.append("\"successful\":false,\"error\":");
    codec::appendQuoted(out, error);
    if (advice) {
        out.append(",\"advice\":{");
        bool first = true;
        if (!advice->reconnect.empty()) {
            out.append("\"reconnect\":");
            codec::appendQuoted(out, advice->reconnect);
            first = false;
        }
        if (advice->interval >= 0) {
            out.append(first ? "" : ",").append("\"interval\":");
            out.append(std::to_string(advice->interval));
            first = false;
        }
        if (advice->timeout >= 0) {
            out.append(first ? "" : ",").append("\"timeout\":");
            out.append(std::to_string(advice->timeout));
        }
        out.push_back('}');
    }
    out.push_back('}');
}

std::string apiKeyOf(std::string_view ext) {
    if (ext.empty())
        return {};
    json::error_code ec;
    unsigned char initial[1024];
    json::monotonic_resource arena(initial, sizeof initial);
    json::value value = json::parse(json::string_view(ext.data(), ext.size()), ec,
                                    json::storage_ptr(&arena), parseOptions());
    if (ec || !value.is_object())
        return {};
    const json::value* key = value.get_object().if_contains("orvapikey");
    if (!key || !key->is_string())
        return {};
    return std::string(view(key->get_string()));
}

void appendDecodeFailures(FrameBuilder& out, const std::vector<codec::DecodeError>& errors) {
    for (const codec::DecodeError& error : errors) {
        const ChannelName channel(error.channel);
        if (!error.index)
            appendErrorReply(out, {}, {}, "400::" + error.reason);
        else if (channel.isMeta() && !isKnownMetaChannel(error.channel))
            appendErrorReply(out, error.channel, error.id,
                             "403:" + error.channel + ":Forbidden channel");
        else if (!error.channel.empty() && !channel.isValid())
            appendErrorReply(out, error.channel, error.id,
                             "405:" + error.channel + ":Invalid channel");
        else
            appendErrorReply(out, error.channel, error.id, "400::" + error.reason);
    }
}

}  // namespace connector::bayeux::endpoint
