#pragma once
// Runs the subscription callbacks of one delivered message, one after another, each under a
// 100 ms watchdog that reports a callback which may be deadlocked. Exceptions from callbacks are
// logged and never stop the next callback.

#include <memory>
#include <string>

#include "connector/log/diagnostic_logger.h"
#include "connector/message_service/subscription.h"

namespace connector::message_service {

struct CallbackLoggers {
    const foundation::log::basic_diagnostic_logger<char>* instance;
    // Also told about slow callbacks when set.
    const foundation::log::basic_diagnostic_logger<char>* module;
};

template <class Holders>
void runSubscriptionCallbacks(const Holders& holders, const JsonMessage& message,
                              const CallbackLoggers& loggers);

// One callback under its watchdog; used by runSubscriptionCallbacks.
void runSubscriptionCallback(const SubscriptionHolder& holder, const JsonMessage& message,
                             const CallbackLoggers& loggers);

template <class Holders>
void runSubscriptionCallbacks(const Holders& holders, const JsonMessage& message,
                              const CallbackLoggers& loggers) {
    for (const auto& holder : holders)
        runSubscriptionCallback(*holder, message, loggers);
}

}  // namespace connector::message_service
