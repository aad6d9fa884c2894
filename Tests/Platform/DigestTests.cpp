#include "Platform/Digest.h"

#include <string>

#include <gtest/gtest.h>

namespace kt {
namespace {

TEST(DigestTests, Sha1MatchesKnownDigestsAsLowercaseHex) {
    EXPECT_EQ(sha1Hex("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(sha1Hex(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(sha1Hex(nullptr, 0), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(sha1Hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
    const std::string million(1'000'000, 'a');
    EXPECT_EQ(sha1Hex(million.data(), million.size()), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(DigestTests, BinaryInputIsHashedByLengthNotUpToNul) {
    const unsigned char withNul[] = {'a', 0, 'b'};
    EXPECT_NE(sha1Hex(withNul, sizeof withNul), sha1Hex("a"));
    EXPECT_EQ(sha1Hex(withNul, sizeof withNul), sha1Hex(std::string_view("a\0b", 3)));
}

}  // namespace
}  // namespace kt
