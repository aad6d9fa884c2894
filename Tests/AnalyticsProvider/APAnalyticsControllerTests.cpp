#include <gtest/gtest.h>

#include "KTAnalytics/AnalyticsProvider/APAnalyticsController.h"
#include "KTAnalytics/AnalyticsProvider/APBaseAnalyticsProvider.h"
#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "Support/RecordingTechLogger.h"
#include "Support/RecordingUploader.h"

namespace kt {
namespace {

// Records into a log shared by all providers of one test, so the order across providers shows.
struct TrackingProvider : APBaseAnalyticsProvider {
    TrackingProvider(std::vector<std::string>& log, std::string label, std::vector<std::string> tracked = {})
        : names(std::make_shared<const EventNameSet>(tracked.begin(), tracked.end())), log(log), label(std::move(label)) {}
    std::shared_ptr<const EventNameSet> trackedEvents() const override { return names; }
    void tagEvent(const std::shared_ptr<const APEventDescripting>& e) override { log.push_back(label + ":" + e->name()); }
    void flush() override { log.push_back(label + ":flush"); }
    std::shared_ptr<const EventNameSet> names;
    std::vector<std::string>& log;
    std::string label;
};
struct PageviewProvider final : TrackingProvider {
    using TrackingProvider::TrackingProvider;
};
struct SilentProvider final : APBaseAnalyticsProvider {};

struct ControllerFixture : ::testing::Test {
    std::shared_ptr<testing::RecordingUploader> uploader = std::make_shared<testing::RecordingUploader>();
    std::shared_ptr<testing::RecordingTechLogger> techLogger = std::make_shared<testing::RecordingTechLogger>();
    APAnalyticsController controller{uploader, std::make_shared<APEventNames>(), techLogger};
    std::vector<std::string> log;
};

TEST_F(ControllerFixture, DispatchesByTrackedNameInRegistrationOrderAndReportsUnusedEvents) {
    using Names = std::vector<std::string>;
    controller.registerAnalyticsProvider(std::make_shared<TrackingProvider>(log, "first", Names{"like", "audio"}));
    controller.registerAnalyticsProvider(std::make_shared<PageviewProvider>(log, "second", Names{"pageview", "like"}));
    controller.registerAnalyticsProvider(std::make_shared<SilentProvider>());
    controller.tagEvent(APEvent::make("pageview", AttributeDictionary{{"page_name", "stream:main"}}));
    controller.tagEvent(APEvent::make("like", std::nullopt));
    controller.tagEvent(APEvent::make("audio", AttributeDictionary{{"track", "quillarbor:tracks:5"},
                                                                   {"pause_reason", "buffer"}, {"ignored", "x"}}));
    controller.tagEvent(APEvent::make("sign_up", AttributeDictionary{{"method", "email"}}));
    controller.flush();
    controller.uploadFailedEvents();

    EXPECT_EQ(log, (std::vector<std::string>{"second:pageview", "first:like", "second:like", "first:audio",
                                             "first:flush", "second:flush"}));
    EXPECT_EQ(controller.trackedEvents(), (EventNameSet{"like", "audio", "pageview"}));
    EXPECT_EQ(uploader->failedUploads, 1);
    EXPECT_EQ(techLogger->events(), std::vector<TechEvent>{TechEvent("unused_event", 1).addAttribute("event", "sign_up")});
    // Without a tech logger the unused event is only logged.
    APAnalyticsController bare(uploader, std::make_shared<APEventNames>(), nullptr);
    bare.tagEvent(APEvent::make("follow", std::nullopt));
}

TEST_F(ControllerFixture, ProgrammingErrorsAreFatal) {
    EXPECT_DEATH(controller.tagEvent(APEvent::make("Pageview", std::nullopt)), "unknown event name Pageview");
    EXPECT_DEATH(controller.tagEvent(nullptr), "Invalid parameter not satisfying: event");
    EXPECT_DEATH(controller.registerAnalyticsProvider(nullptr), "Invalid parameter not satisfying: provider");
    EXPECT_DEATH(APAnalyticsController(nullptr, std::make_shared<APEventNames>(), nullptr),
                 "Invalid parameter not satisfying: uploader");
    EXPECT_DEATH(APAnalyticsController(uploader, nullptr, nullptr), "Invalid parameter not satisfying: eventNames");
    controller.registerAnalyticsProvider(std::make_shared<SilentProvider>());
    EXPECT_DEATH(controller.registerAnalyticsProvider(std::make_shared<SilentProvider>()),
                 "Provider with same class already exists");
    EXPECT_DEATH(APAnalyticsController::sharedInstance(), "Accessed sharedInstance before it was prepared");
}

TEST(APEventNamesTests, TheVocabularyIsTheFixedFortyOneNames) {
    EXPECT_EQ(APEventNames().supportedEventNames(),
              (std::vector<std::string>{
                  "ad_request", "ad_delivery", "audio", "audio_error", "audio_performance", "audiocopy_click",
                  "auth_prompt", "authentication::initiate", "authentication::abort",
                  "clickthrough::companion_display", "clickthrough::consumer_sub_ad", "clickthrough::interstitial",
                  "clickthrough::video_ad", "clickthrough::app_install", "close_tour", "dismiss::consumer_sub_ad",
                  "follow", "foreground", "forgot_password", "impression", "like", "list_view_interaction",
                  "navigation", "offline_sync", "pageview", "play_control", "promoted_event",
                  "rich_media_stream_error", "rich_media_stream", "rich_media_stream_performance", "related_tracks",
                  "repost", "search", "share", "share::prompt", "sign_in", "sign_up", "unfollow", "unlike",
                  "unrepost", "click"}));
}

}  // namespace
}  // namespace kt
