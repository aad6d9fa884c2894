#include "KTAnalytics/KTFoundation/Urn.h"

#include <tuple>

#include <gtest/gtest.h>

namespace kt {
namespace {

TEST(UrnTests, ParsesCollectionAndIdentifierAndRefusesTextThatIsNotAUrn) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"quillarbor:tracks:123", "tracks", "123"},
        {"quillarbor:system-playlists:weekly-mix", "system-playlists", "weekly-mix"},
        // The identifier keeps inner colons.
        {"quillarbor:system-playlists:daily:quillarbor:users:7", "system-playlists", "daily:quillarbor:users:7"},
    };
    for (const auto& [text, collection, identifier] : cases) {
        const auto urn = Urn::parse(text);
        ASSERT_TRUE(urn.has_value()) << text;
        EXPECT_EQ(urn->collection(), collection);
        EXPECT_EQ(urn->identifier(), identifier);
        EXPECT_EQ(urn->analyticsString(), text);
    }
    EXPECT_NE(Urn::parse("quillarbor:tracks:1"), Urn::parse("quillarbor:users:1"));
    for (const char* text : {
             "", "quillarbor", "quillarbor:", "123", "tracks:123",
             "quillarbor:tracks", "quillarbor:tracks:", "quillarbor::123",  // missing or empty fields
             "other:tracks:123", "Quillarbor:tracks:123", "quillarborx:tracks:123", " quillarbor:tracks:123",
             "quillarbor:Tracks:123", "quillarbor:track5:123",  // collections are lower-case letters and hyphens
             "quillarbor:tracks:12 3", "quillarbor:tracks:123\n", "quillarbor:tracks:\t",  // blanks in the id
         })
        EXPECT_FALSE(Urn::parse(text).has_value()) << ::testing::PrintToString(std::string(text));
}

}  // namespace
}  // namespace kt
