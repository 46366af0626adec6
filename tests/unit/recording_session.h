#pragma once
// A session that records what a Bayeux server hands it, from any thread: each publish with the
// patterns it matched, and each subscription change as "+id pattern" or "-id pattern".

#include <algorithm>
#include <functional>
#include <mutex>
#include <thread>

#include "connector/bayeux/server.h"
#include "inbox.h"

namespace connector::bayeux {

struct Received {
    std::vector<std::string> patterns;  // as the server listed them, sorted
    std::string channel, json;
    std::thread::id thread;
    bool queued;  // passed to queuePublish rather than deliver
};

// `onPublish` runs inside deliver.
class RecordingSession : public BayeuxSession {
  public:
    explicit RecordingSession(std::string id) : id_(std::move(id)) {}

    std::shared_ptr<common::ContextState> getContext() override { return state_; }
    std::string getId() override { return id_; }
    void deliver(const std::shared_ptr<const UnsubscribeRequest>& request) override {
        announced.add("-" + request->getClientId() + " " + request->getChannel());
    }
    void deliver(const std::shared_ptr<const SubscribeRequest>& request) override {
        announced.add("+" + request->getClientId() + " " + request->getChannel());
    }
    void deliver(const std::vector<std::string>& patterns,
                 const std::shared_ptr<const PublishRequest>& request) override {
        if (onPublish)
            onPublish(*request);
        record(patterns, *request, false);
    }

    std::vector<Received> received() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }
    std::size_t count() const { return received().size(); }
    std::size_t count(const std::string& channel) const { return data(channel).size(); }
    std::vector<std::string> data(const std::string& channel) const {
        std::vector<std::string> out;
        for (const auto& r : received())
            if (r.channel == channel)
                out.push_back(r.json);
        return out;
    }

    std::function<void(const PublishRequest&)> onPublish;  // set before registration
    orvale::test::Inbox announced;                         // "+id pattern", "-id pattern"

  protected:
    void record(std::vector<std::string> patterns, const PublishRequest& request, bool queued) {
        std::sort(patterns.begin(), patterns.end());
        std::lock_guard<std::mutex> lock(mutex_);
        received_.push_back({std::move(patterns), request.getChannel(), request.getJson(),
                             std::this_thread::get_id(), queued});
    }

  private:
    const std::string id_;
    const std::shared_ptr<common::ContextState> state_ = std::make_shared<common::ContextState>();
    mutable std::mutex mutex_;  // guards received_
    std::vector<Received> received_;
};

}  // namespace connector::bayeux
