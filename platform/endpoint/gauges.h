#pragma once
// The endpoint's running totals: open connections, output waiting for peers, traffic in and out,
// handshakes and refusals, messages dropped and why, and the histograms of delivery latency and
// queue lengths. The listener, the connections and the sessions update them; stats() and the
// operator routes read them. Lock-free: every counter is a relaxed atomic, since readers want a
// recent value, not one consistent with the others, and nothing on the delivery path may wait.
//
// ConnectionSlot holds one unit of `connections` (and of its address's count in `addresses`, when
// addresses are counted) for as long as a connection lives, moving with it from the HTTP link to
// the WebSocket link it upgrades to. OutputMeter keeps one connection's share of `outputBytes`.
// Both belong to the connection's I/O thread. The AddressCounts are the members behind a mutex,
// taken once when a connection (or a session) opens and once when it ends.

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "channel_tally.h"
#include "connector/common/mutex.h"
#include "histogram.h"

namespace connector::bayeux::endpoint {

enum class HandshakeOutcome {
    Accepted,
    Unauthorized,
    SessionLimit,
    ConnectionLimit,
    ShuttingDown,
    AddressLimit
};
inline constexpr std::size_t kHandshakeOutcomes = 6;

// The error codes refusals are counted by; the last counts any other.
inline constexpr std::array<std::string_view, 7> kRefusalCodes = {"400", "402", "403",  "405",
                                                                  "413", "503", "other"};

// The counter of kRefusalCodes for an error text such as "402::Unknown client".
inline std::size_t refusalIndex(std::string_view error) {
    const std::string_view code = error.substr(0, error.find(':'));
    for (std::size_t i = 0; i + 1 < kRefusalCodes.size(); ++i)
        if (code == kRefusalCodes[i])
            return i;
    return kRefusalCodes.size() - 1;
}

// Upper bounds of the publish-to-delivery latency buckets, in nanoseconds: 50 us to 10 s.
inline constexpr std::array<std::uint64_t, 16> kLatencyBounds = {
    50'000,      100'000,      250'000,       500'000,       1'000'000,   2'500'000,
    5'000'000,   10'000'000,   25'000'000,    50'000'000,    100'000'000, 250'000'000,
    500'000'000, 1000'000'000, 2'500'000'000, 10'000'000'000};
// Upper bounds of the queue-length buckets, in messages.
inline constexpr std::array<std::uint64_t, 8> kQueueBounds = {0,    1,     10,     100,
                                                              1000, 10000, 100000, 1000000};

// Open connections, or live sessions, per client address, for maxConnectionsPerAddress and
// maxSessionsPerAddress.
class AddressCounts {
  public:
    // Counts one more for `address`; false, counting nothing, when it has `most` already.
    bool add(const std::string& address, std::size_t most) {
        common::MutexLock lock(mutex_);
        auto it = counts_.try_emplace(address, 0).first;
        if (it->second >= most) {
            if (it->second == 0)
                counts_.erase(it);
            return false;
        }
        ++it->second;
        return true;
    }
    void remove(const std::string& address) {
        common::MutexLock lock(mutex_);
        auto it = counts_.find(address);
        if (it != counts_.end() && --it->second == 0)
            counts_.erase(it);
    }

