#include "connector/common/random_string.h"

#include <gtest/gtest.h>

#include <cctype>
#include <map>
#include <thread>

namespace {

using connector::common::randomString;

// Ids are drawn from all 62 letters and digits equally often, and differ on every call and
// thread. (Their length and alphabet on the wire are the endpoint's handshake test.)
TEST(RandomStringTest, DrawsUnbiasedAlphanumerics) {
    EXPECT_EQ(randomString(0), "");
    std::map<char, int> counts;
    constexpr int kDraws = 400 * 64;
    for (int i = 0; i < kDraws / 64; ++i)
        for (char c : randomString(64))
            ++counts[c];
    EXPECT_EQ(counts.size(), 62u);
    // A byte taken modulo 62 would favour the first eight characters by a quarter; unbiased,
    // their share stays far within 10% of eight 62nds (13 standard deviations from the bias).
    int first = 0;
    for (const auto& [c, n] : counts) {
        EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c))) << int(c);
        first += c >= 'A' && c <= 'H' ? n : 0;
    }
    EXPECT_NEAR(first, kDraws * 8.0 / 62, kDraws * 8.0 / 62 * 0.1);
    std::string fromOther;
    std::thread([&] { fromOther = randomString(32); }).join();
    EXPECT_NE(fromOther, randomString(32));
    EXPECT_NE(randomString(32), randomString(32));
}

}  // namespace
