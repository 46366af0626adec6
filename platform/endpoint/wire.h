#pragma once
// The hub's own pieces of Bayeux JSON: deliveries and error replies written straight into a
// frame being built, the API key read from a handshake's ext, and the error replies for the
// elements of a frame the codec could not decode.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bayeux/codec.h"
#include "connector/bayeux/messages.h"

namespace connector::bayeux::endpoint {

// A frame under construction: "[" then messages separated by commas; close() adds the "]".
class FrameBuilder {
  public:
    FrameBuilder() { text_.push_back('['); }
    bool empty() const { return count_ == 0; }
    std::size_t count() const { return count_; }
    std::size_t bytes() const { return text_.size(); }
    // The text to append one message object to.
    std::string& next() {
        if (count_++ != 0)
            text_.push_back(',');
        return text_;
    }
    // Appends every message of `other`, which is left empty.
    void append(FrameBuilder& other);
    // Gives the finished frame and starts a new one with `spare` as its storage.
    std::string close(std::string spare = {});
    // Frees memory kept from a large frame.
    void trim(std::size_t keep);

  private:
    std::string text_;
    std::size_t count_ = 0;
};

// {"channel":..,"data":..}: what a subscriber receives. The publisher's id and clientId are
// left out, so a client never learns another client's identity.
void appendDelivery(FrameBuilder& frame, const PublishRequest& request);

// The bytes appendDelivery writes for `request`, escapes in its channel aside.
inline std::size_t deliveryBytes(const PublishRequest& request) {
    // {"channel":"","data":} and the comma before it.
    constexpr std::size_t kFraming = 23;
    const std::size_t data = request.getJson().size();
    return kFraming + request.getChannel().size() + (data == 0 ? 4 : data);
}

// Appends any Bayeux message through the codec.
void appendMessage(FrameBuilder& frame, const BayeuxMessage& message);

// {"channel":..,"id":..,"successful":true}: the answer to an accepted publish, written without
// building a response message; `channel` and `id` are left out when empty.
void appendPublishAck(FrameBuilder& frame, std::string_view channel, std::string_view id);

// {"channel":..,"id":..,"successful":false,"error":..} with optional advice; `channel` and `id`
// are left out when empty.
void appendErrorReply(FrameBuilder& frame, std::string_view channel, std::string_view id,
                      std::string_view error, const Advice* advice = nullptr);

// The string member "orvapikey" of an ext object text, or empty.
std::string apiKeyOf(std::string_view ext);

// One error reply for each message or frame the codec refused, naming the message's channel
// and id where it sent readable ones.
void appendDecodeFailures(FrameBuilder& out, const std::vector<codec::DecodeError>& errors);

}  // namespace connector::bayeux::endpoint
