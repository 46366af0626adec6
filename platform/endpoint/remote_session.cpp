// A remote client's session: its delivery queue, its held connect and its subscriptions.

#include "remote_session.h"

#include <algorithm>
#include <utility>

#include "browser_id.h"
#include "connector/common/mutex.h"
#include "connector/log/diagnostic_logger.h"
#include "wire.h"

namespace connector::bayeux::endpoint {

namespace {

const foundation::log::basic_diagnostic_logger<char> logger("connector::bayeux::endpoint");

bool sameLink(const std::weak_ptr<Link>& a, const std::shared_ptr<Link>& b) {
    return b && !a.owner_before(b) && !b.owner_before(a);
}

// A queue this much larger than its content is compacted.
constexpr std::size_t kCompactAfter = 64;

}  // namespace

RemoteSession::RemoteSession(std::string id, Owner owner, QueueBounds bounds, Clock::time_point now)
    : id_(std::move(id)),
      owner_(std::move(owner)),
      maxQueue_(std::max<std::size_t>(bounds.messages, 1)),
      maxQueueBytes_(std::max<std::size_t>(bounds.bytes, 1)),
      gauges_(std::move(bounds.gauges)),
      overWebSocket_(owner_.connection != 0),
      lastConnect_(now) {
    calls_.emplace_back(Call::Register, std::string());
}

bool RemoteSession::admits(std::uint64_t connection, std::string_view browser,
                           std::string_view otherBrowser) const {
    return (owner_.connection != 0 && connection == owner_.connection) ||
           sameBrowser(browser, owner_.browser) || sameBrowser(otherBrowser, owner_.browser);
}

std::shared_ptr<common::ContextState> RemoteSession::getContext() {
    common::MutexLock lock(mutex_);
    if (!context_)
        context_ = std::make_shared<common::ContextState>();
    return context_;
}

void RemoteSession::queuePublish(const std::shared_ptr<const PublishRequest>& request) {
    const std::size_t bytes = deliveryBytes(*request);
    std::vector<Delivery> lost;  // freed once the lock is released
    bool startedDropping = false;
    std::size_t heldMessages = 0;
    std::size_t heldBytes = 0;
    std::shared_ptr<Link> released;
    {
        common::MutexLock lock(mutex_);
        if (closed_)
            return;
        // The newest message is always kept, even one larger than the whole byte bound.
        while (sizeLocked() > 0 &&
               (sizeLocked() >= maxQueue_ || queuedBytes_ + bytes > maxQueueBytes_)) {
            queuedBytes_ -= deliveryBytes(*queue_[head_]);
            lost.push_back(std::move(queue_[head_++]));
        }
        if (!lost.empty()) {
            dropped_ += lost.size();
            unreportedDrops_ += lost.size();
            startedDropping = !dropping_;
            dropping_ = true;
            if (head_ >= kCompactAfter && head_ * 2 >= queue_.size()) {
                queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(head_));
                head_ = 0;
            }
        }
        queue_.push_back(request);
        queuedBytes_ += bytes;
        heldMessages = sizeLocked();
        heldBytes = queuedBytes_;
        if (held_ && !held_->webSocket)
            released = releaseLocked(ReleaseReason::Due, Clock::now());
        else
            wakeLocked();
    }
    if (!lost.empty() && gauges_)
        gauges_->droppedMessages.fetch_add(lost.size(), std::memory_order_relaxed);
    if (startedDropping)
        logger.log(foundation::log::warning, "Session ", id_, " holds ", heldMessages,
                   " undelivered messages of ", heldBytes, " bytes; dropping the oldest");
}

void RemoteSession::wakeLocked() {
    if (wakePosted_ || sizeLocked() == 0)
        return;
    if (std::shared_ptr<Link> link = target_.lock()) {
        wakePosted_ = true;
        link->deliveriesReady(shared_from_this());
    } else {
        target_.reset();
    }
}

std::shared_ptr<Link> RemoteSession::releaseLocked(ReleaseReason reason, Clock::time_point now) {
    if (!held_)
        return nullptr;
    Held held = std::move(*held_);
    held_.reset();
    lastConnect_ = now;
    if (std::shared_ptr<Link> link = held.link.lock())
        link->connectReleased(shared_from_this(),
                              ConnectRelease{std::move(held.id), held.token, reason});
    return std::move(held.keep);
}

RemoteSession::ConnectAnswer RemoteSession::connect(const std::shared_ptr<Link>& link,
                                                    bool webSocket, std::string id,
                                                    std::chrono::milliseconds holdFor,
                                                    Clock::time_point now, std::uint64_t& token) {
    std::shared_ptr<Link> released;
    common::MutexLock lock(mutex_);
    if (closed_)
        return ConnectAnswer::Closed;
    lastConnect_ = now;
    connected_ = true;
    overWebSocket_.store(webSocket, std::memory_order_relaxed);
    released = releaseLocked(ReleaseReason::Replaced, now);
    if (webSocket) {
        if (!sameLink(target_, link)) {
            target_ = link;
            wakePosted_ = false;
        }
        wakeLocked();
    } else {
        target_.reset();
        wakePosted_ = false;
    }
    if (holdFor.count() <= 0 || (!webSocket && sizeLocked() > 0))
        return ConnectAnswer::Now;
    token = ++nextToken_;
    held_ = Held{link, webSocket ? nullptr : link, std::move(id), token, now + holdFor, webSocket};
    return ConnectAnswer::Held;
}

