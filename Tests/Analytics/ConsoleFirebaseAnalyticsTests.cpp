#include "Analytics/ConsoleFirebaseAnalytics.h"

#include <sstream>
#include <tuple>

#include <gtest/gtest.h>

#include "Analytics/FirebaseAnalyticsController.h"

namespace kt {
namespace {

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
