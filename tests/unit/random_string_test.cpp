#include <gtest/gtest.h>

#include <set>
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

TEST(RandomStringTest, CoversTheWholeAlphabet) {
    std::set<char> seen;
    for (int i = 0; i < 200; ++i) {
        for (char c : randomString(64))
            seen.insert(c);
    }
    EXPECT_EQ(seen.size(), 62u);
}

TEST(RandomStringTest, DiffersBetweenCallsAndBetweenThreads) {
    EXPECT_NE(randomString(32), randomString(32));
    std::string fromOther;
    std::thread other([&] { fromOther = randomString(32); });
    other.join();
    EXPECT_NE(fromOther, randomString(32));
}

}  // namespace
