#pragma once
// The endpoint's running totals: open connections, output waiting for peers, and deliveries
// dropped from full queues. The listener, the connections and the sessions update them; stats()
// reads them. Lock-free: every counter is a relaxed atomic, since readers want a recent value,
// not one consistent with the others.
//
// ConnectionSlot holds one unit of `connections` for as long as a connection lives, moving with
// it from the HTTP link to the WebSocket link it upgrades to. OutputMeter keeps one connection's
// share of `outputBytes`. Both belong to the connection's I/O thread.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

namespace connector::bayeux::endpoint {

struct Gauges {
    std::atomic<std::size_t> connections{0};
    std::atomic<std::size_t> outputBytes{0};
    std::atomic<std::uint64_t> droppedMessages{0};
};

class ConnectionSlot {
  public:
    ConnectionSlot() = default;
    explicit ConnectionSlot(std::shared_ptr<Gauges> gauges) : gauges_(std::move(gauges)) {
        if (gauges_)
            gauges_->connections.fetch_add(1, std::memory_order_relaxed);
    }
    ConnectionSlot(ConnectionSlot&& other) noexcept : gauges_(std::move(other.gauges_)) {}
    ConnectionSlot& operator=(ConnectionSlot&& other) noexcept {
        if (this != &other) {
            release();
            gauges_ = std::move(other.gauges_);
        }
        return *this;
    }
    ConnectionSlot(const ConnectionSlot&) = delete;
    ConnectionSlot& operator=(const ConnectionSlot&) = delete;
    ~ConnectionSlot() { release(); }

    const std::shared_ptr<Gauges>& gauges() const { return gauges_; }

  private:
    void release() {
        if (gauges_)
            gauges_->connections.fetch_sub(1, std::memory_order_relaxed);
        gauges_.reset();
    }

    std::shared_ptr<Gauges> gauges_;
};

class OutputMeter {
  public:
    explicit OutputMeter(std::shared_ptr<Gauges> gauges) : gauges_(std::move(gauges)) {}
    OutputMeter(const OutputMeter&) = delete;
    OutputMeter& operator=(const OutputMeter&) = delete;
    ~OutputMeter() { set(0); }

    // This connection now has `bytes` waiting for its peer.
    void set(std::size_t bytes) {
        if (!gauges_ || bytes == bytes_)
            return;
        if (bytes > bytes_)
            gauges_->outputBytes.fetch_add(bytes - bytes_, std::memory_order_relaxed);
        else
            gauges_->outputBytes.fetch_sub(bytes_ - bytes, std::memory_order_relaxed);
        bytes_ = bytes;
    }

  private:
    const std::shared_ptr<Gauges> gauges_;
    std::size_t bytes_ = 0;
};

}  // namespace connector::bayeux::endpoint
