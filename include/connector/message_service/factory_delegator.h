#pragma once
// The entry point: finds existing services by name, validates names, applies the options
// mappings and hands creation to the client delegate (when the options name an "endpoint") or to
// the server delegate.
//
// `mutex_` also serialises creation; it is held across the call into a delegate, so delegates
// must never call back into the delegator.
//
// Thread safety: may be called from any thread at once; the returned future resolves on the
// thread the delegate resolves it on.

#include <memory>
#include <string>
#include <vector>

#include "connector/common/mutex.h"
#include "connector/message_service/message_service.h"

namespace connector::message_service {

class MessageServiceFactoryDelegatorImpl
    : public MessageServiceFactory,
      public std::enable_shared_from_this<MessageServiceFactoryDelegatorImpl> {
  public:
    MessageServiceFactoryDelegatorImpl(
        std::shared_ptr<MessageServiceFactoryDelegate> serverDelegate,
        std::shared_ptr<MessageServiceFactoryDelegate> clientDelegate);
    ~MessageServiceFactoryDelegatorImpl() override;

    Future<std::shared_ptr<MessageService>> createMessageService(const std::string& name,
                                                                 const Options& options) override;
    std::shared_ptr<MessageService> getMessageService(const std::string& name) override;
    void setFactoryOptionsMappings(std::vector<OptionsMapping> mappings) override;
    std::vector<OptionsMapping> getFactoryOptionsMappings() override;

  private:
    common::Mutex mutex_;
    std::shared_ptr<MessageServiceFactoryDelegate> serverDelegate_;
    std::shared_ptr<MessageServiceFactoryDelegate> clientDelegate_;
    std::vector<OptionsMapping> optionsMappings_ ORVALE_GUARDED_BY(mutex_);
};

// Checks a service name; returns an empty exception pointer when it is valid.
std::exception_ptr checkServiceName(const std::string& name);

}  // namespace connector::message_service
