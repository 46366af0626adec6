#include "connector/common/random_string.h"

#include <gtest/gtest.h>

#include <cctype>
#include <map>
#include <string>
#include <thread>

namespace {

using connector::common::randomString;

// Only letters and digits, each drawn equally often, different on every call and thread.
TEST(RandomStringTest, DrawsUnbiasedAlphanumericsOfTheRequestedLength) {
    for (int length : {0, 1, 255})
        EXPECT_EQ(randomString(static_cast<std::uint8_t>(length)).size(), std::size_t(length));
    std::map<char, int> counts;
    constexpr int kDraws = 400 * 64;
    for (int i = 0; i < kDraws / 64; ++i)
        for (char c : randomString(64))
            ++counts[c];
    EXPECT_EQ(counts.size(), 62u);
    for (const auto& [c, n] : counts)
        EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c))) << int(c);
    // A byte taken modulo 62 would favour the first eight characters by a quarter; unbiased,
    // their share stays far within 10% of eight 62nds (13 standard deviations from the bias).
    int first = 0;
    for (char c : std::string("ABCDEFGH"))
        first += counts[c];
    EXPECT_NEAR(first, kDraws * 8.0 / 62, kDraws * 8.0 / 62 * 0.1);

    std::string fromOther;
    std::thread([&] { fromOther = randomString(32); }).join();
    EXPECT_NE(fromOther, randomString(32));
    EXPECT_NE(randomString(32), randomString(32));
}

}  // namespace
