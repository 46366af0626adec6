#pragma once
// Collects what a subscription receives, from whichever thread delivers it, as
// "<channel> <json>" lines, state changes as "FROM->TO" lines, or any line a test adds.

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "connector/message_service/types.h"

namespace orvale::test {

class Inbox {
  public:
    std::function<void(const connector::message_service::JsonMessage&)> sink() {
        return [this](const connector::message_service::JsonMessage& m) {
            add(m.getChannel() + " " + m.getJson());
        };
    }
    std::function<void(const connector::message_service::StateChangeEvent&)> stateSink() {
        return [this](const connector::message_service::StateChangeEvent& e) {
            add(std::string(toString(e.previousState)) + "->" + toString(e.newState));
        };
    }
    void add(std::string item) {
        std::lock_guard<std::mutex> lock(mutex_);
        items_.push_back(std::move(item));
    }
    std::vector<std::string> snapshot() {
        std::lock_guard<std::mutex> lock(mutex_);
        return items_;
    }
    std::size_t size() { return snapshot().size(); }
    bool has(const std::string& item) {
        const auto items = snapshot();
        return std::find(items.begin(), items.end(), item) != items.end();
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> items_;
};

}  // namespace orvale::test
