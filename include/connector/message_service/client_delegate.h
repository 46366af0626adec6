#pragma once
// The factory delegate of client services. An instance enters the registry only once its
// first connection has succeeded; the registry holds instances weakly.
//
// `mutex_` serialises creation and lookups and is held while a new instance starts
// connecting. `instances_` has a mutex of its own, so that a connection completing on the
// transport thread (or at once, inside the create call) can register its instance without
// waiting for `mutex_`.
//
// Thread safety: may be called from any thread at once; a created service's future resolves on
// the transport's thread, or on the calling thread when the connection completes at once.

#include <memory>
#include <string>
#include <unordered_map>

#include "connector/common/mutex.h"
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
    common::Mutex mutex_;
    const Address transportAddress_;
    const std::shared_ptr<Context> context_;
    common::Mutex instancesMutex_ ORVALE_ACQUIRED_AFTER(mutex_);
    std::unordered_map<std::string, std::weak_ptr<MessageService>> instances_
        ORVALE_GUARDED_BY(instancesMutex_);
};

}  // namespace connector::message_service
