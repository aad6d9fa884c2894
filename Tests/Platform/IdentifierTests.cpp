// Digests and the identifiers built on them.

#include <fstream>
#include <regex>
#include <unordered_set>

#include <gtest/gtest.h>

#include "KTAnalytics/Platform/DeviceIdentifier.h"
#include "KTAnalytics/Platform/Digest.h"
#include "KTAnalytics/Platform/UUID.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

// The digest itself is OpenSSL's; what is ours is the hex form and passing binary input by length.
TEST(DigestTests, Sha1MatchesKnownDigestsAsLowercaseHexHashingBinaryInputByLength) {
    EXPECT_EQ(sha1Hex("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(sha1Hex(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(sha1Hex(nullptr, 0), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    const unsigned char withNul[] = {'a', 0, 'b'};
    EXPECT_EQ(sha1Hex(withNul, sizeof withNul), "4a3dec2d1f8245280855c42db0ee4239f917fdb8");
    EXPECT_EQ(sha1Hex(std::string_view("a\0b", 3)), "4a3dec2d1f8245280855c42db0ee4239f917fdb8");
}

TEST(UUIDTests, RandomIdsAreDistinctUpperCaseVersion4AndRoundTripThroughText) {
    const std::regex shape("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::unordered_set<UUID> seen;
    for (int i = 0; i < 1000; ++i) {
        const UUID id = UUID::random();
        seen.insert(id);
        const std::string text = id.uuidString();
        ASSERT_TRUE(std::regex_match(text, shape)) << text;
        ASSERT_EQ(UUID::fromString(text), id);
    }
    EXPECT_EQ(seen.size(), 1000u);

    // Either case is read, and the bytes keep the order of the text.
    EXPECT_EQ(UUID::fromString("e621e1f8-C36C-495a-93fc-0C247A3E6E5F"),
              UUID(std::array<std::uint8_t, 16>{0xE6, 0x21, 0xE1, 0xF8, 0xC3, 0x6C, 0x49, 0x5A, 0x93, 0xFC, 0x0C,
                                                0x24, 0x7A, 0x3E, 0x6E, 0x5F}));
}

TEST(UUIDTests, RejectsAnythingButTheHyphenatedForm) {
    for (const char* text : {
             "",
             "E621E1F8-C36C-495A-93FC-0C247A3E6E5",    // one short
             "E621E1F8-C36C-495A-93FC-0C247A3E6E5F0",  // one long
             "E621E1F8C36C495A93FC0C247A3E6E5F",       // no hyphens
             "E621E1F-8C36C-495A-93FC-0C247A3E6E5F",   // hyphen one early
             "E621E1F8-C36C-495A-93FC0-C247A3E6E5F",   // hyphen one late
             "E621E1F8-C36C-495A-93FC-0C247A3E6E5G",   // not hex
             "E621E1F8-C36C-495A-93FC-0C247A3E6E-F",   // hyphen where a digit belongs
             "E621E1F8 C36C 495A 93FC 0C247A3E6E5F",   // spaces for hyphens
             "{621E1F8-C36C-495A-93FC-0C247A3E6E5}",   // braces, right length
             "+621E1F8-C36C-495A-93FC-0C247A3E6E5F",   // sign
         })
        EXPECT_FALSE(UUID::fromString(text)) << '"' << text << '"';
}

TEST(DeviceIdentifierTests, IsAKeyedHashOfTheMachineIdPerApplicationAndAbsentWithoutOne) {
    testing::TemporaryDirectory directory;
    auto write = [&](const std::string& name, const std::string& contents) {
        std::ofstream(directory / name) << contents;
        return directory / name;
    };
    const auto path = write("machine-id", "0123456789abcdef0123456789abcdef\n");
    const auto otherMachine = write("other", "fedcba9876543210fedcba9876543210");
    // HMAC-SHA256(key: application id, message: machine id), first 16 bytes, v4 bits set:
    // the machine id itself never leaves the machine.
    EXPECT_EQ(identifierForVendor("com.example.player", path), "1D258AA5-7162-47E0-AAE8-ACB0BF1B9270");
    EXPECT_NE(identifierForVendor("com.example.studio", path), identifierForVendor("com.example.player", path));
    EXPECT_NE(identifierForVendor("com.example.player", otherMachine), identifierForVendor("com.example.player", path));

    for (const auto& unusable : {directory / "missing", directory.path(), write("empty", ""), write("blank", " \n\n"),
                                 write("first-boot", "uninitialized\n")})
        EXPECT_EQ(identifierForVendor("app", unusable), std::nullopt) << unusable;
}

}  // namespace
}  // namespace kt
