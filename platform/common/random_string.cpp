// Random identifiers from a per-thread generator, so that callers never contend on it.

#include <array>
#include <random>
#include <string>

#include "connector/common/random_string.h"

namespace connector::common {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

std::mt19937_64 seededEngine() {
    std::random_device device;
    std::array<std::random_device::result_type, 8> words{};
    for (auto& word : words)
        word = device();
    std::seed_seq seed(words.begin(), words.end());
    return std::mt19937_64(seed);
}

}  // namespace

std::string randomString(std::uint8_t length) {
    thread_local std::mt19937_64 engine = seededEngine();
    std::uniform_int_distribution<int> pick(0, static_cast<int>(sizeof(kAlphabet)) - 2);
    std::string out(length, '\0');
    for (auto& c : out)
        c = kAlphabet[pick(engine)];
    return out;
}

}  // namespace connector::common
