#pragma once
// One process's connection to the NATS servers of a cluster: publishes subjects, holds one NATS
// subscription per subject pattern that local subscribers need (counted, so that the last one
// out unsubscribes), and hands what arrives to a callback.
//
// NATS does the rest: it reconnects to the other servers of the URL list when one dies (forever,
// every `reconnectWait`), and it never sends a process its own publishes back (no echo), so a
// message reaches each member once. While the link is down, publishes are kept in a buffer of
// `reconnectBufferBytes` and sent on reconnection; what does not fit is counted as lost and
// logged once per outage. A member that reads what arrives more slowly than it comes lets
// NATS drop the newest beyond `pendingMessages` or `pendingBytes` waiting for it; those drops are
// counted and logged once each time it falls behind.
//
// Thread safety: every function may be called from any thread at once. `onMessage` runs on the
// NATS library's delivery thread, one message at a time, in the order the connection received
// them whichever subscription they came through; the link calls it under no lock of its own. The
// destructor waits until no callback runs.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/doubling_log.h"
#include "connector/common/mutex.h"

struct __natsConnection;
struct __natsSubscription;
struct __natsMsg;

namespace connector::bayeux::cluster {

struct NatsLinkOptions {
    std::vector<std::string> urls;  // nats://host:port, any number; tried in turn
    std::string name = "orvale";    // the connection's name in the servers' monitoring
    std::chrono::milliseconds reconnectWait{250};
    std::size_t reconnectBufferBytes = 8 * 1024 * 1024;
    std::chrono::milliseconds connectTimeout{2000};
    // What may wait for onMessage, per subscription, before NATS drops what comes next.
    int pendingMessages = 65536;
    int pendingBytes = 64 * 1024 * 1024;
    // Told false when the link goes down and true when it comes back, on a NATS library thread.
    std::function<void(bool up)> onLinkChange;
};

struct NatsLinkStats {
    bool connected = false;
    std::uint64_t published = 0;
    std::uint64_t received = 0;
    std::uint64_t lost = 0;        // publishes that could be neither sent nor buffered
    std::uint64_t dropped = 0;     // deliveries NATS dropped while onMessage fell behind
    std::uint64_t reconnects = 0;  // times the link came back after an outage
    std::size_t subscriptions = 0;
};

class NatsLink {
  public:
    using OnMessage = std::function<void(std::string_view subject, std::string_view payload)>;

    // Connects to one of the servers; throws std::runtime_error naming the URLs when none can be
    // reached.
    NatsLink(NatsLinkOptions options, OnMessage onMessage);
    ~NatsLink();
    // Unsubscribes, closes the connection and waits until no handler runs any more: what the
    // handlers use may go once it returns. Later calls do nothing.
    void stop();
    NatsLink(const NatsLink&) = delete;
    NatsLink& operator=(const NatsLink&) = delete;

    // Sends `payload`, which holds `messages` channel messages, on `subject`; they count as
    // published when the link sends or buffers it, as lost when it can do neither.
    void publish(const std::string& subject, std::string_view payload, std::size_t messages = 1);
    // Counts one more local need for `pattern`; the first subscribes. False when NATS refused.
    bool addInterest(const std::string& pattern);
    // Counts one need less; the last unsubscribes.
    void removeInterest(const std::string& pattern);

    NatsLinkStats stats() const;
    // Waits up to `bound` for what was published to reach the NATS server.
    void flush(std::chrono::milliseconds bound);

  private:
    struct Subscription {
        __natsSubscription* handle = nullptr;
        std::size_t uses = 0;
    };
    static void onDelivery(__natsConnection*, __natsSubscription*, __natsMsg* message,
                           void* closure);
    static void onDisconnected(__natsConnection*, void* closure);
    static void onReconnected(__natsConnection*, void* closure);
    static void onClosed(__natsConnection*, void* closure);
    static void onSubscriptionDone(void* closure);

    const NatsLinkOptions options_;
    const OnMessage onMessage_;
    __natsConnection* connection_ = nullptr;

    mutable common::Mutex mutex_;
    std::map<std::string, Subscription, std::less<>> subscriptions_ ORVALE_GUARDED_BY(mutex_);
    // NATS subscriptions whose handler may still run, and whether the connection's callbacks
    // are over: the destructor waits for both.
    std::size_t running_ ORVALE_GUARDED_BY(mutex_) = 0;
    // Drops counted by NATS subscriptions since unsubscribed.
    std::uint64_t droppedBefore_ ORVALE_GUARDED_BY(mutex_) = 0;
    bool closed_ ORVALE_GUARDED_BY(mutex_) = false;
    bool stopped_ ORVALE_GUARDED_BY(mutex_) = false;
    std::condition_variable finished_;

    std::atomic<bool> connected_{false};
    std::atomic<bool> lossLogged_{false};
    std::atomic<std::uint64_t> published_{0};
    std::atomic<std::uint64_t> received_{0};
    std::atomic<std::uint64_t> lost_{0};
    common::DoublingLog tooLarge_;                    // publishes larger than NATS accepts
    std::atomic<std::uint64_t> lostBeforeOutage_{0};  // lost_ when the last outage began
    std::atomic<std::uint64_t> reconnects_{0};
};

}  // namespace connector::bayeux::cluster
