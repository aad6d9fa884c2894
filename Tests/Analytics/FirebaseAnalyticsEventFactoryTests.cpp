#include "KTAnalytics/Analytics/FirebaseAnalyticsEventFactory.h"

#include <functional>

#include <gtest/gtest.h>

namespace kt {
namespace {

using Name = FirebaseAnalyticsEventName;

// The dashboards count events by these exact strings. The constants a factory operation
// builds are spelled out in its table below; these are the others.
TEST(FirebaseAnalyticsEventName, EveryConstantNoOperationBuildsCarriesItsWireName) {
    const std::pair<const Name& (*)(), const char*> table[] = {
        {Name::playSessionTrigger, "play_session_trigger"}, {Name::share, "share"},
        {Name::systemShareSheetShown, "system_share_sheet_shown"}, {Name::upgradeButtonTapped, "upgrade_button_tapped"},
        {Name::homeUpsellClicked, "home_upsell_clicked"}, {Name::purchasePlanViewed, "purchase_plan_viewed"},
        {Name::purchasePlanSelected, "purchase_plan_selected"}, {Name::purchaseSuccessful, "purchase_successful"},
        {Name::upsellDismiss, "upsell_dismiss"},
        {Name::upsellDisappearAfterFirstSignUp, "upsell_disappear_after_first_sign_up"},
        {Name::upsellExperimentVariantBaseline, "upsell_experiment_variant_baseline"},
        {Name::upsellExperimentVariantA, "upsell_experiment_variant_a"},
        {Name::upsellExperimentVariantB, "upsell_experiment_variant_b"},
        {Name::upsellExperimentVariantC, "upsell_experiment_variant_c"},
        {Name::upsellExperimentVariantD, "upsell_experiment_variant_d"},
    };
    for (const auto& [constant, text] : table) EXPECT_EQ(constant().name(), text);
}

// Also compared as text, because 1500 and 1500.0 compare equal as values.
TEST(FirebaseAnalyticsEventFactory, EveryOperationBuildsItsEvent) {
    const FirebaseAnalyticsEventFactory f;
#define E(call) [&] { return f.call; }
    const auto none = value::dictionary();
    const struct {
        std::function<FirebaseAnalyticsEvent()> make;
        const char* name;
        AttributeDictionary parameters;
    } table[] = {
        {E(makeTrackLikeEvent()), "track_like", none}, {E(makeTrackUnlikeEvent()), "track_unlike", none},
        {E(makePlaylistLikeEvent()), "playlist_like", none}, {E(makePlaylistUnlikeEvent()), "playlist_unlike", none},
        {E(makeTrackRepostEvent(true)), "track_repost", {{"has_caption", true}}},
        {E(makeTrackRepostEvent(false)), "track_repost", {{"has_caption", false}}},
        {E(makeRepostAddCaptionEvent(true)), "repost_add_caption", {{"has_caption", true}}},
        {E(makeTrackUnrepostEvent(false)), "track_unrepost", {{"has_caption", false}}},
        {E(makeTrackEditRepostEvent(true)), "track_edit_repost", {{"has_caption", true}}},
        {E(makeTrackStartRepostEvent()), "track_start_repost", none},
        {E(makePlaylistRepostEvent()), "playlist_repost", none},
        {E(makePlaylistUnrepostEvent()), "playlist_unrepost", none}, {E(makeFollowEvent()), "follow", none},
        {E(makeUnfollowEvent()), "unfollow", none}, {E(makeTrackShare()), "track_share", none},
        {E(makePlaylistShare()), "playlist_share", none}, {E(makeProfileShare()), "profile_share", none},
        {E(makeCommentEvent()), "comment", none}, {E(makeUncommentEvent()), "uncomment", none},
        {E(makeViewComments()), "view_comments", none},
        {E(makeAppStartupTimeEvent(KTTime::seconds(1.5))), "app_startup_time",
         {{"time_in_millis", std::int64_t{1500}}}},
        // Whole milliseconds, truncated; beyond 32 bits (30 days) every digit stays.
        {E(makeAppStartupTimeEvent(KTTime(std::chrono::microseconds(2999)))), "app_startup_time",
         {{"time_in_millis", std::int64_t{2}}}},
        {E(makeAppStartupTimeEvent(KTTime(std::chrono::hours(24 * 30)))), "app_startup_time",
         {{"time_in_millis", std::int64_t{2'592'000'000}}}},
        {E(makePlayCheckpoint("stream")), "play_checkpoint", {{"origin_screen", "stream"}}},
        {E(makePlayCheckpoint("")), "play_checkpoint", {{"origin_screen", ""}}},
        {E(makeAdsCheckpoint(AdType::audioAd)), "ad_play_checkpoint", {{"ad_type", "audio_ad"}}},
        {E(makeAdsCheckpoint(AdType::videoAd)), "ad_play_checkpoint", {{"ad_type", "video_ad"}}},
        {E(makeAdsCheckpoint(AdType::interstitial)), "ad_play_checkpoint", {{"ad_type", "interstitial"}}},
        {E(makeAdsCheckpoint(AdType::companionDisplay)), "ad_play_checkpoint", {{"ad_type", "companion_display"}}},
        {E(makeFirstTimeSignUpSuccess()), "first_time_sign_up_success", none},
        {E(makeDarkMode(true)), "dark_mode", {{"enabled", true}}},
        {E(makeDarkMode(false)), "dark_mode", {{"enabled", false}}},
        {E(makeToggleRepeat(-3)), "toggle_repeat", {{"mode", std::int64_t{-3}}}},
        {E(makeToggleRepeat(std::int64_t{1} << 40)), "toggle_repeat", {{"mode", std::int64_t{1} << 40}}},
        {E(makeMinimisePlayer()), "minimise_player", none}, {E(makeUIEvoPageView()), "ui_evo_home_pageview", none},
        {E(makeLikedTracksPageView()), "brindle_likes_pageview", none},
        {E(makeUploadsPageView()), "uploads_pageview", none},
    };
#undef E
    for (const auto& row : table) {
        SCOPED_TRACE(std::string(row.name) + " " + row.parameters.dump());
        const FirebaseAnalyticsEvent event = row.make();
        EXPECT_EQ(event.name(), row.name);
        EXPECT_EQ(event.parameters().dump(), row.parameters.dump());
        EXPECT_TRUE(event.shouldIncludeExtraUserInfo());
    }
}

FirebaseAnalyticsEvent event(const std::string& name, AttributeDictionary parameters = value::dictionary(),
                             bool extraUserInfo = true) {
    return FirebaseAnalyticsEvent(FirebaseAnalyticsEventName(name), std::move(parameters), extraUserInfo);
}

TEST(FirebaseAnalyticsEvent, MissingParametersAreAnEmptyDictionaryAndEqualityIsLoose) {
    const FirebaseAnalyticsEvent empty;
    // `{}` builds a null value; the adapter must still be handed a dictionary.
    const FirebaseAnalyticsEvent braced(FirebaseAnalyticsEventName::follow(), {}, false);
    EXPECT_FALSE(braced.shouldIncludeExtraUserInfo());
    for (const auto* e : {&empty, &braced}) {
        EXPECT_TRUE(e->parameters().is_object());
        EXPECT_TRUE(e->parameters().empty());
    }
    EXPECT_DEATH(event("a", AttributeValue::array({1, 2})), "parameters.is_object\\(\\)");

    // Deduplicating callers rely on the loose rule: name and parameter count only.
    EXPECT_EQ(event("a", {{"x", 1}}, true), event("a", {{"y", "z"}}, false));
    EXPECT_FALSE(event("a") == event("a", {{"x", 1}}));
    EXPECT_FALSE(event("a", {{"x", 1}}) == event("b", {{"x", 1}}));
    EXPECT_FALSE(event("a").isEqual(nullptr));
}

}  // namespace
}  // namespace kt
