// Widget launch URLs: reported as "Widget Item Opened" and cleaned of their markers.

#include <gtest/gtest.h>

#include "Support/RecordingLogger.h"
#include "Support/TrackingEventPrinting.h"
#include "TrackingArchitecture/EventSender.h"
#include "TrackingArchitecture/Widget/WidgetAnalyticsHandler.h"

namespace kt {
namespace {

struct RecordingBroker final : EventBrokering {
    std::vector<TrackingEvent> events;
    void track(const TrackingEvent& event) override { events.push_back(event); }
    void identify(const std::string&, const AttributeValue&) override {}
    void flush() override {}
};

TEST(WidgetAnalyticsHandler, ReportsCompleteWidgetURLsAndReturnsThemWithoutTheMarkers) {
    const std::string matched = " Matched. Removed widget paramers and returning cleaned URL ";
    const std::string noMatch = "URL does not match widget parameters. Returning original URL.";
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
        std::string returned;
        std::vector<TrackingEvent> events;
        std::vector<std::pair<int, std::string>> extraLines;  // after "checking URL"
    };
    const std::string base = "https://quillarbor.example/tracks/1";
    const Case cases[] = {
        {base + "?source=widget&widgetKind=nowPlaying&widgetFamily=systemSmall", base,
         {opened("systemSmall", "nowPlaying")},
         {{0, "`" + base + "?source=widget&widgetKind=nowPlaying&widgetFamily=systemSmall`" + matched + "`" + base + "`"}}},
        {base + "?ref=home&source=widget&widgetFamily=accessoryInline&widgetKind=likedTracks&t=2", base + "?ref=home&t=2",
         {opened("accessoryInline", "likedTracks")},
         {{0, "`" + base + "?ref=home&source=widget&widgetFamily=accessoryInline&widgetKind=likedTracks&t=2`" + matched +
                  "`" + base + "?ref=home&t=2`"}}},
        // "none" is no family a widget has.
        {base + "?source=widget&widgetKind=nowPlaying&widgetFamily=none", base, {},
         {{2, incomplete("nil", "nowPlaying")},
          {0, "`" + base + "?source=widget&widgetKind=nowPlaying&widgetFamily=none`" + matched + "`" + base + "`"}}},
        {base + "?source=widget&widgetFamily=systemLarge&widgetKind=NowPlaying", base, {},
         {{2, incomplete("systemLarge", "nil")},
          {0, "`" + base + "?source=widget&widgetFamily=systemLarge&widgetKind=NowPlaying`" + matched + "`" + base + "`"}}},
        {base + "?source=push&widgetKind=nowPlaying&widgetFamily=systemSmall",
         base + "?source=push&widgetKind=nowPlaying&widgetFamily=systemSmall", {}, {{0, noMatch}}},
        {base + "?source=Widget", base + "?source=Widget", {}, {{0, noMatch}}},
        {base, base, {}, {{0, noMatch}}},
        {"https://exa mple.com/?source=widget", "https://exa mple.com/?source=widget", {}, {{0, noMatch}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        auto broker = std::make_shared<RecordingBroker>();
        auto logger = std::make_shared<testing::RecordingLogger>();
        WidgetAnalyticsHandler handler(std::make_shared<EventSender>(broker), logger);
        EXPECT_EQ(handler.handle(c.url), c.returned);
        EXPECT_EQ(broker->events, c.events);
        Lines expected{{0, "checking URL `" + c.url + "`"}};
        expected.insert(expected.end(), c.extraLines.begin(), c.extraLines.end());
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
