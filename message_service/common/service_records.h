#pragma once
// The steps both kinds of service share on their registrations (the channel subscription table
// and the state-change listeners of subscription.h) and at the start of every publish.

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "connector/common/data_buffer.h"
#include "connector/future.h"
#include "connector/log/diagnostic_logger.h"
#include "connector/message_service/subscription.h"
#include "connector/message_service/types.h"

namespace connector::message_service {

// (wire channel, holder) pairs taken out of a table, in table order.
using TakenHolders = std::vector<std::pair<std::string, std::shared_ptr<SubscriptionHolder>>>;

// Takes every holder with `id` out of `table`, erasing keys that become empty.
TakenHolders takeHolders(SubscriptionTable& table, std::uint64_t id);
// Takes every holder out of `table`, which is empty afterwards.
TakenHolders takeAllHolders(SubscriptionTable& table);

// Calls each listener with one event; a listener that throws is logged and the others still run.
void notifyStateListeners(const std::vector<StateListenerRecord>& listeners,
                          ConnectionState previous, ConnectionState next,
                          const foundation::log::basic_diagnostic_logger<char>& logger);

class MessageService;

// The checks and the JSON-tagged record that every publish starts with, in that order: a failed
// future when the channel is invalid or the service is not connected, nothing when the publish
// may go on.
std::optional<Future<PublishResult>> beginPublish(
    bool channelValid, const std::string& channel, MessageService& service,
    const foundation::log::basic_diagnostic_logger<char, foundation::log::json_tagger>& jsonLogger,
    const common::DataBuffer& data);

}  // namespace connector::message_service
