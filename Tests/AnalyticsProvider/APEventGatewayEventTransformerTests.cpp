#include "AnalyticsProvider/EventGateway/APEventGatewayEventTransformer.h"

#include <tuple>

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

// The base is read for every event, so its sources (the session id above all) see each one.
TEST(APEventGatewayEventTransformerTest, MergesTheBaseAttributesIntoACopy) {
    const std::vector<std::tuple<AttributeDictionary, std::optional<AttributeDictionary>, AttributeDictionary>> cases = {
        {{{"session_id", "S"}, {"ts", 5}},
         AttributeDictionary{{"resource", "track"}, {"resource_id", 12}, {"set", "p"}, {"x", {1, 2}}},
         {{"x", {1, 2}}, {"session_id", "S"}, {"ts", 5}}},
        {{{"user", "base-user"}, {"set", "from-base"}, {"resource_id", 1}},
         AttributeDictionary{{"user", "event-user"}, {"keep", nullptr}}, {{"user", "base-user"}, {"keep", nullptr}}},
        {{{"ts", 1}}, AttributeDictionary{{"resource", "r"}}, {{"ts", 1}}},
        {{{"session_id", "S"}}, std::nullopt, AttributeDictionary::object()},
    };
    for (const auto& [base, attributes, expected] : cases) {
        SCOPED_TRACE(base.dump());
        auto provider = std::make_shared<FixedAttributesProvider>(base);
        APEventGatewayEventTransformer transformer(provider);
        const auto input = APEvent::make("like", attributes);
        const auto output = std::dynamic_pointer_cast<const APEvent>(transformer.transform(*input));
        ASSERT_TRUE(output) << "the gateway uploads only APEvents";
        EXPECT_EQ(output->name(), "like");
        EXPECT_EQ(*output->attributes(), expected);
        EXPECT_EQ(transformer.transformedAttributesForEvent(*input).has_value(), attributes.has_value());
        EXPECT_EQ(provider->asked, (std::vector<std::string>{"like", "like"}));
        // The event handed in is shared with other providers and must not change.
        EXPECT_EQ(input->attributes() ? std::optional(*input->attributes()) : std::nullopt, attributes);
    }
    EXPECT_DEATH(APEventGatewayEventTransformer(nullptr), "Invalid parameter not satisfying: attributesProvider");
}

}  // namespace
}  // namespace kt
