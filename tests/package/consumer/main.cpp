// A host application: one server service publishes, another receives.
#include <connector/message_service.h>

#include <chrono>
#include <iostream>

int main() {
    using namespace connector;
    using namespace connector::message_service;
    auto factory = std::make_shared<MessageServiceFactoryDelegatorImpl>(
        std::make_shared<MessageServiceFactoryServerDelegate>(bayeux::makeBayeuxServer()),
        std::make_shared<MessageServiceFactoryClientDelegate>(makeContext()));
    auto a = factory->createMessageService("a", {}).get();
    auto b = factory->createMessageService("b", {}).get();
    Promise<std::string> received;
    auto arrived = received.getFuture();
    auto handle = b->subscribe("/greeting", [&](const JsonMessage& m) {
                       received.setValue(m.getJson());
                   }).get();
    a->publish("/greeting", std::string("\"hello\"")).get();
    if (!arrived.waitFor(std::chrono::seconds(5)))
        return 1;
    const std::string json = arrived.get();
    std::cout << json << "\n";
    return json == "\"hello\"" ? 0 : 1;
}
