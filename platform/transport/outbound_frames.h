#pragma once
// The frames a client connection has yet to write, built as messages are sent. A connection
// encodes each message on the thread that sends it and adds the text here, so its I/O thread
// only writes bytes, and a message is released on the thread that made it.
//
// Messages go out in order, as JSON array frames of at most `maxFrameBytes` and
// `maxFrameMessages` messages; a message added
// `alone` (a meta connect) gets a frame of its own, and so does one too large to share a frame.
// Not thread-aware: the connection guards it with its mutex.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace connector::bayeux::transport {

class OutboundFrames {
  public:
    explicit OutboundFrames(std::size_t maxFrameBytes, std::size_t maxFrameMessages = SIZE_MAX)
        : maxFrameBytes_(maxFrameBytes), maxFrameMessages_(maxFrameMessages) {}

    // Adds one encoded message object.
    void add(std::string_view message, bool alone);
    bool empty() const { return frames_.empty(); }
    // Moves every frame, the last one closed, to the back of `out`; then keeps the buffers of
    // `written` (frames already sent) for the frames to come. `written` is left empty. Returns
    // how many messages the frames hold.
    std::size_t takeAll(std::deque<std::string>& out, std::vector<std::string>& written);
    // Drops every frame.
    void clear();

  private:
    void close();
    std::string& open();

    const std::size_t maxFrameBytes_;
    const std::size_t maxFrameMessages_;
    std::size_t lastCount_ = 0;        // messages in the open frame
    std::vector<std::string> frames_;  // all closed but the last one when lastOpen_
    bool lastOpen_ = false;
    std::size_t messages_ = 0;        // in frames_
    std::vector<std::string> spare_;  // emptied buffers, capacity kept
};

}  // namespace connector::bayeux::transport
