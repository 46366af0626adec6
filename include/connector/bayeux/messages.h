#pragma once
// The Bayeux messages exchanged by client services, transports and the in-process server.
//
// Requests and responses of the six meta exchanges and of publishing, a batch container, and
// the messages that open a transport. Meta messages know their Bayeux channel from their
// class; getChannel() of a subscribe or unsubscribe message is the subscription pattern and of
// a publish message the channel published on.
//
// Thread safety: none of their own: a message is built on one thread, then handed on by
// unique_ptr, or shared as const and only read.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "connector/bayeux/cookie_jar.h"
#include "connector/common/data_buffer.h"
#include "connector/core.h"
#include "connector/reactive_streams/reactive_streams.h"

namespace connector::bayeux {

namespace meta {
inline constexpr const char* handshake = "/meta/handshake";
inline constexpr const char* connect = "/meta/connect";
inline constexpr const char* disconnect = "/meta/disconnect";
inline constexpr const char* subscribe = "/meta/subscribe";
inline constexpr const char* unsubscribe = "/meta/unsubscribe";
}  // namespace meta

enum class Kind {
    HandshakeRequest,
    HandshakeResponse,
    ConnectRequest,
    ConnectResponse,
    DisconnectRequest,
    DisconnectResponse,
    SubscribeRequest,
    SubscribeResponse,
    UnsubscribeRequest,
    UnsubscribeResponse,
    PublishRequest,
    PublishResponse,
};

// Requests and responses alternate above, each request followed by its response.
constexpr bool isResponse(Kind kind) {
    return static_cast<int>(kind) % 2 == 1;
}
static_assert(isResponse(Kind::PublishResponse) && !isResponse(Kind::PublishRequest));

// The Bayeux channel of a meta message kind; empty for the publish kinds.
inline const char* metaChannel(Kind k) {
    switch (k) {
        case Kind::HandshakeRequest:
        case Kind::HandshakeResponse:
            return meta::handshake;
        case Kind::ConnectRequest:
        case Kind::ConnectResponse:
            return meta::connect;
        case Kind::DisconnectRequest:
        case Kind::DisconnectResponse:
            return meta::disconnect;
        case Kind::SubscribeRequest:
        case Kind::SubscribeResponse:
            return meta::subscribe;
        case Kind::UnsubscribeRequest:
        case Kind::UnsubscribeResponse:
            return meta::unsubscribe;
        default:
            return "";
    }
}

// The advice field; a negative number means absent.
struct Advice {
    std::string reconnect;
    std::int64_t interval = -1;
    std::int64_t timeout = -1;
};

class BayeuxMessage : public Message {
  public:
    virtual Kind kind() const = 0;
    // The Bayeux channel field of the message.
    virtual std::string bayeuxChannel() const = 0;

    const std::string& getId() const { return id_; }
    void setId(std::string id) { id_ = std::move(id); }
    const std::string& getClientId() const { return clientId_; }
    void setClientId(std::string clientId) { clientId_ = std::move(clientId); }
    // The ext field as JSON object text, or empty.
    const std::string& getExt() const { return ext_; }
    void setExt(std::string ext) { ext_ = std::move(ext); }
    const std::optional<Advice>& getAdvice() const { return advice_; }
    void setAdvice(Advice advice) { advice_ = std::move(advice); }
    const std::shared_ptr<common::ContextState>& getContextState() const { return contextState_; }
    void setContextState(std::shared_ptr<common::ContextState> state) {
        contextState_ = std::move(state);
    }

  private:
    std::string id_;
    std::string clientId_;
    std::string ext_;
    std::optional<Advice> advice_;
    std::shared_ptr<common::ContextState> contextState_;
};

class BayeuxRequest : public BayeuxMessage {};

class BayeuxResponse : public BayeuxMessage {
  public:
    bool isSuccessful() const { return successful_; }
    void setSuccessful(bool successful) { successful_ = successful; }
    const std::string& getError() const { return error_; }
    void setError(std::string error) { error_ = std::move(error); }

