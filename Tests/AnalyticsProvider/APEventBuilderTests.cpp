#include <gtest/gtest.h>

#include "AnalyticsProvider/APEventBuilder.h"

namespace kt {
namespace {

TEST(APEventBuilderTests, LaterChangesToTheBuilderDoNotReachBuiltEvents) {
    auto builder = APEventBuilder::builder();
    builder.name("like").addAttribute("track_urn", "quillarbor:tracks:1");
    auto first = builder.build();
    builder.addAttribute("track_urn", "quillarbor:tracks:2").name("unlike");
    auto second = builder.build();

    EXPECT_EQ(first->name(), "like");
    EXPECT_EQ((*first->attributes())["track_urn"], "quillarbor:tracks:1");
    EXPECT_EQ(second->name(), "unlike");
    EXPECT_EQ((*second->attributes())["track_urn"], "quillarbor:tracks:2");
}

TEST(APEventBuilderTests, NullAttributesSwallowLaterAdditions) {
    auto event = APEventBuilder::builder()
                     .name("pageview")
                     .attributes(std::nullopt)
                     .addAttribute("k", "v")
                     .addAttributes(AttributeDictionary{{"x", 1}})
                     .build();
    EXPECT_EQ(event->attributes(), nullptr);
}

TEST(APEventBuilderTests, AddAttributesMergesOverwritingAndWithoutKindChecks) {
    auto event = APEventBuilder::builder()
                     .name("like")
                     .attributes(AttributeDictionary{{"a", 1}, {"b", 2}})
                     .addAttributes(AttributeDictionary{{"b", "two"}, {"when", value::date(Date{})}})
                     .addAttributes(std::nullopt)
                     .build();
    const auto& attributes = *event->attributes();
    EXPECT_EQ(attributes["a"], 1);
    EXPECT_EQ(attributes["b"], "two");
    EXPECT_TRUE(value::isDate(attributes["when"]));
}

TEST(APEventBuilderTests, ClickAndNameInEitherOrder) {
    auto clickLast = APEventBuilder::builder().name("pageview").click("stream:main", "nav", "tab").build();
    EXPECT_EQ(clickLast->name(), "click");

    auto nameLast = APEventBuilder::builder().click(PageName::stream, "nav", "tab").name("navigation").build();
    EXPECT_EQ(nameLast->name(), "navigation");
    EXPECT_EQ(*nameLast->attributes(),
              (AttributeDictionary{{"page_name", "stream:main"}, {"click_category", "nav"}, {"click_name", "tab"}}));
}

TEST(APEventBuilderTests, AddAttributeAcceptsTheFiveKindsAndLastWriteWins) {
    auto event = APEventBuilder::builder()
                     .setName("search")
                     .addAttribute("s", "text")
                     .addAttribute("n", 1.5)
                     .addAttribute("b", true)
                     .addAttribute("a", AttributeValue::array({1, 2}))
                     .addAttribute("d", AttributeDictionary{{"k", "v"}})
                     .addAttribute("z", AttributeValue(nullptr))
                     .addAttribute("n", 2)
                     .build();
    const auto& attributes = *event->attributes();
    EXPECT_EQ(attributes.size(), 6u);
    EXPECT_EQ(attributes["n"], 2);
    EXPECT_TRUE(attributes["z"].is_null());
}

TEST(APEventBuilderTests, BuildThenCallsOnceWithTheSameEvent) {
    int calls = 0;
    const APEventDescripting* seen = nullptr;
    auto event = APEventBuilder::builder().setName("share").build([&](const auto& e) {
        ++calls;
        seen = e.get();
    });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(seen, event.get());
}

TEST(APEventBuilderDeathTests, ParameterChecksAreFatal) {
    EXPECT_DEATH(APEventBuilder::builder().addAttribute(std::nullopt, 1), "Invalid parameter not satisfying: key");
    EXPECT_DEATH(APEventBuilder::builder().addAttribute("k", std::nullopt), "Invalid parameter not satisfying: value");
    EXPECT_DEATH(APEventBuilder::builder().addAttribute("k", value::date(Date{})),
                 "Invalid parameter not satisfying: \\[value isKindOfClass:NSString.class\\] \\|\\| "
                 "\\[value isKindOfClass:NSNumber.class\\]");
    EXPECT_DEATH(APEventBuilder::builder().build(), "Invalid parameter not satisfying: name");
}

}  // namespace
}  // namespace kt
