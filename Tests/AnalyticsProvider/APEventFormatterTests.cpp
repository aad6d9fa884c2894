#include <gtest/gtest.h>

#include "AnalyticsProvider/APEvent.h"
#include "AnalyticsProvider/APEventFormatter.h"

namespace kt {
namespace {

TEST(APEventFormatterTests, KeepsOnlyNonEmptyStringsOfRelevantKeys) {
    auto event = APEvent::make("click", AttributeDictionary{{"page_name", "stream:main"},
                                                            {"click_name", 3},
                                                            {"source", ""},
                                                            {"action", nullptr},
                                                            {"unrelated", "hidden"}});
    EXPECT_EQ(APEventFormatter::shortDescriptionForEvent(*event), "click {page_name = stream:main}");
}

TEST(APEventFormatterTests, ExtraKeysAddToTheRelevantOnes) {
    auto event = APEvent::make("audio", AttributeDictionary{{"page_name", "tracks:player"},
                                                            {"pause_reason", "user"},
                                                            {"track", "quillarbor:tracks:1"},
                                                            {"other", "x"}});
    EXPECT_EQ(APEventFormatter::shortDescriptionForEvent(*event, {"track", "pause_reason", "track"}),
              "audio {page_name = tracks:player; pause_reason = user; track = quillarbor:tracks:1}");
}

TEST(APEventFormatterTests, NullAttributesGiveAnEmptyDictionary) {
    EXPECT_EQ(APEventFormatter::shortDescriptionForEvent(*APEvent::make("foreground", std::nullopt)), "foreground {}");
}

}  // namespace
}  // namespace kt
