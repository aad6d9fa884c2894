#include "Analytics/FirebaseAnalyticsEvent.h"

#include <gtest/gtest.h>

namespace kt {
namespace {

FirebaseAnalyticsEvent event(const std::string& name, AttributeDictionary parameters = value::dictionary(),
                             bool extraUserInfo = true) {
    return FirebaseAnalyticsEvent(FirebaseAnalyticsEventName(name), std::move(parameters), extraUserInfo);
}

TEST(FirebaseAnalyticsEvent, ArgumentlessEventHasEmptyNameAndParametersAndAsksForUserInfo) {
    FirebaseAnalyticsEvent empty;
    EXPECT_EQ(empty.name(), "");
    EXPECT_TRUE(empty.parameters().is_object());
    EXPECT_TRUE(empty.parameters().empty());
    EXPECT_TRUE(empty.shouldIncludeExtraUserInfo());
}

TEST(FirebaseAnalyticsEvent, DefaultsAndNullParametersMeanAnEmptyDictionary) {
    FirebaseAnalyticsEvent named(FirebaseAnalyticsEventName::trackLike());
    EXPECT_EQ(named.name(), "track_like");
    EXPECT_TRUE(named.parameters().is_object());
    EXPECT_TRUE(named.shouldIncludeExtraUserInfo());

    // `{}` builds a null value; it must still read as an empty dictionary.
    FirebaseAnalyticsEvent braced(FirebaseAnalyticsEventName::follow(), {}, false);
    EXPECT_TRUE(braced.parameters().is_object());
    EXPECT_FALSE(braced.shouldIncludeExtraUserInfo());
}

TEST(FirebaseAnalyticsEventDeathTest, ParametersThatAreNotADictionaryAreAProgrammingError) {
    EXPECT_DEATH(event("a", AttributeValue::array({1, 2})),
                 "Invalid parameter not satisfying: parameters.is_object\\(\\)");
}

TEST(FirebaseAnalyticsEvent, EqualityComparesNameAndParameterCountOnly) {
    EXPECT_EQ(event("a", {{"x", 1}}), event("a", {{"y", "z"}}));
    EXPECT_EQ(event("a", {{"x", 1}}, true), event("a", {{"x", 2}}, false));
    EXPECT_FALSE(event("a") == event("a", {{"x", 1}}));
    EXPECT_FALSE(event("a") == event("b"));
    EXPECT_FALSE(event("a", {{"x", 1}}) == event("b", {{"x", 1}}));

    auto a = event("a");
    EXPECT_TRUE(a.isEqual(&a));
    EXPECT_FALSE(a.isEqual(nullptr));
}

TEST(FirebaseAnalyticsEvent, DescriptionWritesParametersInDictionaryLiteralNotation) {
    EXPECT_EQ(event("track_like").description(), "name: track_like, parameters: [:]");
    EXPECT_EQ(event("track_repost", {{"has_caption", false}}).description(),
              "name: track_repost, parameters: [\"has_caption\": false]");

    struct Case {
        AttributeDictionary parameters;
        std::string rendered;
    };
    const Case cases[] = {
        {{{"origin_screen", "home"}}, R"(["origin_screen": "home"])"},
        {{{"origin_screen", ""}}, R"(["origin_screen": ""])"},
        {{{"time_in_millis", std::int64_t{1500}}}, R"(["time_in_millis": 1500])"},
        {{{"mode", -2}}, R"(["mode": -2])"},
        // Several keys: sorted, separated by a comma and a space.
        {{{"b", true}, {"a", 1}}, R"(["a": 1, "b": true])"},
        // Quotes, backslashes, apostrophes and control characters are escaped.
        {{{"q", "say \"hi\"\\ it's\n\x01"}}, R"(["q": "say \"hi\"\\ it\'s\n\u{1}"])"},
        {{{"utf8", "café"}}, R"(["utf8": "café"])"},
        // Floating-point numbers always show a fraction or an exponent.
        {{{"f", 1.0}}, R"(["f": 1.0])"},
        {{{"f", 1.5}}, R"(["f": 1.5])"},
        {{{"f", 0.1}}, R"(["f": 0.1])"},
        {{{"f", -250.0}}, R"(["f": -250.0])"},
        {{{"f", 0.0001}}, R"(["f": 0.0001])"},
        {{{"f", 0.00001}}, R"(["f": 1e-05])"},
        {{{"f", 1e15}}, R"(["f": 1000000000000000.0])"},
        {{{"f", 1e16}}, R"(["f": 1e+16])"},
        {{{"list", {1, "x"}}, {"empty", AttributeValue::array()}}, R"(["empty": [], "list": [1, "x"]])"},
        {{{"nested", {{"k", 1}}}, {"none", value::dictionary()}}, R"(["nested": ["k": 1], "none": [:]])"},
        {{{"n", nullptr}}, R"(["n": <null>])"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(event("e", c.parameters).description(), "name: e, parameters: " + c.rendered)
            << c.parameters.dump();
}

}  // namespace
}  // namespace kt
