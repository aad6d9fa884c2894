#include "KTAnalytics/Analytics/FirebaseAnalyticsController.h"

#include <atomic>
#include <sstream>
#include <tuple>

#include <gtest/gtest.h>

#include "KTAnalytics/Analytics/ConsoleFirebaseAnalytics.h"
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
    controller.logEvent("braced", {});
    controller.log(FirebaseAnalyticsEvent(FirebaseAnalyticsEventName("b"), {{"has_caption", false}}, false));
    controller.log(FirebaseAnalyticsEvent(FirebaseAnalyticsEventName("c")));
    controller.trackScreen("Home");

    std::vector<std::string> calls;
    for (const auto& call : wrapper->calls()) {
        calls.push_back((call.kind == FirebaseCall::Kind::screen ? "screen " : "event ") + call.name + " " +
                        call.parameters.dump() + " " + ::testing::PrintToString(call.shouldIncludeExtraUserInfo));
    }
    // Plain named events always ask for extra user information; events carry their own flag.
    EXPECT_EQ(calls, (std::vector<std::string>{R"(event a {"x":1,"y":"z"} (true))", "event braced {} (true)",
                                               R"(event b {"has_caption":false} (false))", "event c {} (true)",
                                               "screen Home null (nullopt)"}));
}

TEST(ConsoleFirebaseAnalytics, WritesOneLinePerCallAndCountsByKind) {
    std::ostringstream out;
    ConsoleFirebaseAnalytics console(out);
    FirebaseAnalyticsWrapping& wrapping = console;
    FirebaseAnalyticsProviding& providing = console;

    wrapping.logEventWithName("track_repost", {{"has_caption", false}}, true);
    wrapping.logEventWithName("follow", value::dictionary(), false);
    wrapping.trackScreenWithName("Stream");
    providing.logEventWithName("share", {{"target", "copy link"}});
    providing.setScreenName("Library", "LibraryScreen");
    providing.setUserIdentifier("user-7");
    providing.setUserProperty("peak_band", "subscription_status");

    EXPECT_EQ(out.str(),
              "firebase: event track_repost [\"has_caption\": false] (with user info)\n"
              "firebase: event follow [:] (without user info)\n"
              "firebase: screen Stream\n"
              "firebase: event share [\"target\": \"copy link\"]\n"
              "firebase: screen Library (class LibraryScreen)\n"
              "firebase: user id \"user-7\"\n"
              "firebase: user property subscription_status = \"peak_band\"\n");
    const auto counts = console.counts();
    EXPECT_EQ(std::tuple(counts.events, counts.screens, counts.userIdentifiers, counts.userProperties, counts.total()),
              std::tuple(3u, 2u, 1u, 1u, 7u));
}

}  // namespace
}  // namespace kt
