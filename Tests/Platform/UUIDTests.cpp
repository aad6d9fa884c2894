#include "Platform/UUID.h"

#include <regex>
#include <unordered_set>

#include <gtest/gtest.h>

namespace kt {
namespace {

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
}

TEST(UUIDTests, ParsesEitherCaseIntoTheSameBytes) {
    const auto parsed = UUID::fromString("e621e1f8-C36C-495a-93fc-0C247A3E6E5F");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->uuidString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    EXPECT_EQ(parsed->bytes()[0], 0xE6);
    EXPECT_EQ(parsed->bytes()[15], 0x5F);
    EXPECT_EQ(std::hash<UUID>{}(*parsed), std::hash<UUID>{}(*UUID::fromString("E621E1F8-C36C-495A-93FC-0C247A3E6E5F")));
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

}  // namespace
}  // namespace kt