  private:
    common::Mutex mutex_;
    std::unordered_map<std::string, std::size_t> counts_ ORVALE_GUARDED_BY(mutex_);
};

struct Gauges {
    std::atomic<std::size_t> connections{0};
    AddressCounts addresses;                           // connections, with maxConnectionsPerAddress
    AddressCounts sessionsByAddress;                   // sessions, with maxSessionsPerAddress
    std::atomic<std::size_t> webSocketConnections{0};  // of `connections`
    std::atomic<std::size_t> outputBytes{0};
    // Deliveries lost: to full session queues, still queued when their session expired, and in
    // the output of a connection closed because its peer fell too far behind.
    std::atomic<std::uint64_t> droppedMessages{0};
    std::atomic<std::uint64_t> expiredMessages{0};
    std::atomic<std::uint64_t> slowConsumerMessages{0};
    // Traffic: Bayeux messages and bytes clients sent, publishes accepted from them, deliveries
    // written to them and the bytes of every reply and delivery frame.
    std::atomic<std::uint64_t> receivedMessages{0};
    std::atomic<std::uint64_t> receivedBytes{0};
    std::atomic<std::uint64_t> publishedMessages{0};
    std::atomic<std::uint64_t> deliveredMessages{0};
    std::atomic<std::uint64_t> sentBytes{0};
    std::array<std::atomic<std::uint64_t>, kHandshakeOutcomes> handshakes{};
    std::array<std::atomic<std::uint64_t>, kRefusalCodes.size()> refusals{};
    // From a client's publish reaching the hub to its delivery entering a subscriber's frame,
    // for the publishes of one frame in eight.
    Histogram<kLatencyBounds.size()> latency{kLatencyBounds};
    // Every session's queue length, sampled each second.
    Histogram<kQueueBounds.size()> queueLengths{kQueueBounds};
    // Publishes by channel, for the busiest channels.
    ChannelTally channels;
    const std::chrono::system_clock::time_point started = std::chrono::system_clock::now();

    void countHandshake(HandshakeOutcome outcome) {
        handshakes[static_cast<std::size_t>(outcome)].fetch_add(1, std::memory_order_relaxed);
    }
    void countRefusal(std::string_view error, std::uint64_t times = 1) {
        refusals[refusalIndex(error)].fetch_add(times, std::memory_order_relaxed);
    }
};

class ConnectionSlot {
  public:
    ConnectionSlot() = default;
    // `address`: the peer's, when a bound per address needs it (else empty); `counted`: it has
    // been counted in gauges->addresses for this connection.
    explicit ConnectionSlot(std::shared_ptr<Gauges> gauges, std::string address = {},
                            bool counted = false)
        : gauges_(std::move(gauges)), address_(std::move(address)), counted_(counted) {
        if (gauges_)
            gauges_->connections.fetch_add(1, std::memory_order_relaxed);
    }
    ConnectionSlot(ConnectionSlot&& other) noexcept
        : gauges_(std::move(other.gauges_)),
          address_(std::move(other.address_)),
          counted_(std::exchange(other.counted_, false)),
          webSocket_(std::exchange(other.webSocket_, false)) {
        other.address_.clear();
    }
    ConnectionSlot& operator=(ConnectionSlot&& other) noexcept {
        if (this != &other) {
            release();
            gauges_ = std::move(other.gauges_);
            address_ = std::exchange(other.address_, std::string());
            counted_ = std::exchange(other.counted_, false);
            webSocket_ = std::exchange(other.webSocket_, false);
        }
        return *this;
    }
    ConnectionSlot(const ConnectionSlot&) = delete;
    ConnectionSlot& operator=(const ConnectionSlot&) = delete;
    ~ConnectionSlot() { release(); }

    const std::shared_ptr<Gauges>& gauges() const { return gauges_; }
    const std::string& address() const { return address_; }

    // The connection now speaks WebSocket.
    void upgraded() {
        if (gauges_ && !webSocket_)
            gauges_->webSocketConnections.fetch_add(1, std::memory_order_relaxed);
        webSocket_ = true;
    }

  private:
    void release() {
        if (gauges_) {
            gauges_->connections.fetch_sub(1, std::memory_order_relaxed);
            if (webSocket_)
                gauges_->webSocketConnections.fetch_sub(1, std::memory_order_relaxed);
            if (counted_)
                gauges_->addresses.remove(address_);
        }
        gauges_.reset();
        address_.clear();
        counted_ = false;
        webSocket_ = false;
    }

    std::shared_ptr<Gauges> gauges_;
    std::string address_;
    bool counted_ = false;
    bool webSocket_ = false;
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
