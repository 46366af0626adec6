#include "connector/message_service/callback_runner.h"

#include "connector/common/delay.h"

namespace connector::message_service {

namespace log = foundation::log;

namespace {

constexpr std::int64_t kWatchdogMs = 100;

// What a watchdog reports. It lives on the delivering thread's stack, which outlives the
// watchdog because cancelling a timer waits for a callback that is already running.
struct Watched {
    const SubscriptionHolder* holder;
    const JsonMessage* message;
    const CallbackLoggers* loggers;
};

void warnSlowCallback(const Watched& watched) {
    const std::string type = log::demangle(watched.holder->callback.target_type().name());
    const auto& channel = watched.message->getChannel();
    const auto& json = watched.message->getJson();
    static constexpr const char* text =
        "Callback took longer than expected, it may be deadlocked: ";
    if (watched.loggers->module)
        watched.loggers->module->log(log::warning, text, channel, ", json: ", json, ", ", type);
    watched.loggers->instance->log(log::warning, text, channel, ", json: ", json, ", ", type);
}

}  // namespace

void runSubscriptionCallback(const SubscriptionHolder& holder, const JsonMessage& message,
                             const CallbackLoggers& loggers) {
    const Watched watched{&holder, &message, &loggers};
    common::TickManager::Canceller watchdog =
        common::delay([w = &watched](std::int64_t) { warnSlowCallback(*w); }, kWatchdogMs);
    const auto& logger = *loggers.instance;
    if (logger.enabled(log::trace))
        logger.log(log::trace, "Executing callback for channel: ", message.getChannel(),
                   ", json: ", message.getJson());
    try {
        holder.callback(message);
    } catch (const std::exception& e) {
        logger.log(log::warning,
                   "Caught exception from subscription callback: ", message.getChannel(), ", ",
                   e.what());
    } catch (...) {
        logger.log(log::warning,
                   "Caught unknown exception from subscription callback: ", message.getChannel());
    }
    watchdog.cancel();
}

}  // namespace connector::message_service
