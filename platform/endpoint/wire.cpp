// The hub's own Bayeux JSON: deliveries, error replies and what is read back from a frame the
// codec refused. Parsing here happens only on error paths and for handshakes.

#include "wire.h"

#include <boost/json/monotonic_resource.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <charconv>

#include "../bayeux/json_text.h"
#include "bayeux/codec.h"

namespace connector::bayeux::endpoint {

namespace json = boost::json;

namespace {

// Parsing limits for the error paths; the frame size is already bounded by the connection.
json::parse_options parseOptions() {
    json::parse_options options;
    options.max_depth = 64;
    return options;
}

std::string_view view(const json::string& s) {
    return std::string_view(s.data(), s.size());
}

bool isKnownMetaChannel(std::string_view channel) {
    return channel == meta::handshake || channel == meta::connect || channel == meta::disconnect ||
           channel == meta::subscribe || channel == meta::unsubscribe;
}

// "message 3: missing data" -> index 3 and "missing data"; false for problems of a whole frame.
bool splitProblem(std::string_view problem, std::size_t& index, std::string_view& text) {
    constexpr std::string_view prefix = "message ";
    if (problem.substr(0, prefix.size()) != prefix)
        return false;
    const char* first = problem.data() + prefix.size();
    const char* last = problem.data() + problem.size();
    auto result = std::from_chars(first, last, index);
    if (result.ec != std::errc() || result.ptr + 2 > last || result.ptr[0] != ':')
        return false;
    text = std::string_view(result.ptr + 2, static_cast<std::size_t>(last - result.ptr - 2));
    return true;
}

std::string idText(const json::value* id) {
    if (!id)
        return {};
    if (id->is_string())
        return std::string(view(id->get_string()));
    if (id->is_int64())
        return std::to_string(id->get_int64());
    if (id->is_uint64())
        return std::to_string(id->get_uint64());
    return {};
}

void appendElementFailure(FrameBuilder& out, const json::value* element, std::string_view problem) {
    std::string channel;
    std::string id;
    if (element && element->is_object()) {
        const json::object& object = element->get_object();
        if (const json::value* c = object.if_contains("channel"); c && c->is_string())
            channel = std::string(view(c->get_string()));
        id = idText(object.if_contains("id"));
    }
    if (!channel.empty() && isMetaChannel(channel) && !isKnownMetaChannel(channel)) {
        appendErrorReply(out, channel, id, "403:" + channel + ":Forbidden channel");
    } else if (!channel.empty() && !isValidChannel(channel, true)) {
        appendErrorReply(out, channel, id, "405:" + channel + ":Invalid channel");
    } else {
        appendErrorReply(out, channel, id, "400::" + std::string(problem));
    }
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

void appendDecodeFailures(FrameBuilder& out, std::string_view frame,
                          const std::vector<std::string>& problems) {
    if (problems.empty())
        return;
    json::error_code ec;
    json::value root = json::parse(json::string_view(frame.data(), frame.size()), ec,
                                   json::storage_ptr(), parseOptions());
    for (const std::string& problem : problems) {
        std::size_t index = 0;
        std::string_view text;
        if (ec || !splitProblem(problem, index, text)) {
            appendErrorReply(out, {}, {}, "400::" + problem);
            continue;
        }
        const json::value* element = nullptr;
        if (root.is_array() && index < root.get_array().size())
            element = &root.get_array()[index];
        else if (root.is_object() && index == 0)
            element = &root;
        appendElementFailure(out, element, text);
    }
}

bool isMetaChannel(std::string_view channel) {
    return channel == "/meta" || channel.substr(0, 6) == "/meta/";
}

bool isValidChannel(std::string_view channel, bool wildcards) {
    if (channel.size() < 2 || channel[0] != '/')
        return false;
    std::size_t start = 1;
    while (true) {
        const std::size_t slash = channel.find('/', start);
        const bool last = slash == std::string_view::npos;
        const std::string_view segment =
            channel.substr(start, last ? std::string_view::npos : slash - start);
        if (segment.empty())
            return false;
        if (segment.find('*') != std::string_view::npos) {
            if (!wildcards || !last || (segment != "*" && segment != "**"))
                return false;
        }
        if (last)
            return true;
        start = slash + 1;
    }
}

}  // namespace connector::bayeux::endpoint
