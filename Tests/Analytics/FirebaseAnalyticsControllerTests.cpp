#include "Analytics/FirebaseAnalyticsController.h"

#include <atomic>

#include <gtest/gtest.h>

#include "Support/RecordingFirebaseAnalytics.h"

namespace kt {
namespace {

using testing::FirebaseCall;
using testing::RecordingFirebaseAnalytics;

class SwitchablePrivacySettings final : public PrivacySettingsStoring {
public:
    std::atomic<bool> trackingEnabled{true};
    mutable std::atomic<int> questions{0};

    bool isAnalyticsTrackingEnabled() const override {
        ++questions;
        return trackingEnabled;
    }
    bool isTargetedAdvertisingEnabled() const override { return true; }
    std::optional<std::string> iabConsentString() const override { return "consent"; }
    bool isiOSAdvertisingTrackingEnabled() const override { return true; }
    void updateWithPrivacySettings(const PrivacySettings&) override {}
    void resetPrivacySettings() override {}
    std::string analticsIdStorageKey() const override { return "analytics_id"; }
};

struct FirebaseAnalyticsControllerTest : ::testing::Test {
    std::shared_ptr<RecordingFirebaseAnalytics> wrapper = std::make_shared<RecordingFirebaseAnalytics>();
    std::shared_ptr<SwitchablePrivacySettings> privacy = std::make_shared<SwitchablePrivacySettings>();
    FirebaseAnalyticsController controller{wrapper, privacy};

    void callAllThree(const std::string& tag) {
        controller.logEvent("named_" + tag, {{"k", tag}});
        controller.trackScreen("screen_" + tag);
        controller.log(FirebaseAnalyticsEvent(FirebaseAnalyticsEventName("event_" + tag)));
    }
};

TEST_F(FirebaseAnalyticsControllerTest, ConsentIsAskedOnEveryCallAndWithdrawnCallsAreNeverSent) {
    callAllThree("before");
    privacy->trackingEnabled = false;
    callAllThree("withdrawn");
    callAllThree("withdrawn_again");
    privacy->trackingEnabled = true;
    callAllThree("after");

    EXPECT_EQ(privacy->questions.load(), 12);
    std::vector<std::string> names;
    for (const auto& call : wrapper->calls())
        names.push_back(call.name);
    EXPECT_EQ(names, (std::vector<std::string>{"named_before", "screen_before", "event_before", "named_after",
                                               "screen_after", "event_after"}));
    EXPECT_EQ(controller.callCounts().forwarded, 6u);
    EXPECT_EQ(controller.callCounts().suppressed, 6u);
}

TEST_F(FirebaseAnalyticsControllerTest, ForwardsWhatEachOperationWasGiven) {
    controller.logEvent("a", {{"x", 1}, {"y", "z"}});
    controller.log(FirebaseAnalyticsEvent(FirebaseAnalyticsEventName("b"), {{"has_caption", false}}, false));
    controller.log(FirebaseAnalyticsEvent(FirebaseAnalyticsEventName("c"), value::dictionary(), true));
    controller.trackScreen("Home");

    auto calls = wrapper->calls();
    ASSERT_EQ(calls.size(), 4u);

    EXPECT_EQ(calls[0].kind, FirebaseCall::Kind::event);
    EXPECT_EQ(calls[0].parameters, (AttributeDictionary{{"x", 1}, {"y", "z"}}));
    // Plain named events always ask for extra user information...
    EXPECT_EQ(calls[0].shouldIncludeExtraUserInfo, std::optional<bool>(true));
    // ...events carry their own flag, false included.
    EXPECT_EQ(calls[1].parameters, (AttributeDictionary{{"has_caption", false}}));
    EXPECT_EQ(calls[1].shouldIncludeExtraUserInfo, std::optional<bool>(false));
    EXPECT_EQ(calls[2].shouldIncludeExtraUserInfo, std::optional<bool>(true));

    EXPECT_EQ(calls[3].kind, FirebaseCall::Kind::screen);
    EXPECT_EQ(calls[3].name, "Home");
}

TEST_F(FirebaseAnalyticsControllerTest, EmptyParametersArePassedAsAnEmptyDictionary) {
    controller.logEvent("plain", value::dictionary());
    controller.logEvent("braced", {});
    controller.log(FirebaseAnalyticsEvent(FirebaseAnalyticsEventName("event")));

    auto calls = wrapper->calls();
    ASSERT_EQ(calls.size(), 3u);
    for (const auto& call : calls) {
        EXPECT_TRUE(call.parameters.is_object()) << call.name;
        EXPECT_TRUE(call.parameters.empty()) << call.name;
    }
}

TEST_F(FirebaseAnalyticsControllerTest, IsReachableThroughTheRegistryKeyAndTheFoundationInterface) {
    auto shared = std::make_shared<FirebaseAnalyticsController>(wrapper, privacy);
    DependencyRegistry registry;
    EXPECT_EQ(registry.get(DependencyKeys::firebaseAnalyticsLogger), nullptr);
    registry.set(DependencyKeys::firebaseAnalyticsLogger, std::shared_ptr<FirebaseAnalyticsLogging>(shared));
    registry.get(DependencyKeys::firebaseAnalyticsLogger)->log(FirebaseAnalyticsEvent(FirebaseAnalyticsEventName("x")));

    std::shared_ptr<FirebaseAnalyticsControlling> controlling = shared;
    controlling->logEvent("y", {});
    ASSERT_EQ(wrapper->calls().size(), 2u);
    EXPECT_EQ(wrapper->calls()[1].name, "y");
}

TEST(FirebaseAnalyticsControllerDeathTest, MissingCollaboratorsAreAProgrammingError) {
    auto wrapper = std::make_shared<RecordingFirebaseAnalytics>();
    auto privacy = std::make_shared<SwitchablePrivacySettings>();
    EXPECT_DEATH(FirebaseAnalyticsController(nullptr, privacy),
                 "Invalid parameter not satisfying: firebaseAnalyticsWrapper");
    EXPECT_DEATH(FirebaseAnalyticsController(wrapper, nullptr),
                 "Invalid parameter not satisfying: privacySettingsStorage");
}

}  // namespace
}  // namespace kt
