#pragma once
// SIGINT and SIGTERM for the long-running commands: blocked in every thread from the start and
// waited for synchronously, so no handler runs in the middle of library code.

#include <atomic>
#include <thread>

namespace orvale::app {

// Blocks SIGINT and SIGTERM; call before any thread starts so that all threads inherit it.
void blockStopSignals();

// Returns when SIGINT or SIGTERM arrives or `done` becomes true, whichever is first; true for a
// signal.
bool waitForStop(const std::atomic<bool>& done);

// For the commands that run to their own end (bench, demo, pub): a thread that waits for SIGINT
// or SIGTERM, ends the child processes, and exits with 128 + the signal's number.
void endOnStop();

// For serve and sub while they start (connecting may take seconds): SIGINT or SIGTERM ends the
// process as under endOnStop, until this is destroyed; the command then waits for them itself.
class StopWhileStarting {
  public:
    StopWhileStarting();
    ~StopWhileStarting();
    StopWhileStarting(const StopWhileStarting&) = delete;
    StopWhileStarting& operator=(const StopWhileStarting&) = delete;

  private:
    std::atomic<bool> started_{false};
    std::thread watcher_;
};

// Returns `status`, unless a stop is under way: then waits for it to end the process, so that
// the run does not exit before its children are gone.
int exitUnlessStopping(int status);

}  // namespace orvale::app
