#pragma once
// Random identifiers.
//
// Thread safety: may be called from any thread at once; each thread draws from its own generator.

#include <cstdint>
#include <string>

namespace connector::common {

// `length` characters of [A-Za-z0-9] from a generator seeded by the operating system.
std::string randomString(std::uint8_t length);

}  // namespace connector::common