void RemoteSession::takeDeliveries(const std::shared_ptr<Link>& link, bool answeringConnect,
                                   std::vector<Delivery>& out) {
    std::vector<Delivery> taken;
    {
        common::MutexLock lock(mutex_);
        const bool target = sameLink(target_, link);
        if (!answeringConnect && !target)
            return;
        if (target)
            wakePosted_ = false;
        if (head_ == 0) {
            taken.swap(queue_);
        } else {
            taken.assign(
                std::make_move_iterator(queue_.begin() + static_cast<std::ptrdiff_t>(head_)),
                std::make_move_iterator(queue_.end()));
            queue_.clear();
            queue_.shrink_to_fit();
            head_ = 0;
        }
        queuedBytes_ = 0;
        dropping_ = false;
    }
    // Released outside the lock: dropping the last reference frees the payload.
    if (out.empty())
        out.swap(taken);
    else
        out.insert(out.end(), std::make_move_iterator(taken.begin()),
                   std::make_move_iterator(taken.end()));
}

RemoteSession::Change RemoteSession::subscribe(const std::string& channel, std::size_t most) {
    common::MutexLock lock(mutex_);
    if (closed_)
        return Change::Closed;
    // One lookup unless the session is full, when a channel it already holds is still no change.
    if (subscriptions_.size() >= most)
        return subscriptions_.count(channel) ? Change::Unchanged : Change::Full;
    if (!subscriptions_.insert(channel).second)
        return Change::Unchanged;
    calls_.emplace_back(Call::Subscribe, channel);
    return Change::Done;
}

RemoteSession::Change RemoteSession::unsubscribe(const std::string& channel) {
    common::MutexLock lock(mutex_);
    if (closed_)
        return Change::Closed;
    if (subscriptions_.erase(channel) == 0)
        return Change::Unchanged;
    calls_.emplace_back(Call::Unsubscribe, channel);
    return Change::Done;
}

bool RemoteSession::close(ReleaseReason reason, Ending* ending) {
    std::vector<Delivery> dropped;
    std::shared_ptr<Link> released;
    {
        common::MutexLock lock(mutex_);
        if (closed_)
            return false;
        closed_ = true;
        released = releaseLocked(reason, Clock::now());
        if (ending)
            ending->discarded = sizeLocked();
        dropped.swap(queue_);
        head_ = 0;
        queuedBytes_ = 0;
        target_.reset();
        for (const std::string& channel : subscriptions_) {
            calls_.emplace_back(Call::Unsubscribe, channel);
            if (ending)
                ending->subscriptions.push_back(channel);
        }
        subscriptions_.clear();
        calls_.emplace_back(Call::Unregister, std::string());
    }
    if (owner_.madeBy)
        owner_.madeBy->live.fetch_sub(1, std::memory_order_relaxed);
    if (!owner_.address.empty() && gauges_)
        gauges_->sessionsByAddress.remove(owner_.address);
    return true;
}

bool RemoteSession::closed() const {
    common::MutexLock lock(mutex_);
    return closed_;
}

void RemoteSession::runServerCalls(BayeuxServer& server) {
    common::UniqueLock lock(mutex_);
    if (callsRunning_)
        return;
    callsRunning_ = true;
    while (!calls_.empty()) {
        std::vector<std::pair<Call, std::string>> calls;
        calls.swap(calls_);
        lock.unlock();
        for (auto& [call, channel] : calls) {
            switch (call) {
                case Call::Register:
                    server.registerSession(weak_from_this());
                    break;
                case Call::Subscribe:
                    server.acceptSubscribe(
                        std::make_shared<SubscribeRequest>(std::move(channel), id_));
                    break;
                case Call::Unsubscribe:
                    server.acceptUnsubscribe(
                        std::make_shared<UnsubscribeRequest>(std::move(channel), id_));
                    break;
                case Call::Unregister:
                    server.unregisterSession(shared_from_this());
                    break;
            }
        }
        lock.lock();
    }
    callsRunning_ = false;
}

RemoteSession::Expiry RemoteSession::sweep(Clock::time_point now,
                                           std::chrono::milliseconds sessionTimeout,
                                           std::chrono::milliseconds connectGrace) {
    std::shared_ptr<Link> released;
    common::MutexLock lock(mutex_);
    if (closed_)
        return Expiry::None;
    if (held_) {
        if (now >= held_->deadline || held_->link.expired())
            released = releaseLocked(ReleaseReason::Due, now);
        else
            return Expiry::None;
    }
    if (now - lastConnect_ >= sessionTimeout)
        return connected_ ? Expiry::Idle : Expiry::NeverConnected;
    if (!connected_ && now - lastConnect_ >= connectGrace)
        return Expiry::NeverConnected;
    return Expiry::None;
}

std::uint64_t RemoteSession::droppedCount() const {
    common::MutexLock lock(mutex_);
    return dropped_;
}

std::uint64_t RemoteSession::takeUnreportedDrops() {
    common::MutexLock lock(mutex_);
    return std::exchange(unreportedDrops_, 0);
}

std::size_t RemoteSession::queuedCount() const {
    common::MutexLock lock(mutex_);
    return sizeLocked();
}

}  // namespace connector::bayeux::endpoint
