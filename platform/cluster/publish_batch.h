#pragma once
// Publishes as they travel between cluster members, a batch of them on one channel:
//
//   batch   := field(channel) { message }
//   message := field(id) field(clientId) field(ext) field(data)
//   field   := decimal length ":" bytes
//
// Only the member that accepted a publish from its client reads its JSON; the others take the
// fields apart by their lengths and splice the data into their deliveries as it came. Members
// trust each other's bytes: whoever may publish on the cluster's NATS subjects is a member.
//
// Thread safety: pure functions; any thread.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "connector/bayeux/messages.h"

namespace connector::bayeux::cluster {

// Starts a batch on `channel` in `out`, which is cleared.
void startBatch(std::string_view channel, std::string& out);
// Adds a publish on the batch's channel.
void appendToBatch(const PublishRequest& publish, std::string& out);

// The publishes of a batch; nothing when `text` is not a batch on a channel that can be
// published to (a broadcast channel, not a pattern).
std::optional<std::vector<std::shared_ptr<PublishRequest>>> readBatch(std::string_view text);

}  // namespace connector::bayeux::cluster
