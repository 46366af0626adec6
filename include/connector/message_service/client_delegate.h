#pragma once
// The factory delegate of client services. An instance enters the registry only once its
// first connection has succeeded; the registry holds instances weakly.
//
// `mutex_` serialises creation and lookups and is held while a new instance starts
// connecting. `instancesMutex_` guards `instances_` alone, so that a connection completing on
// the transport thread (or at once, inside the create call) can register its instance without
// waiting for `mutex_`.

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "connector/core.h"
#include "connector/message_service/message_service.h"

namespace connector::message_service {

class MessageServiceFactoryClientDelegate
    : public MessageServiceFactoryDelegate,
      public std::enable_shared_from_this<MessageServiceFactoryClientDelegate> {
  public:
    explicit MessageServiceFactoryClientDelegate(std::shared_ptr<Connector> connector);
    explicit MessageServiceFactoryClientDelegate(std::shared_ptr<Context> context);
    // Disconnects every live instance, waiting at most 200 ms for each.
    ~MessageServiceFactoryClientDelegate() override;

    // Throws std::invalid_argument when the options have no "endpoint".
    Future<std::shared_ptr<MessageService>> createMessageService(const std::string& name,
                                                                 const Options& options) override;
    std::shared_ptr<MessageService> getMessageService(const std::string& name) override;

  private:
    std::mutex mutex_;
    const Address transportAddress_;
    const std::shared_ptr<Context> context_;
    std::mutex instancesMutex_;
    std::unordered_map<std::string, std::weak_ptr<MessageService>> instances_;
};

}  // namespace connector::message_service
