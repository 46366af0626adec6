#pragma once
// A client connection of the WebSocket transport with a recording subscriber, for tests against
// the raw server of beast_peers.h.

#include "beast_peers.h"
#include "connector/bayeux/websocket_transport.h"
#include "failure_text.h"
#include "recording_subscriber.h"

namespace connector::bayeux::transport_test {

// The subscription a client gives the outbound stream: records demand and cancel.
struct Upstream : reactive_streams::Subscription {
    void request(std::uint64_t n) override { requested = n; }
    void cancel() override {
        if (onCancel)
            onCancel();
        cancelled = true;
    }
    std::atomic<std::uint64_t> requested{0};
    std::atomic<bool> cancelled{false};
    std::function<void()> onCancel;  // set before the connection can end
};

inline std::shared_ptr<Context> contextWith(WebSocketTransportOptions options = {}) {
    auto context = std::make_shared<Context>();
    context->registerService(webSocketTransportAddress(), makeWebSocketTransport(options));
    return context;
}

inline Future<MessagePtr> connectTo(const std::shared_ptr<Context>& context,
                                    const std::string& url) {
    return context->deliver(webSocketTransportAddress(), std::make_unique<ConnectTransport>(url));
}

// A connected client whose inbound stream is recorded with unbounded demand.
struct Client {
    Client() = default;
    explicit Client(const std::string& url, WebSocketTransportOptions options = {})
        : Client(url, contextWith(options), webSocketTransportAddress()) {}
    // Through the transport registered in `withTransport` at `address`.
    Client(const std::string& url, std::shared_ptr<Context> withTransport, const Address& address)
        : context(std::move(withTransport)) {
        auto future = context->deliver(address, std::make_unique<ConnectTransport>(url));
        if (!future.waitFor(5s))
            throw std::runtime_error("connecting did not finish");
        const auto response = future.get();
        auto& open = dynamic_cast<ConnectTransportResponse&>(*response);
        inbound = open.getInbound();
        outbound = open.getOutbound();
        inbound->subscribe(collector);
        outbound->onSubscribe(upstream);
        if (!waitUntil([&] { return collector->subscription() != nullptr; }))
            throw std::runtime_error("onSubscribe did not come");
    }
    void send(MessagePtr message) { outbound->onNext(std::move(message)); }
    bool completed() { return collector->completions > 0 || collector->errors > 0; }

    std::shared_ptr<Context> context;
    std::shared_ptr<reactive_streams::Publisher<MessagePtr>> inbound;
    std::shared_ptr<reactive_streams::Subscriber<MessagePtr>> outbound;
    std::shared_ptr<RecordingSubscriber> collector =
        std::make_shared<RecordingSubscriber>(UINT64_MAX);
    std::shared_ptr<Upstream> upstream = std::make_shared<Upstream>();
};

inline MessagePtr publish(const std::string& channel, std::string json = "1") {
    return std::make_unique<PublishRequest>(channel, std::move(json));
}

}  // namespace connector::bayeux::transport_test
