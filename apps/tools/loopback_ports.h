#pragma once
// Loopback ports for the servers that load runs, benchmarks and tests start themselves.
//
// Thread safety: functions of their arguments; any thread.

namespace orvale::tools {

// A port nothing listens on now, chosen below the kernel's range for outgoing connections so
// that none of those takes it before its server binds it. std::runtime_error when none can be
// had.
int freeLoopbackPort();
// Whether something accepts connections on 127.0.0.1:`port`.
bool acceptsOnLoopback(int port);

}  // namespace orvale::tools
