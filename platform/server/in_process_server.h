#pragma once
// The in-process Bayeux server behind makeBayeuxServer().
//
// InProcessBayeuxServer is the handle hosts own. Its state lives in a ServerCore that each
// delivery thread co-owns, so that a thread may finish its queue after the handle is gone when
// the last reference to the server is dropped from inside a delivery.
//
// Locks (in ServerCore):
// - the tree lock (a shared_mutex) guards the channel tree, the session registry, every
//   SessionRecord::held and the accepting flag. A publish matches under the shared lock;
//   registration, subscription changes and shutdown take it exclusively.
// - each DeliveryQueue has a mutex taken for a moment to append or to swap the batch out. Lock
//   order: tree lock, then a queue lock. Deliveries are queued while the tree lock is held, so a
//   retirement of nodes or records, queued later under the exclusive lock, always follows every
//   delivery that points at them.
// - sessions are called only on the delivery threads with no lock of the server held, so a
//   session may publish, subscribe, unsubscribe, register or unregister from inside deliver.
//   The one exception is a QueueingSession's queuePublish, made on the publishing thread,
//   also with no lock held.
//
// Order: each session is served by one delivery thread chosen at registration, and a thread
// delivers in queue order, so the messages of one publishing thread reach each subscriber in the
// order they were accepted. A queueing session has each publish before acceptPublish returns.
//
// Destruction: the destructor stops accepting (calls made afterwards, including those sessions
// make from inside deliver while it waits, are ignored), lets each thread deliver what is
// queued to the sessions still alive, drops what is queued for expired ones, and joins the
// threads. When the last reference goes away on a delivery thread itself, that thread cannot be
// joined: it is detached and finishes its queue after the destructor returns. Sessions that
// call back into the server should therefore hold it by shared_ptr or weak_ptr, not by a raw
// pointer.

#include <cstddef>
#include <memory>

#include "connector/bayeux/server.h"

namespace connector::bayeux {

namespace detail {
class ServerCore;
}

class InProcessBayeuxServer final : public BayeuxServer {
  public:
    explicit InProcessBayeuxServer(BayeuxServerOptions options);
    ~InProcessBayeuxServer() override;
    InProcessBayeuxServer(const InProcessBayeuxServer&) = delete;
    InProcessBayeuxServer& operator=(const InProcessBayeuxServer&) = delete;

    void registerSession(std::weak_ptr<BayeuxSession> session) override;
    void unregisterSession(const std::shared_ptr<BayeuxSession>& session) override;
    void acceptUnsubscribe(std::shared_ptr<const UnsubscribeRequest> request) override;
    void acceptSubscribe(std::shared_ptr<const SubscribeRequest> request) override;
    void acceptPublish(std::shared_ptr<const PublishRequest> request) override;

    // For diagnostics and tests.
    std::size_t sessionCount() const;
    std::size_t channelNodeCount() const;  // the root included
    std::size_t threadCount() const;
    // False once destruction has begun.
    bool accepting() const;

  private:
    std::shared_ptr<detail::ServerCore> core_;
};

}  // namespace connector::bayeux
