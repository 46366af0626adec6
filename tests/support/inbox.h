#pragma once
// Collects what a subscription receives, from whichever thread delivers it, as
// "<channel> <json>" lines.

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "connector/message_service/types.h"

namespace orvale::test {

class Inbox {
  public:
    std::function<void(const connector::message_service::JsonMessage&)> sink() {
        return [this](const connector::message_service::JsonMessage& m) { add(m); };
    }
    void add(const connector::message_service::JsonMessage& m) {
        std::lock_guard<std::mutex> lock(mutex_);
        items_.push_back(m.getChannel() + " " + m.getJson());
    }
    std::vector<std::string> snapshot() {
        std::lock_guard<std::mutex> lock(mutex_);
        return items_;
    }
    std::size_t size() { return snapshot().size(); }

  private:
    std::mutex mutex_;
    std::vector<std::string> items_;
};

}  // namespace orvale::test
