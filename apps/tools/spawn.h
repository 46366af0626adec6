#pragma once
// Starts a program as a child that dies with this process, however this process ends: a test or
// a load run killed outright (a CI timeout, SIGKILL) leaves no hub, nats-server or redis-server
// behind holding loopback ports and CPU.
//
// Thread safety: may be called from any thread.

#include <sys/types.h>

#include <string>
#include <vector>

namespace orvale::tools {

// Starts `argv[0]` (searched in PATH) with `in`, `out` and `err` as its standard streams (`err`
// below zero: this process's own stderr), the default signal mask, and none of this process's
// other descriptors. Throws std::runtime_error when the program cannot be started.
pid_t spawnTiedChild(const std::vector<std::string>& argv, int in, int out, int err);

}  // namespace orvale::tools
