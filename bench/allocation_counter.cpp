// Replaces the global operator new and delete to count allocations. Kept in its own file so
// that no caller sees the replacement inline.

#include "allocation_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<bool> counting{false};
std::atomic<std::uint64_t> allocations{0};
}  // namespace

namespace orvale::bench {

void startCountingAllocations() {
    allocations.store(0);
    counting.store(true);
}

std::uint64_t stopCountingAllocations() {
    counting.store(false);
    return allocations.load();
}

}  // namespace orvale::bench

void* operator new(std::size_t size) {
    if (counting.load(std::memory_order_relaxed))
        allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size))
        return p;
    throw std::bad_alloc();
}

void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
