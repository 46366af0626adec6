#pragma once
// Client message services for the program's commands, made the way hosts make them: through the
// factory delegator, with the "endpoint" option choosing the client delegate.

#include <chrono>
#include <memory>
#include <string>

#include "connector/message_service.h"

namespace orvale::app {

class ClientFactory {
  public:
    ClientFactory();
    // A service connected to the Bayeux endpoint at `url`, made with the `extra` options too;
    // Failure when it cannot connect within `timeout`.
    std::shared_ptr<connector::message_service::MessageService> connect(
        const std::string& name, const std::string& url, const std::string& apiKey = "",
        std::chrono::milliseconds timeout = std::chrono::seconds(10),
        const connector::message_service::Options& extra = {});
    // Starts connecting without waiting.
    connector::Future<std::shared_ptr<connector::message_service::MessageService>> start(
        const std::string& name, const std::string& url, const std::string& apiKey = "",
        const connector::message_service::Options& extra = {});

  private:
    std::shared_ptr<connector::bayeux::BayeuxServer> server_;  // the delegator's server side
    std::shared_ptr<connector::message_service::MessageServiceFactoryDelegatorImpl> delegator_;
};

// Waits at most `timeout` for `future`; Failure("<what>: <cause>") when it fails or is late.
template <class T>
T await(connector::Future<T>& future, std::chrono::milliseconds timeout, const std::string& what);

}  // namespace orvale::app
