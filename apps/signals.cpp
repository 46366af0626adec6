#include "signals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "subprocess.h"

namespace orvale::app {

namespace {

std::atomic<bool> stopping{false};

sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

// The stop signal that arrived, or 0 once `done` became true first.
int awaitStopSignal(const std::atomic<bool>& done) {
    const sigset_t set = stopSignals();
    // A short timeout lets `done` end the wait without a signal of its own.
    const timespec slice{0, 20 * 1000 * 1000};
    while (!done.load()) {
        const int signal = sigtimedwait(&set, nullptr, &slice);
        if (signal > 0)
            return signal;
    }
    return 0;
}

[[noreturn]] void endNow(int signal) {
    stopping.store(true);
    // What the run's threads report from here on is its own teardown, not news.
    const int quiet = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (quiet >= 0)
        ::dup2(quiet, STDERR_FILENO);
    // Children left running would outlive the run: hubs and engines holding ports and CPU.
    tools::ChildProcess::endAll();
    std::_Exit(128 + signal);
}

}  // namespace

void blockStopSignals() {
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

bool waitForStop(const std::atomic<bool>& done) {
    return awaitStopSignal(done) != 0;
}

void endOnStop() {
    std::thread([] {
        const sigset_t set = stopSignals();
        int signal = 0;
        while (sigwait(&set, &signal) != 0) {
        }
        endNow(signal);
    }).detach();
}

StopWhileStarting::StopWhileStarting()
    : watcher_([this] {
          if (const int signal = awaitStopSignal(started_))
              endNow(signal);
      }) {}

StopWhileStarting::~StopWhileStarting() {
    started_.store(true);
    watcher_.join();
}

int exitUnlessStopping(int status) {
    while (stopping.load())
        std::this_thread::sleep_for(std::chrono::seconds(1));
    return status;
}

}  // namespace orvale::app