  private:
    bool successful_ = true;
    std::string error_;
};

// A meta message whose Bayeux channel is fixed by its class.
template <class Base, Kind K>
class MetaMessage : public Base {
  public:
    Kind kind() const override { return K; }
    std::string bayeuxChannel() const override { return metaChannel(K); }
    // Kept for code written against it; metaChannel() is the same.
    static const char* channelOf(Kind k) { return metaChannel(k); }
};

class HandshakeRequest : public MetaMessage<BayeuxRequest, Kind::HandshakeRequest> {
  public:
    HandshakeRequest() = default;
    HandshakeRequest(std::string version, std::string minimumVersion,
                     std::vector<std::string> supportedConnectionTypes)
        : version_(std::move(version)),
          minimumVersion_(std::move(minimumVersion)),
          supportedConnectionTypes_(std::move(supportedConnectionTypes)) {}

    const std::string& getVersion() const { return version_; }
    void setVersion(std::string v) { version_ = std::move(v); }
    const std::string& getMinimumVersion() const { return minimumVersion_; }
    void setMinimumVersion(std::string v) { minimumVersion_ = std::move(v); }
    const std::vector<std::string>& getSupportedConnectionTypes() const {
        return supportedConnectionTypes_;
    }
    void setSupportedConnectionTypes(std::vector<std::string> types) {
        supportedConnectionTypes_ = std::move(types);
    }

  private:
    std::string version_;
    std::string minimumVersion_;
    std::vector<std::string> supportedConnectionTypes_;
};

class HandshakeResponse : public MetaMessage<BayeuxResponse, Kind::HandshakeResponse> {
  public:
    const std::string& getVersion() const { return version_; }
    void setVersion(std::string v) { version_ = std::move(v); }
    const std::vector<std::string>& getSupportedConnectionTypes() const {
        return supportedConnectionTypes_;
    }
    void setSupportedConnectionTypes(std::vector<std::string> types) {
        supportedConnectionTypes_ = std::move(types);
    }

  private:
    std::string version_;
    std::vector<std::string> supportedConnectionTypes_;
};

class ConnectRequest : public MetaMessage<BayeuxRequest, Kind::ConnectRequest> {
  public:
    ConnectRequest() = default;
    explicit ConnectRequest(std::string connectionType)
        : connectionType_(std::move(connectionType)) {}
    const std::string& getConnectionType() const { return connectionType_; }
    void setConnectionType(std::string t) { connectionType_ = std::move(t); }

  private:
    std::string connectionType_;
};

// The answer to a meta connect.
class ConnectStreamResponse : public MetaMessage<BayeuxResponse, Kind::ConnectResponse> {};

class DisconnectRequest : public MetaMessage<BayeuxRequest, Kind::DisconnectRequest> {
  public:
    DisconnectRequest() = default;
    explicit DisconnectRequest(std::string clientId) { setClientId(std::move(clientId)); }
};

class DisconnectResponse : public MetaMessage<BayeuxResponse, Kind::DisconnectResponse> {};

// Subscribe and unsubscribe requests and responses carry the subscription pattern.
template <class Base, Kind K>
class SubscriptionMessage : public MetaMessage<Base, K> {
  public:
    SubscriptionMessage() = default;
    SubscriptionMessage(std::string channel, std::string clientId) : channel_(std::move(channel)) {
        this->setClientId(std::move(clientId));
    }
    const std::string& getChannel() const { return channel_; }
    void setChannel(std::string channel) { channel_ = std::move(channel); }

  private:
    std::string channel_;
};

class SubscribeRequest : public SubscriptionMessage<BayeuxRequest, Kind::SubscribeRequest> {
  public:
    using SubscriptionMessage::SubscriptionMessage;
};
class SubscribeResponse : public SubscriptionMessage<BayeuxResponse, Kind::SubscribeResponse> {
  public:
    using SubscriptionMessage::SubscriptionMessage;
};
class UnsubscribeRequest : public SubscriptionMessage<BayeuxRequest, Kind::UnsubscribeRequest> {
  public:
    using SubscriptionMessage::SubscriptionMessage;
};
class UnsubscribeResponse : public SubscriptionMessage<BayeuxResponse, Kind::UnsubscribeResponse> {
  public:
    using SubscriptionMessage::SubscriptionMessage;
};

// A message published on an application channel; also what a server delivers to subscribers.
class PublishRequest : public BayeuxRequest {
  public:
    PublishRequest() = default;
    PublishRequest(std::string channel, common::DataBuffer&& data)
        : channel_(std::move(channel)), data_(std::move(data).toString()) {}

