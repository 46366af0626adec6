#pragma once
// A session whose delivery of a publish only queues it for sending.
//
// The in-process server gives such a session its publishes on the publishing thread, right
// after matching and with none of its locks held, instead of through a delivery thread: there
// is no hand-off, no wake-up and no thread to schedule, and each publishing thread's order
// holds because every publish reaches the session before acceptPublish returns. In return
// queuePublish must be quick and must never block, wait for another thread or call the
// server. Subscription changes still reach the session's deliver on a delivery thread, unless
// the session says it does not hear them.

#include <memory>

#include "connector/bayeux/messages.h"

namespace connector::bayeux {

class QueueingSession {
  public:
    virtual void queuePublish(const std::shared_ptr<const PublishRequest>& request) = 0;
    // False for a session that ignores subscription changes: then none is announced to it, so
    // that with many such sessions (a hub's clients) one client's subscribe does not cost work
    // for all of them. Asked once, when the session registers.
    virtual bool hearsSubscriptions() const { return true; }

  protected:
    ~QueueingSession() = default;
};

}  // namespace connector::bayeux
