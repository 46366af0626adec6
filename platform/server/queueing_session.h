#pragma once
// A session whose delivery of a publish only queues it for sending.
//
// The in-process server gives such a session its publishes on the publishing thread, right
// after matching and with none of its locks held, instead of through a delivery thread: there
// is no hand-off, no wake-up and no thread to schedule, and each publishing thread's order
// holds because every publish reaches the session before acceptPublish returns. In return
// queuePublish must be quick and must never block, wait for another thread or call the
// server. Subscription changes still reach the session's deliver on a delivery thread, unless
// the session says it does not hear them. It gets only publishes whose data may leave the
// process.

#include <memory>

#include "connector/bayeux/messages.h"

namespace connector::bayeux {

// Whether the data of `request` may leave the process, to a queueing session's client or to
// the other members of a cluster: it must be JSON (or empty, sent as null), so that it cannot
// break or forge the frames it is written into. Data a decoder validated passes at once; other
// data is read, and a publish kept back is logged (the 1st, 2nd, 4th... of them).
bool mayLeaveProcess(const PublishRequest& request);

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
