#include "Analytics/FirebaseAnalyticsEventFactory.h"

#include <functional>

#include <gtest/gtest.h>

namespace kt {
namespace {

struct Expected {
    std::string operation;
    std::function<FirebaseAnalyticsEvent()> make;
    std::string name;
    AttributeDictionary parameters;
};

// Each screen reaches the factory through its own interface, so the table calls through
// those interfaces where one exists.
std::vector<Expected> vocabulary(const std::shared_ptr<FirebaseAnalyticsEventFactory>& factory) {
    std::shared_ptr<FirebaseAnalyticsEngagementEventsManufacturing> engagement = factory;
    std::shared_ptr<FirebaseAnalyticsProfileEventManufacturing> profile = factory;
    std::shared_ptr<FirebaseStartupTimeEventsManufacturing> startup = factory;
    std::shared_ptr<FirebaseAdsEventsManufacturing> ads = factory;
    std::shared_ptr<FirebaseSettingsEventsManufacturing> settings = factory;
    std::shared_ptr<FirebaseAnalyticsCommentsEventsManufacturing> comments = factory;
    std::shared_ptr<FirebaseAnalyticsPlayerEventsManufacturing> player = factory;
    std::shared_ptr<FirebaseAnalyticsDiscoveryEventsManufacturing> discovery = factory;
    std::shared_ptr<FirebaseAnalyticsBrindleEventsManufacturing> brindle = factory;
    auto none = value::dictionary();
    return {
        {"track like", [=] { return engagement->makeTrackLikeEvent(); }, "track_like", none},
        {"playlist unlike", [=] { return engagement->makePlaylistUnlikeEvent(); }, "playlist_unlike", none},
        {"repost with caption", [=] { return engagement->makeTrackRepostEvent(true); }, "track_repost",
         {{"has_caption", true}}},
        {"repost without caption", [=] { return engagement->makeTrackRepostEvent(false); }, "track_repost",
         {{"has_caption", false}}},
        {"add caption", [=] { return engagement->makeRepostAddCaptionEvent(true); }, "repost_add_caption",
         {{"has_caption", true}}},
        {"unrepost", [=] { return engagement->makeTrackUnrepostEvent(false); }, "track_unrepost",
         {{"has_caption", false}}},
        {"edit repost", [=] { return engagement->makeTrackEditRepostEvent(true); }, "track_edit_repost",
         {{"has_caption", true}}},
        {"start repost", [=] { return engagement->makeTrackStartRepostEvent(); }, "track_start_repost", none},
        {"playlist unrepost", [=] { return engagement->makePlaylistUnrepostEvent(); }, "playlist_unrepost", none},
        {"unfollow", [=] { return engagement->makeUnfollowEvent(); }, "unfollow", none},
        {"profile share", [=] { return profile->makeProfileShare(); }, "profile_share", none},
        {"playlist share", [=] { return factory->makePlaylistShare(); }, "playlist_share", none},
        {"startup 1.5 s", [=] { return startup->makeAppStartupTimeEvent(KTTime::seconds(1.5)); }, "app_startup_time",
         {{"time_in_millis", std::int64_t{1500}}}},
        {"startup truncates", [=] { return startup->makeAppStartupTimeEvent(KTTime(std::chrono::microseconds(2999))); },
         "app_startup_time", {{"time_in_millis", std::int64_t{2}}}},
        {"play checkpoint", [=] { return factory->makePlayCheckpoint("stream"); }, "play_checkpoint",
         {{"origin_screen", "stream"}}},
        {"play checkpoint, empty screen", [=] { return factory->makePlayCheckpoint(""); }, "play_checkpoint",
         {{"origin_screen", ""}}},
        {"ads checkpoint", [=] { return ads->makeAdsCheckpoint(AdType::videoAd); }, "ad_play_checkpoint",
         {{"ad_type", makeAnalyticsString(AdType::videoAd)}}},
        {"first sign-up", [=] { return factory->makeFirstTimeSignUpSuccess(); }, "first_time_sign_up_success", none},
        {"dark mode off", [=] { return settings->makeDarkMode(false); }, "dark_mode", {{"enabled", false}}},
        {"uncomment", [=] { return comments->makeUncommentEvent(); }, "uncomment", none},
        {"view comments", [=] { return comments->makeViewComments(); }, "view_comments", none},
        {"toggle repeat", [=] { return player->makeToggleRepeat(-3); }, "toggle_repeat", {{"mode", std::int64_t{-3}}}},
        {"minimise player", [=] { return player->makeMinimisePlayer(); }, "minimise_player", none},
        {"home page view", [=] { return discovery->makeUIEvoPageView(); }, "ui_evo_home_pageview", none},
        {"liked tracks", [=] { return brindle->makeLikedTracksPageView(); }, "brindle_likes_pageview", none},
        {"uploads", [=] { return brindle->makeUploadsPageView(); }, "uploads_pageview", none},
    };
}

TEST(FirebaseAnalyticsEventFactory, OperationsProduceTheFixedNamesAndParameters) {
    auto factory = std::make_shared<FirebaseAnalyticsEventFactory>();
    for (const auto& expected : vocabulary(factory)) {
        SCOPED_TRACE(expected.operation);
        FirebaseAnalyticsEvent event = expected.make();
        EXPECT_EQ(event.name(), expected.name);
        // Compared as values: a string "1500" or a float would not match an integer.
        EXPECT_EQ(event.parameters(), expected.parameters);
        EXPECT_TRUE(event.parameters().is_object());
        EXPECT_TRUE(event.shouldIncludeExtraUserInfo());
    }
}

TEST(FirebaseAnalyticsEventFactory, NumericParametersAreSixtyFourBitIntegers) {
    FirebaseAnalyticsEventFactory factory;
    auto startup = factory.makeAppStartupTimeEvent(KTTime::seconds(1.5)).parameters().at("time_in_millis");
    EXPECT_TRUE(startup.is_number_integer());
    EXPECT_EQ(startup.get<std::int64_t>(), 1500);

    // Startup times beyond 32 bits of milliseconds (about 25 days) keep every digit.
    auto longTime = factory.makeAppStartupTimeEvent(KTTime(std::chrono::hours(24 * 30)));
    EXPECT_EQ(longTime.parameters().at("time_in_millis").get<std::int64_t>(), std::int64_t{2'592'000'000});

    auto repeat = factory.makeToggleRepeat(std::int64_t{1} << 40).parameters().at("mode");
    EXPECT_TRUE(repeat.is_number_integer());
    EXPECT_EQ(repeat.get<std::int64_t>(), std::int64_t{1} << 40);
}

TEST(FirebaseAnalyticsEventFactory, NamesOfferedForEventsBuiltElsewhere) {
    EXPECT_EQ(FirebaseAnalyticsEventName::playSessionTrigger().name(), "play_session_trigger");
    EXPECT_EQ(FirebaseAnalyticsEventName::systemShareSheetShown().name(), "system_share_sheet_shown");
    EXPECT_EQ(FirebaseAnalyticsEventName::upsellDisappearAfterFirstSignUp().name(),
              "upsell_disappear_after_first_sign_up");
    EXPECT_EQ(FirebaseAnalyticsEventName::upsellExperimentVariantBaseline().name(),
              "upsell_experiment_variant_baseline");
    EXPECT_EQ(FirebaseAnalyticsEventName::upsellExperimentVariantD().name(), "upsell_experiment_variant_d");
    // A constant is one shared instance.
    EXPECT_EQ(&FirebaseAnalyticsEventName::share(), &FirebaseAnalyticsEventName::share());
}

TEST(FirebaseAnalyticsEventFactory, RegistryKeyHoldsTheRedesignInterface) {
    DependencyRegistry registry;
    EXPECT_EQ(registry.get(DependencyKeys::firebaseAnalyticsFactory), nullptr);
    registry.set(DependencyKeys::firebaseAnalyticsFactory,
                 std::shared_ptr<FirebaseAnalyticsBrindleEventsManufacturing>(
                     std::make_shared<FirebaseAnalyticsEventFactory>()));
    EXPECT_EQ(registry.get(DependencyKeys::firebaseAnalyticsFactory)->makeUploadsPageView().name(), "uploads_pageview");
}

}  // namespace
}  // namespace kt
