// The client delegate of the factory: it creates client services, and registers only those
// that connected.

#include "connector/message_service/client_delegate.h"

#include "client_fixture.h"

namespace connector::message_service {
namespace {

TEST_F(ClientTest, DelegateRegistersConnectedInstancesOnlyAndReportsFailures) {
    auto delegate = std::make_shared<MessageServiceFactoryClientDelegate>(context);
    EXPECT_EQ(failureText(delegate->createMessageService("a b", {{"endpoint", "ws://x"}})),
              "Message service name must be alpha numeric ([_:-] also allowed): a b");
    EXPECT_THROW(delegate->createMessageService("shared", {}), std::invalid_argument);

    auto creating = delegate->createMessageService("shared", {{"endpoint", "ws://test/bayeux"}});
    ASSERT_TRUE(transport->waitSent(1));
    EXPECT_EQ(delegate->getMessageService("shared"), nullptr)
        << "not registered before it connects";
    handshakeAt(0);
    auto service = creating.get();
    EXPECT_EQ(delegate->getMessageService("shared"), service);
    EXPECT_EQ(delegate->createMessageService("shared", {{"endpoint", "ws://other"}}).get(),
              service);

    // Destroying the delegate disconnects live instances without waiting long for an answer.
    const auto start = std::chrono::steady_clock::now();
    delegate.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(service->getState(), ConnectionState::DISCONNECTING);

    std::make_shared<ScriptedTransport>()->install(*context,
                                                   "Cannot connect to ws://x: Connection refused");
    delegate = std::make_shared<MessageServiceFactoryClientDelegate>(makeConnector(context));
    EXPECT_EQ(failureText(delegate->createMessageService("c", {{"endpoint", "ws://x"}})),
              "Cannot connect to ws://x: Connection refused");
    EXPECT_EQ(delegate->getMessageService("c"), nullptr);
}

}  // namespace
}  // namespace connector::message_service
