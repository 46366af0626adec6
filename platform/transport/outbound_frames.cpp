// The frames a client connection has yet to write.

#include "outbound_frames.h"

#include <utility>

namespace connector::bayeux::transport {

namespace {
// Buffers kept for reuse; a steady flow needs two or three at a time.
constexpr std::size_t kSpareBuffers = 4;
// What a new frame reserves, so that a small burst grows it once or not at all.
constexpr std::size_t kFrameReserve = 4096;
}  // namespace

void OutboundFrames::add(std::string_view message, bool alone) {
    ++messages_;
    if (!alone && lastOpen_ && lastCount_ < maxFrameMessages_) {
        std::string& frame = frames_.back();
        // The comma before and the bracket that will close the frame.
        if (frame.size() + message.size() + 2 <= maxFrameBytes_) {
            frame.push_back(',');
            frame.append(message);
            ++lastCount_;
            return;
        }
    }
    close();
    open().append(message);
    lastOpen_ = true;
    lastCount_ = 1;
    if (alone)
        close();
}

std::size_t OutboundFrames::takeAll(std::deque<std::string>& out,
                                    std::vector<std::string>& written) {
    close();
    for (auto& frame : frames_)
        out.push_back(std::move(frame));
    frames_.clear();
    for (auto& buffer : written)
        if (spare_.size() < kSpareBuffers && buffer.capacity() <= 2 * maxFrameBytes_)
            spare_.push_back(std::move(buffer));
    written.clear();
    return std::exchange(messages_, 0);
}

void OutboundFrames::clear() {
    frames_.clear();
    messages_ = 0;
    lastOpen_ = false;
}

void OutboundFrames::close() {
    if (!lastOpen_)
        return;
    frames_.back().push_back(']');
    lastOpen_ = false;
}

std::string& OutboundFrames::open() {
    if (spare_.empty()) {
        frames_.emplace_back();
        frames_.back().reserve(kFrameReserve);
    } else {
        frames_.push_back(std::move(spare_.back()));
        spare_.pop_back();
        frames_.back().clear();
    }
    frames_.back().push_back('[');
    return frames_.back();
}

}  // namespace connector::bayeux::transport
