#include "Platform/UUID.h"

#include <cctype>
#include <unordered_set>

#include <gtest/gtest.h>

namespace kt {
namespace {

TEST(UUIDTests, RandomIsVersion4UpperCaseAndRoundTripsThroughText) {
    const UUID id = UUID::random();
    const std::string text = id.uuidString();
    ASSERT_EQ(text.size(), 36u);
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            EXPECT_EQ(text[i], '-') << text;
        } else {
            EXPECT_TRUE(std::isxdigit(static_cast<unsigned char>(text[i])) &&
                        !std::islower(static_cast<unsigned char>(text[i])))
                << text;
        }
    }
    EXPECT_EQ(text[14], '4') << text;
    EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos) << text;
    EXPECT_EQ(UUID::fromString(text), id);
}

TEST(UUIDTests, RandomIdsAreDistinctAndHashConsistently) {
    std::unordered_set<UUID> seen;
    for (int i = 0; i < 1000; ++i) seen.insert(UUID::random());
    EXPECT_EQ(seen.size(), 1000u);

    const auto a = UUID::fromString("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    const auto b = UUID::fromString("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
    ASSERT_TRUE(a && b);
    EXPECT_EQ(*a, *b);
    EXPECT_EQ(std::hash<UUID>{}(*a), std::hash<UUID>{}(*b));
}

TEST(UUIDTests, ParsesEitherCaseIntoTheSameBytes) {
    const auto parsed = UUID::fromString("e621e1f8-C36C-495a-93fc-0C247A3E6E5F");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->uuidString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    EXPECT_EQ(parsed->bytes()[0], 0xE6);
    EXPECT_EQ(parsed->bytes()[15], 0x5F);
}

TEST(UUIDTests, RejectsAnythingButTheHyphenatedForm) {
    const char* bad[] = {
        "",
        "E621E1F8-C36C-495A-93FC-0C247A3E6E5",     // one short
        "E621E1F8-C36C-495A-93FC-0C247A3E6E5F0",   // one long
        "E621E1F8C36C495A93FC0C247A3E6E5F",        // no hyphens
        "E621E1F-8C36C-495A-93FC-0C247A3E6E5F",    // hyphen one early
        "E621E1F8-C36C-495A-93FC0-C247A3E6E5F",    // hyphen one late
        "E621E1F8-C36C-495A-93FC-0C247A3E6E5G",    // not hex
        "E621E1F8-C36C-495A-93FC-0C247A3E6E-F",    // hyphen where a digit belongs
        "E621E1F8 C36C 495A 93FC 0C247A3E6E5F",    // spaces for hyphens
        "{621E1F8-C36C-495A-93FC-0C247A3E6E5}",    // braces, right length
        " E621E1F8-C36C-495A-93FC-0C247A3E6E5",    // leading space
        "+621E1F8-C36C-495A-93FC-0C247A3E6E5F",    // sign
    };
    for (const char* text : bad) EXPECT_FALSE(UUID::fromString(text)) << '"' << text << '"';
}

}  // namespace
}  // namespace kt
