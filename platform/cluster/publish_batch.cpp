#include "publish_batch.h"

#include <charconv>

#include "connector/bayeux/channel.h"

namespace connector::bayeux::cluster {

namespace {

void appendField(std::string_view bytes, std::string& out) {
    char digits[24];
    out.append(digits, std::to_chars(digits, digits + sizeof digits, bytes.size()).ptr);
    out += ':';
    out += bytes;
}

// Takes one field off the front of `rest`; false when it is not one.
bool takeField(std::string_view& rest, std::string_view& field) {
    std::size_t length = 0;
    const auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), length);
    const auto at = static_cast<std::size_t>(end - rest.data());
    if (ec != std::errc() || at == rest.size() || *end != ':' || length > rest.size() - at - 1)
        return false;
    field = rest.substr(at + 1, length);
    rest.remove_prefix(at + 1 + length);
    return true;
}

}  // namespace

void startBatch(std::string_view channel, std::string& out) {
    out.clear();
    appendField(channel, out);
}

void appendToBatch(const PublishRequest& publish, std::string& out) {
    appendField(publish.getId(), out);
    appendField(publish.getClientId(), out);
    appendField(publish.getExt(), out);
    appendField(publish.getJson(), out);
}

std::optional<std::vector<std::shared_ptr<PublishRequest>>> readBatch(std::string_view text) {
    std::string_view channel;
    if (!takeField(text, channel))
        return std::nullopt;
    const ChannelName name(channel);
    if (!name.isValid() || name.isMeta() || name.isService() || name.isPattern())
        return std::nullopt;
    std::vector<std::shared_ptr<PublishRequest>> out;
    std::string_view id, clientId, ext, data;
    while (!text.empty()) {
        if (!takeField(text, id) || !takeField(text, clientId) || !takeField(text, ext) ||
            !takeField(text, data))
            return std::nullopt;
        auto publish = std::make_shared<PublishRequest>();
        publish->setChannel(std::string(channel));
        publish->setId(std::string(id));
        publish->setClientId(std::string(clientId));
        publish->setExt(std::string(ext));
        publish->setJson(std::string(data));
        publish->setDataValidated();  // the sending member let only JSON go
        out.push_back(std::move(publish));
    }
    return out;
}

}  // namespace connector::bayeux::cluster
