#include "AnalyticsProvider/EventGateway/APEventGatewayEventTransformer.h"

#include <gtest/gtest.h>

#include "AnalyticsProvider/APEvent.h"

namespace kt {
namespace {

class FixedAttributesProvider final : public EventGatewayAttributesProviding {
public:
    explicit FixedAttributesProvider(AttributeDictionary base) : base_(std::move(base)) {}
    AttributeDictionary baseAttributesFor(const APEventDescripting& event) const override {
        asked.push_back(event.name());
        return base_;
    }
    mutable std::vector<std::string> asked;

private:
    AttributeDictionary base_;
};

std::shared_ptr<const APEvent> transformed(const APEventGatewayEventTransformer& transformer,
                                           const APEventDescripting& event) {
    auto result = std::dynamic_pointer_cast<const APEvent>(transformer.transform(event));
    EXPECT_TRUE(result) << "the gateway uploads only APEvents";
    return result;
}

TEST(APEventGatewayEventTransformerTest, MergesBaseAttributesAndDropsTheIgnoredKeys) {
    auto provider = std::make_shared<FixedAttributesProvider>(AttributeDictionary{{"session_id", "S"}, {"ts", 5}});
    APEventGatewayEventTransformer transformer(provider);
    const auto input = APEvent::make(
        "like", AttributeDictionary{{"resource", "track"}, {"resource_id", 12}, {"set", "p"}, {"x", {1, 2}}});

    const auto output = transformed(transformer, *input);
    ASSERT_TRUE(output);
    EXPECT_EQ(output->name(), "like");
    ASSERT_TRUE(output->attributes());
    EXPECT_EQ(*output->attributes(), (AttributeDictionary{{"x", {1, 2}}, {"session_id", "S"}, {"ts", 5}}));
    EXPECT_EQ(provider->asked, std::vector<std::string>{"like"});
}

TEST(APEventGatewayEventTransformerTest, BaseValuesWinAndIgnoredBaseKeysAreDroppedToo) {
    auto provider = std::make_shared<FixedAttributesProvider>(
        AttributeDictionary{{"user", "base-user"}, {"set", "from-base"}, {"resource_id", 1}});
    APEventGatewayEventTransformer transformer(provider);
    const AttributeDictionary original{{"user", "event-user"}, {"keep", nullptr}};
    const auto input = APEvent::make("follow", original);

    const auto attributes = transformer.transformedAttributesForEvent(*input);
    ASSERT_TRUE(attributes);
    EXPECT_EQ(*attributes, (AttributeDictionary{{"user", "base-user"}, {"keep", nullptr}}));
    // The event handed in is shared with other providers and must not change.
    ASSERT_TRUE(input->attributes());
    EXPECT_EQ(*input->attributes(), original);
}

TEST(APEventGatewayEventTransformerTest, AnEventWithoutAttributesGetsAnEmptyDictionaryAndNoBaseAttributes) {
    auto provider = std::make_shared<FixedAttributesProvider>(AttributeDictionary{{"session_id", "S"}});
    APEventGatewayEventTransformer transformer(provider);
    const auto input = APEvent::make("pageview", std::nullopt);

    EXPECT_FALSE(transformer.transformedAttributesForEvent(*input));
    const auto output = transformed(transformer, *input);
    ASSERT_TRUE(output);
    EXPECT_EQ(output->name(), "pageview");
    ASSERT_TRUE(output->attributes());
    EXPECT_EQ(*output->attributes(), AttributeDictionary::object());
    EXPECT_EQ(input->attributes(), nullptr);
}

TEST(APEventGatewayEventTransformerTest, AnEventWithOnlyIgnoredKeysKeepsTheBaseAttributes) {
    auto provider = std::make_shared<FixedAttributesProvider>(AttributeDictionary{{"ts", 1}});
    APEventGatewayEventTransformer transformer(provider);
    const auto output = transformed(transformer, *APEvent::make("share", AttributeDictionary{{"resource", "r"}}));
    ASSERT_TRUE(output);
    EXPECT_EQ(*output->attributes(), (AttributeDictionary{{"ts", 1}}));
}

TEST(APEventGatewayEventTransformerDeathTest, RequiresAnAttributesProvider) {
    EXPECT_DEATH(APEventGatewayEventTransformer(nullptr), "Invalid parameter not satisfying: attributesProvider");
}

}  // namespace
}  // namespace kt
