#pragma once
// SIGINT and SIGTERM for the long-running commands: blocked in every thread from the start and
// waited for synchronously, so no handler runs in the middle of library code.

#include <atomic>

namespace orvale::app {

// Blocks SIGINT and SIGTERM; call before any thread starts so that all threads inherit it.
void blockStopSignals();

// Returns when SIGINT or SIGTERM arrives or `done` becomes true, whichever is first; true for a
// signal.
bool waitForStop(const std::atomic<bool>& done);

}  // namespace orvale::app
