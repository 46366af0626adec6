// Reconnection settings, backoff and the server's error codes.

#include "reconnect_policy.h"

#include <algorithm>
#include <cctype>
#include <random>
#include <stdexcept>

namespace connector::message_service {

namespace {

// The option `key` as a whole number from 1 of `unit`; unset when absent.
std::optional<long> readPositive(const Options& options, const std::string& key, const char* unit) {
    auto found = options.find(key);
    if (found == options.end())
        return std::nullopt;
    const std::string& text = found->second;
    const bool digits =
        !text.empty() && text.size() <= 9 &&
        std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
    if (!digits || std::stol(text) == 0)
        throw std::invalid_argument("Option " + key + " must be a whole number of " + unit +
                                    " from 1: " + text);
    return std::stol(text);
}

std::chrono::milliseconds readDelay(const Options& options, const std::string& key,
                                    std::chrono::milliseconds fallback) {
    const auto value = readPositive(options, key, "milliseconds");
    return value ? std::chrono::milliseconds(*value) : fallback;
}

}  // namespace

ReconnectSettings readReconnectSettings(const Options& options) {
    ReconnectSettings settings;
    auto found = options.find("reconnect");
    if (found != options.end() && found->second != "off") {
        if (found->second != "on")
            throw std::invalid_argument("Option reconnect must be on or off: " + found->second);
        settings.enabled = true;
    }
    settings.initialDelay = readDelay(options, "reconnect.initialDelayMs", settings.initialDelay);
    settings.maxDelay = readDelay(options, "reconnect.maxDelayMs", settings.maxDelay);
    if (settings.maxDelay < settings.initialDelay) {
        // A maximum alone below the default first wait lowers that wait too.
        if (options.count("reconnect.initialDelayMs"))
            throw std::invalid_argument(
                "Option reconnect.maxDelayMs must not be below reconnect.initialDelayMs");
        settings.initialDelay = settings.maxDelay;
    }
    return settings;
}

std::optional<std::chrono::milliseconds> readRequestTimeout(const Options& options) {
    if (const auto value = readPositive(options, "request.timeoutMs", "milliseconds"))
        return std::chrono::milliseconds(*value);
    return std::nullopt;
}

std::optional<std::size_t> readMaxPendingBytes(const Options& options) {
    if (const auto value = readPositive(options, "publish.maxPendingBytes", "bytes"))
        return static_cast<std::size_t>(*value);
    return std::nullopt;
}

std::chrono::milliseconds backoffCeiling(const ReconnectSettings& settings, unsigned attempt) {
    // Past 2^20 times the initial delay every ceiling is the maximum anyway.
    const auto doubled = settings.initialDelay * (std::int64_t{1} << std::min(attempt, 20u));
    return std::min(doubled, settings.maxDelay);
}

ReconnectClock defaultReconnectClock() {
    ReconnectClock clock;
    clock.schedule = [](std::function<void()> fn, std::chrono::milliseconds delay) {
        return common::delay([fn = std::move(fn)](std::int64_t) { fn(); }, delay.count());
    };
    clock.draw = [](std::chrono::milliseconds ceiling) {
        thread_local std::mt19937_64 generator{std::random_device{}()};
        std::uniform_int_distribution<std::int64_t> uniform(0, ceiling.count());
        return std::chrono::milliseconds(uniform(generator));
    };
    return clock;
}

int bayeuxErrorCode(const std::string& error) {
    int code = 0;
    for (std::size_t i = 0;
         i < error.size() && i < 3 && std::isdigit(static_cast<unsigned char>(error[i])); ++i)
        code = code * 10 + (error[i] - '0');
    return code;
}

}  // namespace connector::message_service
