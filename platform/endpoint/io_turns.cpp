#include "io_turns.h"

#include "server/deferred_wakes.h"

namespace connector::bayeux::endpoint {

void runInTurns(boost::asio::io_context& io, std::size_t handlers) {
    for (;;) {
        // Opened before the thread blocks: nothing is held while it waits, since only the
        // handlers run in the scope add to it.
        const DeferredWakes turn;
        if (io.run_one() == 0)
            return;
        // poll_one also asks the sockets, without waiting, whether any is ready.
        for (std::size_t ran = 1; ran < handlers && io.poll_one() > 0; ++ran) {
        }
    }
}

}  // namespace connector::bayeux::endpoint
