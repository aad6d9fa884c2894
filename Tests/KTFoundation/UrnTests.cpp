#include "KTFoundation/Urn.h"

#include <gtest/gtest.h>

namespace kt {
namespace {

TEST(UrnTests, ParsesCollectionAndIdentifier) {
    auto track = Urn::parse("quillarbor:tracks:123");
    ASSERT_TRUE(track.has_value());
    EXPECT_EQ(track->collection(), "tracks");
    EXPECT_EQ(track->identifier(), "123");
    EXPECT_EQ(track->stringValue(), "quillarbor:tracks:123");
    EXPECT_EQ(track->analyticsString(), "quillarbor:tracks:123");
    EXPECT_TRUE(track->isTrack());
    EXPECT_FALSE(track->isSystemPlaylist());

    auto user = Urn::parse("quillarbor:users:7");
    ASSERT_TRUE(user.has_value());
    EXPECT_TRUE(user->isUser());
    EXPECT_EQ(user->identifier(), "7");
}

TEST(UrnTests, TellsSystemPlaylistsFromOrdinaryOnes) {
    auto system = Urn::parse("quillarbor:system-playlists:weekly-mix");
    ASSERT_TRUE(system.has_value());
    EXPECT_TRUE(system->isSystemPlaylist());
    EXPECT_FALSE(system->isPlaylist());
    EXPECT_EQ(system->identifier(), "weekly-mix");

    auto playlist = Urn::parse("quillarbor:playlists:42");
    ASSERT_TRUE(playlist.has_value());
    EXPECT_FALSE(playlist->isSystemPlaylist());
    EXPECT_TRUE(playlist->isPlaylist());
}

TEST(UrnTests, IdentifierKeepsInnerColons) {
    auto urn = Urn::parse("quillarbor:system-playlists:daily:quillarbor:users:7");
    ASSERT_TRUE(urn.has_value());
    EXPECT_EQ(urn->collection(), "system-playlists");
    EXPECT_EQ(urn->identifier(), "daily:quillarbor:users:7");
    EXPECT_TRUE(urn->isSystemPlaylist());
}

TEST(UrnTests, RefusesTextThatIsNotAUrn) {
    for (const char* text : {
             "",
             "quillarbor",
             "quillarbor:",
             "quillarbor:tracks",        // no id at all
             "quillarbor:tracks:",       // empty id
             "quillarbor::123",          // empty collection
             "tracks:123",               // missing scheme
             "123",
             "other:tracks:123",         // wrong scheme
             "Quillarbor:tracks:123",    // the scheme is lower case
             "quillarborx:tracks:123",
             " quillarbor:tracks:123",
             "quillarbor:Tracks:123",    // collections are lower-case letters and hyphens
             "quillarbor:track5:123",
             "quillarbor:tracks:12 3",   // blanks in the id
             "quillarbor:tracks:123\n",
             "quillarbor:tracks:\t",
         }) {
        EXPECT_FALSE(Urn::parse(text).has_value()) << '"' << text << '"';
    }
}

TEST(UrnTests, EqualityFollowsTheText) {
    EXPECT_EQ(Urn::parse("quillarbor:tracks:1"), Urn::parse("quillarbor:tracks:1"));
    EXPECT_NE(Urn::parse("quillarbor:tracks:1"), Urn::parse("quillarbor:users:1"));
}

}  // namespace
}  // namespace kt
