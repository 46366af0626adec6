#include "connector/message_service/subscription.h"

namespace connector::message_service {

SubscriptionImpl2::~SubscriptionImpl2() {
    try {
        unsubscribe();
    } catch (...) {
        // A handle going away has nobody to report to.
    }
}

Future<CancelResult> SubscriptionImpl2::unsubscribe() {
    std::shared_ptr<Unsubscribeable> service = service_.lock();
    // Exchanged before the service is called, so of two concurrent cancels only one reaches it.
    const std::uint32_t previous = unsubscribed_.exchange(1);
    if (previous == 0 && service)
        return service->unsubscribeId(id_, context_);
    return makeReadyFuture<CancelResult>(CancelResult(true));
}

}  // namespace connector::message_service
