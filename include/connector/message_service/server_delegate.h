#pragma once
// The factory delegate of server services.

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "connector/bayeux/server.h"
#include "connector/message_service/message_service.h"

namespace connector::message_service {

class MessageServiceServerImpl;

// Makes server services over one BayeuxServer. Ordinary instances are held weakly by name; the
// instance named "shared" is held strongly for as long as the delegate lives.
// `mutex_` guards sharedInstance_ and instances_ and serialises creation.
class MessageServiceFactoryServerDelegate : public MessageServiceFactoryDelegate {
  public:
    explicit MessageServiceFactoryServerDelegate(std::shared_ptr<bayeux::BayeuxServer> server);
    ~MessageServiceFactoryServerDelegate() override;

    Future<std::shared_ptr<MessageService>> createMessageService(const std::string& name,
                                                                 const Options& options) override;
    std::shared_ptr<MessageService> getMessageService(const std::string& name) override;

  private:
    std::mutex mutex_;
    std::shared_ptr<bayeux::BayeuxServer> bayeuxServer_;
    std::shared_ptr<MessageServiceServerImpl> sharedInstance_;
    std::unordered_map<std::string, std::weak_ptr<MessageServiceServerImpl>> instances_;
};

}  // namespace connector::message_service
