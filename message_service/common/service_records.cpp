#include "common/service_records.h"

#include <stdexcept>

#include "connector/message_service/message_service.h"

namespace connector::message_service {

namespace log = foundation::log;

TakenHolders takeHolders(SubscriptionTable& table, std::uint64_t id) {
    TakenHolders taken;
    for (auto entry = table.begin(); entry != table.end();) {
        auto& holders = entry->second;
        for (auto holder = holders.begin(); holder != holders.end();) {
            if ((*holder)->id == id) {
                taken.emplace_back(entry->first, std::move(*holder));
                holder = holders.erase(holder);
            } else {
                ++holder;
            }
        }
        entry = holders.empty() ? table.erase(entry) : std::next(entry);
    }
    return taken;
}

TakenHolders takeAllHolders(SubscriptionTable& table) {
    TakenHolders taken;
    for (auto& [channel, holders] : table)
        for (auto& holder : holders)
            taken.emplace_back(channel, std::move(holder));
    table.clear();
    return taken;
}

void notifyStateListeners(const std::vector<StateListenerRecord>& listeners,
                          ConnectionState previous, ConnectionState next,
                          const log::basic_diagnostic_logger<char>& logger) {
    const StateChangeEvent event{previous, next};
    for (const auto& listener : listeners) {
        try {
            listener.callback(event);
        } catch (const std::exception& e) {
            logger.log(log::error, "Error executing state change listener: ", previous, "->", next,
                       ", ", e.what());
        } catch (...) {
            logger.log(log::error, "Unknown error executing state change listener: ", previous,
                       "->", next);
        }
    }
}

std::optional<Future<PublishResult>> beginPublish(
    bool channelValid, const std::string& channel, MessageService& service,
    const log::basic_diagnostic_logger<char, log::json_tagger>& jsonLogger,
    const common::DataBuffer& data) {
    if (!channelValid)
        return makeFailedFuture<PublishResult>(
            std::invalid_argument("Channel is invalid: " + channel));
    if (service.getState() != ConnectionState::CONNECTED)
        return makeFailedFuture<PublishResult>(
            std::runtime_error("MessageService is not connected."));
    if (jsonLogger.enabled(log::trace))
        jsonLogger.log(log::trace, {{"operation", "Publish"}, {"channel", channel}},
                       data.toString());
    return std::nullopt;
}

}  // namespace connector::message_service
