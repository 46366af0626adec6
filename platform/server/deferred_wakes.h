#pragma once
// Wakes of the server's delivery threads held back while one thread accepts a batch of publishes.
//
// While a DeferredWakes lives on a thread, publishes accepted on that thread queue their
// deliveries as usual but leave a sleeping delivery thread asleep; the outermost DeferredWakes
// wakes each such thread once when it ends. A frame of many publishes then costs one wake-up
// per delivery thread instead of one per publish, which on few cores is most of the cost of a
// small delivery. The servers published to must outlive the scope, and the thread must not wait
// inside it for a delivery it queued. Thread-local; nothing to lock.

namespace connector::bayeux {

class DeferredWakes {
  public:
    DeferredWakes();
    ~DeferredWakes();

    // Whether a scope is open on this thread.
    static bool active();
    // Runs `hook` when the outermost scope on this thread ends, before its wakes, once however
    // often it was added, in the order hooks were first added: a server that gathers a batch's
    // publishes sends them then, and a connection writes what the batch made it.
    static void atEnd(void (*hook)());

    DeferredWakes(const DeferredWakes&) = delete;
    DeferredWakes& operator=(const DeferredWakes&) = delete;
};

}  // namespace connector::bayeux
