#pragma once
// How a client service comes back after losing its server: the options that turn reconnection
// on and bound its waits, the backoff between attempts, and what a server's answer asks for;
// how long a request may wait for its answer, and how many bytes of publishes may wait for theirs.
//
// Thread safety: plain functions and values; defaultReconnectClock() may be used from any thread.

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>

#include "connector/bayeux/messages.h"
#include "connector/message_service/client_impl.h"

namespace connector::message_service {

// Reads "reconnect" ("on" or "off"), "reconnect.initialDelayMs" and "reconnect.maxDelayMs".
// Throws std::invalid_argument naming the option when a value is not understood.
ReconnectSettings readReconnectSettings(const Options& options);

// Reads "request.timeoutMs", a whole number of milliseconds from 1; unset when absent. Throws
// std::invalid_argument naming the option when the value is not understood.
std::optional<std::chrono::milliseconds> readRequestTimeout(const Options& options);

// Reads "publish.maxPendingBytes", a whole number of bytes from 1; unset when absent. Throws
// std::invalid_argument naming the option when the value is not understood.
std::optional<std::size_t> readMaxPendingBytes(const Options& options);

// The ceiling of the wait before attempt `attempt` (from 0): initialDelay doubled per attempt,
// never above maxDelay. The wait itself is drawn below it (full jitter).
std::chrono::milliseconds backoffCeiling(const ReconnectSettings& settings, unsigned attempt);

// The process timer and a uniform draw from a generator seeded once per thread.
ReconnectClock defaultReconnectClock();

// True when `advice` tells the client not to come back.
inline bool advisesNone(const std::optional<bayeux::Advice>& advice) {
    return advice && advice->reconnect == "none";
}

// The numeric code that starts a Bayeux error text ("402::Unknown client" gives 402), or 0.
int bayeuxErrorCode(const std::string& error);

// A request answered with successful=false; what() names the message id and the server's error.
class BayeuxFailure : public std::runtime_error {
  public:
    BayeuxFailure(const std::string& text, const bayeux::BayeuxResponse& answer)
        : std::runtime_error(text),
          code_(bayeuxErrorCode(answer.getError())),
          advice_(answer.getAdvice()) {}
    int code() const { return code_; }
    const std::optional<bayeux::Advice>& advice() const { return advice_; }

  private:
    int code_;
    std::optional<bayeux::Advice> advice_;
};

}  // namespace connector::message_service
