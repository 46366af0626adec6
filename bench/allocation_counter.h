#pragma once
// Counts heap allocations made through operator new while counting is on, in any thread; a
// benchmark linking allocation_counter.cpp reports allocations per operation with it.

#include <cstdint>

namespace orvale::bench {

void startCountingAllocations();
// Stops counting and returns the allocations made since the start.
std::uint64_t stopCountingAllocations();

}  // namespace orvale::bench
