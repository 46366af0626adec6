#pragma once
// Frames as raw clients send them to the hub, what its replies say, and the hub's fixture: an
// endpoint on an in-process server with server services beside it.

#include "beast_peers.h"
#include "connector/bayeux/endpoint.h"
#include "connector/message_service.h"
#include "inbox.h"

namespace connector::bayeux::endpoint_test {

using namespace std::chrono_literals;
using message_service::JsonMessage;
using message_service::MessageService;
using orvale::test::HttpReply;
using orvale::test::LogCapture;
using orvale::test::onChannel;
using orvale::test::RawHttp;
using orvale::test::RawWebSocket;
using orvale::test::Reading;
using orvale::test::str;
using orvale::test::waitUntil;
using orvale::test::withId;
namespace json = boost::json;
// Collects what a server service hears, from any thread.
using Heard = orvale::test::Inbox;

inline std::string quote(const std::string& text) {
    return json::serialize(json::value(json::string_view(text.data(), text.size())));
}

inline std::string handshake(const std::string& id, const std::string& ext = "") {
    return R"([{"channel":"/meta/handshake","id":")" + id +
           R"(","version":"1.0","minimumVersion":"1.0","supportedConnectionTypes":["websocket","long-polling"])" +
           (ext.empty() ? "" : ",\"ext\":" + ext) + "}]";
}

// One message on a meta channel from `clientId`, with `fields` (JSON members) after its id.
inline std::string meta(const char* channel, const std::string& clientId, const std::string& id,
                        const std::string& fields = "") {
    return std::string(R"([{"channel":")") + channel + R"(","clientId":)" + quote(clientId) +
           R"(,"id":")" + id + "\"" + fields + "}]";
}

inline std::string connect(const std::string& clientId, const std::string& id, int timeout = -1,
                           const std::string& type = "websocket") {
    return meta(
        "/meta/connect", clientId, id,
        R"(,"connectionType":")" + type + "\"" +
            (timeout >= 0 ? R"(,"advice":{"timeout":)" + std::to_string(timeout) + "}" : ""));
}

inline std::string subscription(const char* metaChannel, const std::string& clientId,
                                const std::string& id, const std::string& pattern) {
    return meta(metaChannel, clientId, id, ",\"subscription\":" + quote(pattern));
}

inline std::string subscribe(const std::string& clientId, const std::string& id,
                             const std::string& channel) {
    return subscription("/meta/subscribe", clientId, id, channel);
}

inline std::string unsubscribe(const std::string& clientId, const std::string& id,
                               const std::string& channel) {
    return subscription("/meta/unsubscribe", clientId, id, channel);
}

inline std::string publish(const std::string& clientId, const std::string& id,
                           const std::string& channel, const std::string& data) {
    return R"([{"channel":)" + quote(channel) + R"(,"clientId":)" + quote(clientId) + R"(,"id":")" +
           id + R"(","data":)" + data + "}]";
}

inline std::string disconnect(const std::string& clientId, const std::string& id) {
    return meta("/meta/disconnect", clientId, id);
}

// `count` numbers in a frame: messages the hub cannot read, each earning an error reply.
inline std::string unreadable(int count) {
    std::string frame = "[1";
    for (int i = 1; i < count; ++i)
        frame += ",1";
    return frame + "]";
}

// One frame holding the messages of single-message frames, in order.
inline std::string batch(const std::vector<std::string>& frames) {
    std::string out = "[";
    for (const auto& frame : frames)
        out.append(out.size() > 1 ? "," : "").append(frame, 1, frame.size() - 2);
    return out + "]";
}

// `count` handshakes with ids prefix0, prefix1, ... in one frame.
inline std::string handshakes(int count, const std::string& prefix = "") {
    std::vector<std::string> frames;
    for (int i = 0; i < count; ++i)
        frames.push_back(handshake(prefix + std::to_string(i)));
    return batch(frames);
}

inline bool successful(const std::optional<json::object>& message) {
    const json::value* v = message ? message->if_contains("successful") : nullptr;
    return v && v->is_bool() && v->get_bool();
}

inline std::string error(const std::optional<json::object>& message) {
    return message ? str(*message, "error") : "(no reply)";
}

// An advice field as JSON text, "null" when the advice lacks it, "" when there is no advice.
inline std::string advice(const std::optional<json::object>& message, const char* field) {
    if (!message || !message->contains("advice"))
        return "";
    const json::value* v = message->at("advice").as_object().if_contains(field);
    return json::serialize(v ? *v : json::value());
}

inline bool isDelivery(const json::object& m) {
    return m.contains("data") && !m.contains("successful");
}

inline std::optional<json::object> find(const std::vector<json::object>& messages,
                                        const std::function<bool(const json::object&)>& predicate) {
    auto it = std::find_if(messages.begin(), messages.end(), predicate);
    return it == messages.end() ? std::nullopt : std::optional<json::object>(*it);
}

class EndpointTest : public ::testing::Test {
  protected:
    static EndpointOptions defaults() {
        EndpointOptions options;
        options.connectTimeout = 20s;
        options.sessionTimeout = 30s;
        return options;
    }

    void start(EndpointOptions options = defaults()) {
        endpoint = startBayeuxEndpoint(server, std::move(options));
        port = endpoint->port();
    }

    // Makes a session over `ws` or `http` and returns its client id; a refused handshake fails
    // the test.
    std::string open(RawWebSocket& ws) {
        auto reply = ws.call(handshake("hs"), "hs");
        EXPECT_TRUE(successful(reply)) << "handshake refused: " << error(reply);
        return successful(reply) ? str(*reply, "clientId") : std::string();
    }

    std::string open(RawHttp& http) {
        auto reply = http.post(handshake("hs"));
        auto messages =
            reply && reply->status == 200 ? reply->messages() : std::vector<json::object>();
        const bool made = messages.size() == 1 && successful(messages[0]);
        EXPECT_TRUE(made) << "handshake refused: " << (reply ? reply->body : "(no reply)");
        return made ? str(messages[0], "clientId") : std::string();
    }

    std::shared_ptr<MessageService> service(const std::string& name) {
        return services->createMessageService(name, {}).get();
    }

    // Notes in `heard` what `watcher` hears of subscriptions ("+/a") and unsubscriptions ("-/a").
    std::vector<std::shared_ptr<message_service::Subscription>> listen(MessageService& watcher,
                                                                       const std::string& pattern,
                                                                       Heard& heard) {
        using namespace message_service;
        auto noted = [&heard](const char* sign) {
            return [&heard, sign](const auto& e) { heard.add(sign + e.getChannel()); };
        };
        return {watcher.listenSubscribe(pattern, noted("+")).get(),
                watcher.listenUnsubscribe(pattern, noted("-")).get()};
    }

    // One delivery thread: what a session is handed follows publication order across sessions.
    std::shared_ptr<BayeuxServer> server = makeBayeuxServer(BayeuxServerOptions{1});
    std::unique_ptr<BayeuxEndpoint> endpoint;
    std::uint16_t port = 0;
    std::shared_ptr<message_service::MessageServiceFactoryServerDelegate> services =
        std::make_shared<message_service::MessageServiceFactoryServerDelegate>(server);
};

}  // namespace connector::bayeux::endpoint_test
