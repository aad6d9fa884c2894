// `ktanalytics plan`: the tracking plan listed by the built tool.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Support/TemporaryDirectory.h"
#include "Tool/ToolProcess.h"

namespace kt::tool {
namespace {

using nlohmann::ordered_json;

TEST(PlanCommand, ListsEveryOperationAsJsonWithItsEventVersionThirdPartiesAndKeyKinds) {
    ::kt::testing::TemporaryDirectory directory{"kt-plan"};
    const auto run = testing::runTool({"plan", "--json"}, directory.path());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto listed = ordered_json::parse(run.out);
    ASSERT_EQ(listed.size(), 206u);
    std::map<std::string, ordered_json> byOperation;
    for (const auto& entry : listed) byOperation[entry.at("operation").get<std::string>()] = entry;
    EXPECT_EQ(byOperation.size(), 206u) << "one entry per operation";

    // feedPlaybackEnd alone spells its impression id without "item".
    const auto expected = ordered_json::parse(R"([
      {"operation": "accountCreationSucceeded", "event": "Account Creation Succeeded", "version": 2,
       "thirdParties": [], "properties": [{"key": "is_new_connect", "kind": "plain"},
         {"key": "signin_to_signup", "kind": "plain"}, {"key": "signup_method", "kind": "plain"},
         {"key": "referrer_properties", "kind": "plain"}]},
      {"operation": "accountDeletionCanceled", "event": "Account Deletion Canceled", "version": 1,
       "thirdParties": [], "properties": []},
      {"operation": "playQueueInitiated", "event": "Play Queue Initiated", "version": 2,
       "thirdParties": ["mo-engage"], "properties": [{"key": "object_urn", "kind": "urn"},
         {"key": "track_urns", "kind": "urn list"}]},
      {"operation": "widgetItemOpened", "event": "Widget Item Opened", "version": 2, "thirdParties": [],
       "properties": [{"key": "tap_type", "kind": "WidgetItemOpenedTapType",
           "cases": ["entire_widget", "none", "track", "user"]},
         {"key": "widget_family", "kind": "WidgetItemOpenedWidgetFamily",
           "cases": ["accessoryCircular", "accessoryInline", "accessoryRectangular", "none", "systemExtraLarge",
                     "systemLarge", "systemMedium", "systemSmall"]},
         {"key": "widget_kind", "kind": "WidgetItemOpenedWidgetKind",
           "cases": ["launcher", "likedTracks", "nowPlaying", "playlist"]}, {"key": "widget_size", "kind": "plain"}]},
      {"operation": "tracksAddedToPlayQueue", "event": "Tracks Added To Play Queue", "version": 1,
       "thirdParties": [], "properties": [{"key": "from", "kind": "TracksAddedToPlayQueueFrom",
         "cases": ["autoplay", "next_up", "fetch_more", "play_next", "play_last"]},
         {"key": "track_urns", "kind": "urn list"}]},
      {"operation": "feedPlaybackEnd", "event": "Feed Playback End", "version": 1, "thirdParties": [],
       "properties": [{"key": "feed_item_owner_urn", "kind": "urn"}, {"key": "feed_item_type", "kind": "plain"},
         {"key": "feed_item_urn", "kind": "urn"}, {"key": "feed_impression_id", "kind": "plain"},
         {"key": "reason_type", "kind": "plain"}, {"key": "seed_urn", "kind": "urn"},
         {"key": "track_owner_urn", "kind": "urn"}, {"key": "track_urn", "kind": "urn"}]},
      {"operation": "dsaAdReceived", "event": "DSA Ad Received", "version": 1, "thirdParties": [],
       "properties": [{"key": "has_advertiser", "kind": "plain"}, {"key": "has_age", "kind": "plain"},
         {"key": "has_region", "kind": "plain"}]}
    ])");
    for (const auto& entry : expected) {
        // Dumped, so that the order of the members counts too.
        EXPECT_EQ(byOperation[entry.at("operation").get<std::string>()].dump(), entry.dump());
    }
}

TEST(PlanCommand, ShowsOneOperationWithItsEnumerationsStringsAndRefusesUnknownOnes) {
    ::kt::testing::TemporaryDirectory directory{"kt-plan"};
    const auto shown = testing::runTool({"plan", "tracksAddedToPlayQueue"}, directory.path());
    EXPECT_EQ(shown.exitCode, 0) << shown.err;
    EXPECT_EQ(shown.out,
              "tracksAddedToPlayQueue\n"
              "  event: \"Tracks Added To Play Queue\"\n"
              "  version: 1\n"
              "  properties:\n"
              "    from: TracksAddedToPlayQueueFrom\n"
              "      0 \"autoplay\"\n"
              "      1 \"next_up\"\n"
              "      2 \"fetch_more\"\n"
              "      3 \"play_next\"\n"
              "      4 \"play_last\"\n"
              "    track_urns: list of urns\n");

    const auto unknown = testing::runTool({"plan", "trackLoved"}, directory.path());
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_EQ(unknown.out, "");
    EXPECT_NE(unknown.err.find("no operation named 'trackLoved'"), std::string::npos) << unknown.err;

    const auto listing = testing::runTool({"plan"}, directory.path());
    EXPECT_EQ(listing.exitCode, 0);
    EXPECT_NE(listing.out.find("playlistAddedToDownloads  \"Playlist Added To Downloads\"  v1  [mo-engage]\n"
                               "    playlist_urn\n"),
              std::string::npos)
        << listing.out;
    EXPECT_NE(listing.out.find("206 operations, 126 enumerations\n"), std::string::npos);
}

}  // namespace
}  // namespace kt::tool
