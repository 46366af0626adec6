#pragma once
// Rules for service names and channels, and the mapping of application channels into the
// reserved "/orvale" part of the wire channel space.

#include <string>

namespace connector::message_service {

inline constexpr const char* kWirePrefix = "/orvale";
inline constexpr std::size_t kWirePrefixLength = 7;
// The server service whose channel checks are looser.
inline constexpr const char* kSharedServiceName = "shared";

// A service name: letters, digits, '-', '_' and ':' (the empty name is rejected by the caller).
bool isValidName(const std::string& name);
// A subscription pattern: segments of the name alphabet, optionally ending in /* or /**.
bool isValidChannelPattern(const std::string& channel);
// A concrete channel: like a pattern, without wildcards.
bool isValidPublishChannel(const std::string& channel);
// The looser checks of the service named "shared".
bool isValidSharedPublishChannel(const std::string& channel);
bool isValidSharedChannelPattern(const std::string& channel);
// "/orvale" + channel.
std::string toWireChannel(const std::string& channel);

}  // namespace connector::message_service
