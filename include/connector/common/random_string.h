#pragma once
// Random identifiers.
//
// Thread safety: may be called from any thread at once.

#include <cstdint>
#include <string>

namespace connector::common {

// `length` characters of [A-Za-z0-9], each drawn uniformly from a cryptographic generator (about
// 5.95 bits a character). Throws std::runtime_error if the generator fails.
std::string randomString(std::uint8_t length);

}  // namespace connector::common
