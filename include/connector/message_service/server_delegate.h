#pragma once
// The factory delegate of server services.

#include <memory>
#include <string>
#include <unordered_map>

#include "connector/bayeux/server.h"
#include "connector/common/mutex.h"
#include "connector/message_service/message_service.h"

namespace connector::message_service {

class MessageServiceServerImpl;

// Makes server services over one BayeuxServer. Ordinary instances are held weakly by name; the
// instance named "shared" is held strongly for as long as the delegate lives.
// `mutex_` also serialises creation.
//
// Thread safety: may be called from any thread at once; futures are returned already resolved.
class MessageServiceFactoryServerDelegate : public MessageServiceFactoryDelegate {
  public:
    explicit MessageServiceFactoryServerDelegate(std::shared_ptr<bayeux::BayeuxServer> server);
    ~MessageServiceFactoryServerDelegate() override;

    Future<std::shared_ptr<MessageService>> createMessageService(const std::string& name,
                                                                 const Options& options) override;
    std::shared_ptr<MessageService> getMessageService(const std::string& name) override;

  private:
    common::Mutex mutex_;
    std::shared_ptr<bayeux::BayeuxServer> bayeuxServer_;
    std::shared_ptr<MessageServiceServerImpl> sharedInstance_ ORVALE_GUARDED_BY(mutex_);
    std::unordered_map<std::string, std::weak_ptr<MessageServiceServerImpl>> instances_
        ORVALE_GUARDED_BY(mutex_);
};

}  // namespace connector::message_service
