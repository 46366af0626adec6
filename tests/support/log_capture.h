#pragma once
// Test helpers: a Boost.Log sink that records every record, and bounded waits.

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orvale::test {

struct CapturedRecord {
    std::string channel;
    int severity = 0;
    std::string message;
    std::string json;  // the Json attribute, empty when absent
};

// Adds a sink to the Boost.Log core for its lifetime and turns on every severity.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();

    std::vector<CapturedRecord> records() const;
    // Records whose message starts with `prefix`.
    std::vector<CapturedRecord> find(const std::string& prefix) const;
    std::size_t count(const std::string& prefix) const { return find(prefix).size(); }
    bool contains(const std::string& message) const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Polls `predicate` until it holds or `timeout` passes; returns its last value.
inline bool waitUntil(const std::function<bool()>& predicate,
                      std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return predicate();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace orvale::test
