// Widget launch URLs: reported as "Widget Item Opened" and cleaned of their markers.

#include <gtest/gtest.h>

#include "Support/RecordingLogger.h"
#include "Support/RecordingBroker.h"
#include "TrackingArchitecture/EventSender.h"
#include "TrackingArchitecture/Widget/WidgetAnalyticsHandler.h"

namespace kt {
namespace {

using testing::RecordingBroker;

TEST(WidgetAnalyticsHandler, ReportsCompleteWidgetURLsAndReturnsThemWithoutTheMarkers) {
    const auto incomplete = [](const char* family, const char* kind) {
        return std::string("Could not get all required parameters to send `Widget Item Opened` event. `widgetFamily` "
                           "enum: `") + family + "`, widgetKind query item: `" + kind + "`";
    };
    const auto opened = [](const char* family, const char* kind) {
        return TrackingEvent{"Widget Item Opened", 2,
                             TrackingProperties{{"tap_type", "none"},
                                                {"widget_family", family},
                                                {"widget_kind", kind},
                                                {"widget_size", std::nullopt}},
                             {}};
    };
    using Lines = std::vector<std::pair<int, std::string>>;
    struct Case {
        std::string url;
        std::string returned;  // the URL itself when it does not match
        std::vector<TrackingEvent> events;
        std::optional<std::string> warning;  // logged before the match
    };
    const std::string base = "https://quillarbor.example/tracks/1";
    const Case cases[] = {
        {base + "?source=widget&widgetKind=nowPlaying&widgetFamily=systemSmall", base, {opened("systemSmall", "nowPlaying")}},
        {base + "?ref=home&source=widget&widgetFamily=accessoryInline&widgetKind=likedTracks&t=2", base + "?ref=home&t=2",
         {opened("accessoryInline", "likedTracks")}},
        // "none" is no family a widget has.
        {base + "?source=widget&widgetKind=nowPlaying&widgetFamily=none", base, {}, incomplete("nil", "nowPlaying")},
        {base + "?source=widget&widgetFamily=systemLarge&widgetKind=NowPlaying", base, {}, incomplete("systemLarge", "nil")},
        {base + "?source=push&widgetKind=nowPlaying&widgetFamily=systemSmall",
         base + "?source=push&widgetKind=nowPlaying&widgetFamily=systemSmall", {}},
        {base + "?source=Widget", base + "?source=Widget", {}},
        {base, base, {}},
        {"https://exa mple.com/?source=widget", "https://exa mple.com/?source=widget", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        auto broker = std::make_shared<RecordingBroker>();
        auto logger = std::make_shared<testing::RecordingLogger>();
        WidgetAnalyticsHandler handler(std::make_shared<EventSender>(broker), logger);
        EXPECT_EQ(handler.handle(c.url), c.returned);
        EXPECT_EQ(broker->events, c.events);
        Lines expected{{0, "checking URL `" + c.url + "`"}};
        if (c.warning) expected.emplace_back(2, *c.warning);
        expected.emplace_back(0, c.returned == c.url ? "URL does not match widget parameters. Returning original URL."
                                                     : "`" + c.url + "` Matched. Removed widget paramers and returning "
                                                       "cleaned URL `" + c.returned + "`");
        Lines logged;
        for (const auto& record : logger->records()) {
            logged.emplace_back(record.level, record.message);
            EXPECT_EQ(record.file, "Sources/TrackingArchitecture/Widget/WidgetAnalyticsHandler");
        }
        EXPECT_EQ(logged, expected);
    }
}

TEST(WidgetAnalyticsHandlerDeathTest, NeedsAnEventSender) {
    EXPECT_DEATH(WidgetAnalyticsHandler(nullptr), "Invalid parameter not satisfying: evenSender");
}

}  // namespace
}  // namespace kt
