#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>

#include "connector/common/random_string.h"

namespace {

using connector::common::randomString;

bool inAlphabet(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

TEST(RandomStringTest, HasTheRequestedLengthAndOnlyAlphanumericCharacters) {
    for (int length : {0, 1, 16, 255}) {
        const std::string s = randomString(static_cast<std::uint8_t>(length));
        EXPECT_EQ(s.size(), static_cast<std::size_t>(length));
        for (char c : s)
            EXPECT_TRUE(inAlphabet(c)) << "unexpected character " << int(c);
    }
}

TEST(RandomStringTest, DrawsEveryCharacterEquallyOften) {
    std::map<char, int> counts;
    constexpr int kDraws = 400 * 64;
    for (int i = 0; i < kDraws / 64; ++i) {
        for (char c : randomString(64))
            ++counts[c];
    }
    EXPECT_EQ(counts.size(), 62u);
    // A byte taken modulo 62 would favour the first eight characters by a quarter; unbiased,
    // their share stays far within 10% of an eighth-of-62 share (about 13 standard deviations
    // from the biased one).
    int first = 0;
    for (char c : std::string("ABCDEFGH"))
        first += counts[c];
    EXPECT_NEAR(first, kDraws * 8.0 / 62, kDraws * 8.0 / 62 * 0.1);
}

TEST(RandomStringTest, DiffersBetweenCallsAndBetweenThreads) {
    EXPECT_NE(randomString(32), randomString(32));
    std::string fromOther;
    std::thread other([&] { fromOther = randomString(32); });
    other.join();
    EXPECT_NE(fromOther, randomString(32));
}

}  // namespace
