#include "common/channel_rules.h"

#include <algorithm>
#include <regex>

#include "connector/bayeux/channel.h"

namespace connector::message_service {

namespace {

// Compiled once at load, read concurrently afterwards.
const std::regex nameExpression("^[a-zA-Z0-9\\-_:]+$");
const std::regex patternExpression("^(/[a-zA-Z0-9\\-_:]+)*(/\\*{1,2})?$");

bool isSegmentChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == ':';
}

// At least two characters, a leading slash and no trailing slash.
bool hasSharedShape(const std::string& channel) {
    return channel.size() >= 2 && channel.front() == '/' && channel.back() != '/';
}

}  // namespace

bool isValidName(const std::string& name) {
    return std::regex_match(name, nameExpression);
}

bool isValidChannelPattern(const std::string& channel) {
    return !channel.empty() && std::regex_match(channel, patternExpression);
}

bool isValidPublishChannel(const std::string& channel) {
    // A well-formed concrete channel whose segments hold only the name alphabet.
    const bayeux::ChannelName name(channel);
    if (!name.isValid() || name.isPattern())
        return false;
    for (std::string_view segment : name.segments())
        if (!std::all_of(segment.begin(), segment.end(), isSegmentChar))
            return false;
    return true;
}

bool isValidSharedPublishChannel(const std::string& channel) {
    return hasSharedShape(channel) && channel.find('*') == std::string::npos;
}

bool isValidSharedChannelPattern(const std::string& channel) {
    if (!hasSharedShape(channel))
        return false;
    const auto star = channel.find('*');
    if (star == std::string::npos || star == channel.size() - 1)
        return true;
    return star == channel.size() - 2 && channel.back() == '*';
}

std::string toWireChannel(const std::string& channel) {
    return kWirePrefix + channel;
}

}  // namespace connector::message_service
