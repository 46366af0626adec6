#pragma once
// A hub in this process with a server service, for the interop tests whose peers talk with one.

#include "common.h"
#include "connector/message_service.h"
#include "inbox.h"

namespace orvale::test {

namespace ms = connector::message_service;
namespace bayeux = connector::bayeux;

// A hub in this process with a server service that answers what remote clients send: each
// message on /desk/in with {"echo":<its data>} on /desk/out.
class HubInProcess {
    // First, so that it outlives the listeners that a session ending at teardown still calls.
    Inbox heard_;

  public:
    explicit HubInProcess(bayeux::EndpointOptions options = {})
        : endpoint(bayeux::startBayeuxEndpoint(server, options)),
          url("ws://127.0.0.1:" + std::to_string(endpoint->port()) + "/bayeux") {
        std::weak_ptr<ms::MessageService> weak = desk;
        auto note = [this](const char* sign) {
            return [this, sign](const auto& event) { heard_.add(sign + event.getChannel()); };
        };
        auto echo = [this, weak](const ms::JsonMessage& m) {
            heard_.add("in " + m.getJson());
            if (auto self = weak.lock())
                self->publish("/desk/out", "{\"echo\":" + m.getJson() + "}");
        };
        subscriptions = {desk->subscribe("/desk/in", echo).get(),
                         desk->listenSubscribe("/desk/**", note("+")).get(),
                         desk->listenUnsubscribe("/desk/**", note("-")).get()};
    }
    std::string httpUrl() const { return "http" + url.substr(2); }
    bool heard(const std::string& item) { return heard_.has(item); }

    std::shared_ptr<bayeux::BayeuxServer> server = bayeux::makeBayeuxServer();
    std::unique_ptr<bayeux::BayeuxEndpoint> endpoint;
    std::string url;
    std::shared_ptr<ms::MessageServiceFactoryServerDelegate> services =
        std::make_shared<ms::MessageServiceFactoryServerDelegate>(server);
    std::shared_ptr<ms::MessageService> desk = services->createMessageService("desk", {}).get();
    std::vector<std::shared_ptr<ms::Subscription>> subscriptions;
};

}  // namespace orvale::test
