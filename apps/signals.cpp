#include "signals.h"

#include <signal.h>

#include <cerrno>
#include <ctime>

namespace orvale::app {

namespace {

sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

}  // namespace

void blockStopSignals() {
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

bool waitForStop(const std::atomic<bool>& done) {
    const sigset_t set = stopSignals();
    // A short timeout lets `done` end the wait without a signal of its own.
    const timespec slice{0, 20 * 1000 * 1000};
    while (!done.load()) {
        if (sigtimedwait(&set, nullptr, &slice) > 0)
            return true;
    }
    return false;
}

}  // namespace orvale::app
