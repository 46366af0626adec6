#include "subjects.h"

#include "connector/bayeux/channel.h"

namespace connector::bayeux::cluster {

namespace {

constexpr char kHex[] = "0123456789ABCDEF";

bool needsEscape(unsigned char c) {
    return c <= ' ' || c >= 0x7f || c == '.' || c == '*' || c == '>' || c == '%';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

}  // namespace

std::optional<std::string> subjectOf(std::string_view prefix, std::string_view channel) {
    std::string subject;
    if (!subjectOf(prefix, channel, subject))
        return std::nullopt;
    return subject;
}

bool subjectOf(std::string_view prefix, std::string_view channel, std::string& subject) {
    const ChannelName name(channel);
    if (!name.isValid())
        return false;
    subject.assign(prefix);
    const auto segments = name.segments();
    for (auto it = segments.begin(); it != segments.end(); ++it) {
        subject.push_back('.');
        if (it.last() && name.isPattern()) {
            subject.push_back(name.wildcard() == ChannelName::Wildcard::one ? '*' : '>');
            break;
        }
        for (const char c : *it) {
            const auto byte = static_cast<unsigned char>(c);
            if (!needsEscape(byte)) {
                subject.push_back(c);
                continue;
            }
            subject.push_back('%');
            subject.push_back(kHex[byte >> 4]);
            subject.push_back(kHex[byte & 15]);
        }
        if (subject.size() > kLongestSubject)
            return false;
    }
    return subject.size() <= kLongestSubject;
}

std::optional<std::string> channelOf(std::string_view prefix, std::string_view subject) {
    if (subject.size() <= prefix.size() + 1 || subject.compare(0, prefix.size(), prefix) != 0 ||
        subject[prefix.size()] != '.')
        return std::nullopt;
    std::string channel;
    channel.reserve(subject.size() - prefix.size());
    for (std::size_t i = prefix.size(); i < subject.size(); ++i) {
        const char c = subject[i];
        if (c == '.') {
            channel.push_back('/');
        } else if (c == '%') {
            const int high = i + 2 < subject.size() ? hexValue(subject[i + 1]) : -1;
            const int low = high >= 0 ? hexValue(subject[i + 2]) : -1;
            if (low < 0)
                return std::nullopt;
            channel.push_back(static_cast<char>(high << 4 | low));
            i += 2;
        } else if (needsEscape(static_cast<unsigned char>(c))) {
            return std::nullopt;
        } else {
            channel.push_back(c);
        }
    }
    const ChannelName name(channel);
    if (!name.isValid() || name.isPattern())
        return std::nullopt;
    return channel;
}

}  // namespace connector::bayeux::cluster
