// One scan of a channel text: where its last segment starts, what it is, and whether every
// segment is well formed.

#include "connector/bayeux/channel.h"

namespace connector::bayeux {

namespace {

// Whether `text` is `root` or lies under it.
bool isUnder(std::string_view text, std::string_view root) {
    return text.substr(0, root.size()) == root &&
           (text.size() == root.size() || text[root.size()] == '/');
}

}  // namespace

ChannelName::ChannelName(std::string_view text) noexcept : text_(text) {
    lastSlash_ = text.rfind('/');
    const std::string_view last =
        lastSlash_ == std::string_view::npos ? text : text.substr(lastSlash_ + 1);
    if (last == "*")
        wildcard_ = Wildcard::one;
    else if (last == "**")
        wildcard_ = Wildcard::any;

    kind_ = kindOf(text);

    // Well formed: rooted, no empty segment, and a '*' only in the wildcard segment.
    valid_ = text.size() >= 2 && text.front() == '/' && text.back() != '/';
    const std::size_t starsFrom = isPattern() ? lastSlash_ : text.size();
    for (std::size_t i = 1; valid_ && i < text.size(); ++i) {
        if (text[i] == '/')
            valid_ = text[i - 1] != '/';
        else if (text[i] == '*')
            valid_ = i > starsFrom;
    }
}

ChannelName::Kind ChannelName::kindOf(std::string_view text) noexcept {
    if (isUnder(text, "/meta"))
        return Kind::meta;
    if (isUnder(text, "/service"))
        return Kind::service;
    return Kind::broadcast;
}

bool ChannelName::matches(const ChannelName& channel) const {
    if (channel.text_ == text_)
        return true;
    if (!isPattern())
        return false;
    // The pattern's text up to and including its last slash stands for the equal segments.
    const std::string_view prefix =
        lastSlash_ == std::string_view::npos ? std::string_view() : text_.substr(0, lastSlash_ + 1);
    if (channel.text_.substr(0, prefix.size()) != prefix)
        return false;
    const std::string_view rest = channel.text_.substr(prefix.size());
    return wildcard_ == Wildcard::any || rest.find('/') == std::string_view::npos;
}

}  // namespace connector::bayeux
