#include <tuple>

#include <gtest/gtest.h>

#include "AnalyticsProvider/APEvent.h"
#include "AnalyticsProvider/APEventBuilder.h"
#include "AnalyticsProvider/APEventFormatter.h"
#include "Platform/KeyedArchive.h"

namespace kt {
namespace {

const std::set<std::string> kEventClasses{"APEvent", "string", "number", "dictionary", "array"};

// Same name and attributes as an APEvent, another class.
class OtherDescripting final : public APEventDescripting {
public:
    const std::string& name() const override { return name_; }
    const AttributeDictionary* attributes() const override { return nullptr; }
    std::string name_ = "pageview";
};

TEST(APEventTests, EqualityAndHashHoldAcrossNumberRepresentations) {
    const auto a = APEvent::make("pageview", AttributeDictionary{{"page_name", "stream:main"}, {"n", 1}});
    for (const AttributeValue& n : {AttributeValue(1), AttributeValue(1u), AttributeValue(1.0)}) {
        SCOPED_TRACE(n.type_name());
        const auto b = APEvent::make("pageview", AttributeDictionary{{"n", n}, {"page_name", "stream:main"}});
        EXPECT_TRUE(a->isEqual(b.get()));
        EXPECT_EQ(a->hash(), b->hash());
    }
    // Null attributes equal only null attributes.
    const auto null = APEvent::make("pageview", std::nullopt);
    const auto empty = APEvent::make("pageview", AttributeDictionary::object());
    EXPECT_TRUE(null->isEqual(APEvent::make("pageview", std::nullopt).get()));
    EXPECT_FALSE(null->isEqual(empty.get()));
    EXPECT_FALSE(empty->isEqual(null.get()));
    EXPECT_FALSE(null->isEqual(APEvent::make("click", std::nullopt).get()));
    EXPECT_FALSE(a->isEqual(nullptr));
    OtherDescripting other;
    EXPECT_FALSE(null->isEqual(&other));
    EXPECT_EQ(APEvent::make("pageview", AttributeDictionary{{"x", 1}})->eventGatewayDictionary(),
              (AttributeDictionary{{"event", "pageview"}, {"version", "v1.27.36"}, {"payload", {{"x", 1}}}}));
}

// Attributes, nested values and refused classes are read back by the keyed archive's and
// the event store's suites; only an event without attributes is left to this one.
TEST(APEventTests, AnArchiveWithoutAttributesReadsBackWithout) {
    const auto event = APEvent::make("foreground", std::nullopt);
    std::string error;
    const auto back = APEvent::unarchive(event->archivedData(), kEventClasses, &error);
    ASSERT_TRUE(back) << error;
    EXPECT_TRUE(back->isEqual(event.get()));
}

TEST(APEventTests, ProgrammingErrorsAreFatal) {
    EXPECT_DEATH(APEvent::make(std::nullopt, std::nullopt), "Invalid parameter not satisfying: name");
    EXPECT_DEATH(APEvent::make("pageview", std::nullopt)->eventGatewayDictionary(), "null payload");
    KeyedArchiver nameless(APEvent::kClassName);
    nameless.encodeValue(AttributeDictionary{{"a", 1}}, "_attributes");
    const auto bytes = nameless.finish();
    EXPECT_DEATH(APEvent::unarchive(bytes, kEventClasses, nullptr), "Invalid parameter not satisfying: name");
}

TEST(APEventBuilderTests, AddAttributeTakesTheFiveKindsAndTheRestIsFatal) {
    const auto event = APEventBuilder::builder().name("like").addAttribute("s", "text").addAttribute("n", 1.5)
                           .addAttribute("b", true).addAttribute("a", AttributeValue::array({1, 2}))
                           .addAttribute("d", AttributeDictionary{{"k", "v"}}).addAttribute("z", AttributeValue(nullptr)).build();
    EXPECT_EQ(*event->attributes(), (AttributeDictionary{{"s", "text"}, {"n", 1.5}, {"b", true}, {"a", {1, 2}},
                                                         {"d", {{"k", "v"}}}, {"z", nullptr}}));
    EXPECT_DEATH(APEventBuilder::builder().addAttribute(std::nullopt, 1), "Invalid parameter not satisfying: key");
    EXPECT_DEATH(APEventBuilder::builder().addAttribute("k", std::nullopt), "Invalid parameter not satisfying: value");
    EXPECT_DEATH(APEventBuilder::builder().addAttribute("k", value::date(Date{})),
                 "Invalid parameter not satisfying: \\[value isKindOfClass:NSString.class\\] \\|\\| "
                 "\\[value isKindOfClass:NSNumber.class\\]");
    EXPECT_DEATH(APEventBuilder::builder().build(), "Invalid parameter not satisfying: name");
}

// Reports carry it: only non-empty strings of the relevant keys and the extra ones asked for.
TEST(APEventFormatterTests, ShortDescriptions) {
    const std::vector<std::tuple<std::shared_ptr<const APEvent>, std::vector<std::string>, std::string>> cases = {
        {APEvent::make("click", AttributeDictionary{{"page_name", "stream:main"}, {"click_name", 3}, {"source", ""},
                                                    {"action", nullptr}, {"unrelated", "hidden"}}),
         {}, "click {page_name = stream:main}"},
        {APEvent::make("audio", AttributeDictionary{{"page_name", "tracks:player"}, {"pause_reason", "user"},
                                                    {"track", "quillarbor:tracks:1"}, {"other", "x"}}),
         {"track", "pause_reason", "track"},
         "audio {page_name = tracks:player; pause_reason = user; track = quillarbor:tracks:1}"},
        {APEvent::make("foreground", std::nullopt), {}, "foreground {}"},
    };
    for (const auto& [event, extraKeys, expected] : cases)
        EXPECT_EQ(APEventFormatter::shortDescriptionForEvent(*event, extraKeys), expected);
}

}  // namespace
}  // namespace kt
