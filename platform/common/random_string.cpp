// Random identifiers from the operating system's cryptographic generator (through OpenSSL), so
// that an identifier cannot be predicted from others seen before.

#include "connector/common/random_string.h"

#include <openssl/rand.h>

#include <array>
#include <stdexcept>
#include <string>

namespace connector::common {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
constexpr unsigned kAlphabetSize = sizeof(kAlphabet) - 1;
// The largest multiple of the alphabet's size a byte can hold: bytes from it up are drawn again,
// so that every character is equally likely.
constexpr unsigned kUnbiasedBytes = 256 - 256 % kAlphabetSize;

}  // namespace

std::string randomString(std::uint8_t length) {
    std::string out;
    out.reserve(length);
    std::array<unsigned char, 64> bytes;
    while (out.size() < length) {
        if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
            throw std::runtime_error("the random generator failed");
        for (unsigned char byte : bytes) {
            if (byte < kUnbiasedBytes && out.size() < length)
                out.push_back(kAlphabet[byte % kAlphabetSize]);
        }
    }
    return out;
}

}  // namespace connector::common