    Kind kind() const override { return Kind::PublishRequest; }
    std::string bayeuxChannel() const override { return channel_; }

    const std::string& getChannel() const { return channel_; }
    void setChannel(std::string channel) { channel_ = std::move(channel); }
    // The data field as JSON text.
    const std::string& getJson() const { return data_; }
    void setJson(std::string json) {
        data_ = std::move(json);
        dataValidated_ = false;
    }
    // True once the data is known to be JSON, as a decoder that read it off the wire says. What
    // leaves the process (to a hub's clients, to the other members of a cluster) must be JSON:
    // data not marked so, a host's, is checked before it goes.
    bool isDataValidated() const { return dataValidated_; }
    void setDataValidated() { dataValidated_ = true; }
    // When a hub received it from a client, in nanoseconds of the steady clock; 0 when it did not
    // come from one. The hub measures its delivery latency from it.
    std::int64_t getReceivedAt() const { return receivedAt_; }
    void setReceivedAt(std::int64_t nanoseconds) { receivedAt_ = nanoseconds; }

  private:
    std::string channel_;
    std::string data_;
    std::int64_t receivedAt_ = 0;
    bool dataValidated_ = false;
};

class PublishResponse : public BayeuxResponse {
  public:
    PublishResponse() = default;
    explicit PublishResponse(std::string channel) : channel_(std::move(channel)) {}
    Kind kind() const override { return Kind::PublishResponse; }
    std::string bayeuxChannel() const override { return channel_; }
    const std::string& getChannel() const { return channel_; }
    void setChannel(std::string channel) { channel_ = std::move(channel); }

  private:
    std::string channel_;
};

// A batch of messages received or sent together, in order.
class BayeuxContainer : public Message {
  public:
    std::vector<std::unique_ptr<Message>>& messages() { return messages_; }
    const std::vector<std::unique_ptr<Message>>& messages() const { return messages_; }

  private:
    std::vector<std::unique_ptr<Message>> messages_;
};

using MessagePtr = std::unique_ptr<Message>;

// Asks a transport service to open a connection to `url`.
class ConnectTransport : public Message {
  public:
    using Headers = std::vector<std::pair<std::string, std::string>>;

    explicit ConnectTransport(std::string url) : url_(std::move(url)) {}
    const std::string& getUrl() const { return url_; }

    // Extra headers for every HTTP request and WebSocket upgrade of the connection.
    void setHeaders(Headers headers) { headers_ = std::move(headers); }
    const Headers& getHeaders() const { return headers_; }
    // Where the connection keeps the cookies servers set and finds those to send; without a
    // jar, cookies are neither kept nor sent.
    void setCookieJar(std::shared_ptr<CookieJar> jar) { cookies_ = std::move(jar); }
    const std::shared_ptr<CookieJar>& getCookieJar() const { return cookies_; }

  private:
    std::string url_;
    Headers headers_;
    std::shared_ptr<CookieJar> cookies_;
};

// The open transport: messages arrive through `inbound`; the client subscribes `outbound` to
// its own stream of outgoing messages.
class ConnectTransportResponse : public Message {
  public:
    ConnectTransportResponse(std::shared_ptr<reactive_streams::Publisher<MessagePtr>> inbound,
                             std::shared_ptr<reactive_streams::Subscriber<MessagePtr>> outbound)
        : inbound_(std::move(inbound)), outbound_(std::move(outbound)) {}
    const std::shared_ptr<reactive_streams::Publisher<MessagePtr>>& getInbound() const {
        return inbound_;
    }
    const std::shared_ptr<reactive_streams::Subscriber<MessagePtr>>& getOutbound() const {
        return outbound_;
    }

  private:
    std::shared_ptr<reactive_streams::Publisher<MessagePtr>> inbound_;
    std::shared_ptr<reactive_streams::Subscriber<MessagePtr>> outbound_;
};

}  // namespace connector::bayeux
