#pragma once
// The fixtures of the service tests: what they record (deliveries, state changes, log lines), and
// the client service over a scripted transport, which the client's tests make, connect and answer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bayeux/codec.h"
#include "connector/message_service/client_impl.h"
#include "failure_text.h"
#include "inbox.h"
#include "log_capture.h"
#include "scripted_transport.h"

namespace connector::message_service {

namespace bx = bayeux;
using orvale::test::failureText;
using orvale::test::response;
using orvale::test::ScriptedTransport;
using Strings = std::vector<std::string>;

inline std::unique_ptr<bx::PublishRequest> delivery(const std::string& wire,
                                                    const std::string& json) {
    return std::make_unique<bx::PublishRequest>(wire, common::DataBuffer(json));
}

struct ServiceTest : ::testing::Test {
    // A callback noting each delivery in `seen` as "<tag> <channel> <json>".
    std::function<void(const JsonMessage&)> record(const std::string& tag) {
        return [this, tag](const JsonMessage& m) {
            seen.push_back(tag + " " + m.getChannel() + " " + m.getJson());
        };
    }
    std::shared_ptr<Subscription> watch(const std::shared_ptr<MessageService>& s) {
        return s->listenStateChange(states.stateSink()).get();
    }

    Strings seen;
    orvale::test::Inbox states;  // "FROM->TO" for each state change watched
    orvale::test::LogCapture capture;
};

struct ClientTest : ServiceTest {
    void SetUp() override { transport->install(*context); }

    std::shared_ptr<MessageServiceClientImpl> make(Options options = {
                                                       {"endpoint", "ws://test/bayeux"}}) {
        return std::make_shared<MessageServiceClientImpl>(
            "cli", std::move(options), context,
            Address("connector/bayeux/webSocket/client", "connector/http/client"));
    }

    // Connects `client`, answering its handshake with the client id "abc".
    void connect(const std::shared_ptr<MessageServiceClientImpl>& client) {
        const std::size_t before = transport->sentCount();
        auto connected = client->connect();
        handshakeAt(before);
        ASSERT_TRUE(connected.waitFor(std::chrono::seconds(5)));
        ASSERT_EQ(connected.get(), ConnectionState::CONNECTED);
    }
    // Answers the handshake sent at `index` as the session `id`, or refuses it with `error`.
    void handshakeAt(std::size_t index, const std::string& id = "abc",
                     const std::string& error = {}) {
        ASSERT_TRUE(transport->waitSent(index + 1));
        const auto* handshake = transport->sent<bx::HandshakeRequest>(index);
        ASSERT_NE(handshake, nullptr);
        auto reply = response<bx::HandshakeResponse>(handshake->getId(), error.empty(), error);
        reply->setClientId(id);
        transport->reply(std::move(reply));
    }

    // Answers the index-th sent request successfully with a response of type T.
    template <class T>
    void answer(std::size_t index) {
        ASSERT_TRUE(transport->waitSent(index + 1));
        auto* request = transport->sent<bx::BayeuxMessage>(index);
        ASSERT_NE(request, nullptr);
        transport->reply(response<T>(request->getId()));
    }

    // Subscribes, answers the request, and returns the handle; deliveries are recorded.
    std::shared_ptr<Subscription> subscribed(const std::shared_ptr<MessageServiceClientImpl>& c,
                                             const std::string& pattern, const std::string& tag) {
        const std::size_t index = transport->sentCount();
        auto pending = c->subscribe(pattern, record(tag));
        answer<bx::SubscribeResponse>(index);
        return pending.get();
    }
    Strings deliveredTo(const std::string& wire, const std::string& json = "1") {
        seen.clear();
        transport->reply(delivery(wire, json));
        return seen;
    }

    // The index-th sent message as it goes over the wire, once it is sent.
    std::string wire(std::size_t index) {
        transport->waitSent(index + 1);
        const auto* message = transport->sent<bx::BayeuxMessage>(index);
        return message ? bx::codec::encode(*message) : "(nothing)";
    }

    std::shared_ptr<Context> context = std::make_shared<Context>();
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
};

}  // namespace connector::message_service
