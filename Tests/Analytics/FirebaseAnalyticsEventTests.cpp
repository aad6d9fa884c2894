#include "Analytics/FirebaseAnalyticsEvent.h"

#include <gtest/gtest.h>

namespace kt {
namespace {

FirebaseAnalyticsEvent event(const std::string& name, AttributeDictionary parameters = value::dictionary(),
                             bool extraUserInfo = true) {
    return FirebaseAnalyticsEvent(FirebaseAnalyticsEventName(name), std::move(parameters), extraUserInfo);
}

TEST(FirebaseAnalyticsEvent, MissingParametersAreAnEmptyDictionaryAndEqualityIsLoose) {
    const FirebaseAnalyticsEvent empty;
    // `{}` builds a null value; the adapter must still be handed a dictionary.
    const FirebaseAnalyticsEvent braced(FirebaseAnalyticsEventName::follow(), {}, false);
    EXPECT_FALSE(braced.shouldIncludeExtraUserInfo());
    for (const auto* e : {&empty, &braced}) {
        EXPECT_TRUE(e->parameters().is_object());
        EXPECT_TRUE(e->parameters().empty());
    }
    EXPECT_DEATH(event("a", AttributeValue::array({1, 2})), "parameters.is_object\\(\\)");

    // Deduplicating callers rely on the loose rule: name and parameter count only.
    EXPECT_EQ(event("a", {{"x", 1}}, true), event("a", {{"y", "z"}}, false));
    EXPECT_FALSE(event("a") == event("a", {{"x", 1}}));
    EXPECT_FALSE(event("a", {{"x", 1}}) == event("b", {{"x", 1}}));
    EXPECT_FALSE(event("a").isEqual(nullptr));
}

}  // namespace
}  // namespace kt
