// The client's handles on a connection's streams.

#include "stream_handles.h"

#include "outbound_subscriber.h"

namespace connector::bayeux::transport {

namespace {

// What the client holds as the inbound publisher: the connection's publisher plus the keeper
// that closes the connection once the client lets go of both of its streams.
class InboundHandle : public reactive_streams::Publisher<MessagePtr> {
  public:
    InboundHandle(std::shared_ptr<InboundPublisher> publisher,
                  std::shared_ptr<CloseOnRelease> keeper)
        : publisher_(std::move(publisher)), keeper_(std::move(keeper)) {}
    Future<bool> done() override { return publisher_->done(); }
    void subscribe(std::shared_ptr<reactive_streams::Subscriber<MessagePtr>> subscriber) override {
        publisher_->subscribe(std::move(subscriber));
    }

  private:
    const std::shared_ptr<InboundPublisher> publisher_;
    const std::shared_ptr<CloseOnRelease> keeper_;
};

}  // namespace

std::unique_ptr<ConnectTransportResponse> makeStreams(std::weak_ptr<Connection> connection,
                                                      std::shared_ptr<InboundPublisher> inbound,
                                                      std::shared_ptr<DoneSignal> closed) {
    auto keeper = std::make_shared<CloseOnRelease>(connection);
    auto outbound = std::make_shared<OutboundSubscriber>(connection, keeper, closed);
    std::weak_ptr<OutboundSubscriber> weakOutbound = outbound;
    inbound->done().then([closed, weakOutbound](Future<bool>&& ended) {
        bool clean = false;
        try {
            clean = ended.get();
        } catch (...) {
            // The publisher went without resolving: an unclean end.
        }
        closed->resolve(clean);
        if (auto outbound = weakOutbound.lock())
            outbound->connectionClosed();
    });
    auto handle = std::make_shared<InboundHandle>(std::move(inbound), std::move(keeper));
    return std::make_unique<ConnectTransportResponse>(std::move(handle), std::move(outbound));
}

}  // namespace connector::bayeux::transport
