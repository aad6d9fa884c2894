#include "KTAnalytics/AnalyticsProvider/EventGateway/EventGatewayAttributesProvider.h"

#include <chrono>
#include <cmath>

#include "KTAnalytics/AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/SessionIdProviding.h"
#include "KTAnalytics/KTFoundation/AnalyticsIdProviding.h"
#include "KTAnalytics/KTFoundation/ConnectivityStateDetecting.h"
#include "KTAnalytics/Middleware/AssignedABTestVariantIDProviding.h"
#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

namespace {

using Value = std::optional<AttributeValue>;

std::vector<Attribute> baseAttributeList() {
    return {
        {"client_id",
         [](const AttributeDependencies& d) -> Value {
             if (auto clientId = d.registry->clientId()) return AttributeValue(*clientId);
             return std::nullopt;
         }},
        {"anonymous_id",
         [](const AttributeDependencies& d) -> Value {
             if (auto id = d.getAnonymousId()) return AttributeValue(std::move(*id));
             return std::nullopt;
         }},
        {"analytics_id",
         [](const AttributeDependencies& d) -> Value {
             if (auto id = d.analyticsIdProvider->analyticsId()) return AttributeValue(std::move(*id));
             return std::nullopt;
         }},
        {"session_id",
         [](const AttributeDependencies& d) -> Value {
             return AttributeValue(d.sessionIdProvider->getSessionId().uuidString());
         }},
        {"connection_type",
         [](const AttributeDependencies& d) -> Value {
             return AttributeValue(d.connectivity->connectivityStateDescription());
         }},
        {"ts",
         [](const AttributeDependencies& d) -> Value {
             return AttributeValue(millisecondsSince1970(d.currentTime()));
         }},
        {"user",
         [](const AttributeDependencies& d) -> Value {
             if (const auto& urn = d.registry->userUrn()) return AttributeValue(*urn);
             return std::nullopt;
         }},
        {"part_of_variants",
         [](const AttributeDependencies& d) -> Value {
             const auto variants = d.variantProvider->assignedVariantIds();
             if (variants.empty()) return std::nullopt;
             std::string joined = variants.front();
             for (std::size_t i = 1; i < variants.size(); ++i) {
                 joined += ',';
                 joined += variants[i];
             }
             return AttributeValue(std::move(joined));
         }},
    };
}

std::unordered_map<std::string, std::vector<Attribute>> eventTypeSpecificAttributeLists() {
    return {
        {"audio",
         {{"vpn", [](const AttributeDependencies& d) -> Value { return AttributeValue(d.isConnectedToVPN()); }}}},
    };
}

}  // namespace

std::int64_t millisecondsSince1970(double seconds) {
    const double milliseconds = seconds * 1000.0;
    if (!std::isfinite(milliseconds))
        fatalError("Double value cannot be converted to Int64 because it is either infinite or NaN");
    // 2^63 is exact as a double; every double below it and at or above -2^63 truncates
    // into range.
    constexpr double kTwoToThe63 = 9223372036854775808.0;
    if (milliseconds >= kTwoToThe63)
        fatalError("Double value cannot be converted to Int64 because the result would be greater than Int64.max");
    if (milliseconds < -kTwoToThe63)
        fatalError("Double value cannot be converted to Int64 because the result would be less than Int64.min");
    return static_cast<std::int64_t>(milliseconds);
}

double EventGatewayAttributesProvider::secondsSince1970() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

EventGatewayAttributesProvider::EventGatewayAttributesProvider(
    std::shared_ptr<const ConnectivityStateDetecting> connectivity,
    std::shared_ptr<const AnalyticsAttributeRegistry> registry,
    std::shared_ptr<const AssignedABTestVariantIDProviding> variantProvider,
    std::function<std::optional<std::string>()> getAnonymousId,
    std::shared_ptr<const AnalyticsIdProviding> analyticsIdProvider,
    std::shared_ptr<SessionIdProviding> sessionIdProvider, std::function<bool()> isConnectedToVPN,
    std::function<double()> currentTime)
    : attributes_(baseAttributeList()),
      eventTypeSpecificAttributes_(eventTypeSpecificAttributeLists()),
      dependencies_{std::move(connectivity),        std::move(registry),          std::move(variantProvider),
                    std::move(getAnonymousId),      std::move(analyticsIdProvider), std::move(sessionIdProvider),
                    std::move(isConnectedToVPN),    std::move(currentTime)} {
    KT_PARAMETER_ASSERT_TEXT(dependencies_.connectivity, "connectivity");
    KT_PARAMETER_ASSERT_TEXT(dependencies_.registry, "registry");
    KT_PARAMETER_ASSERT_TEXT(dependencies_.variantProvider, "variantProvider");
    KT_PARAMETER_ASSERT_TEXT(dependencies_.getAnonymousId, "getAnonymousId");
    KT_PARAMETER_ASSERT_TEXT(dependencies_.analyticsIdProvider, "analyticsIdProvider");
    KT_PARAMETER_ASSERT_TEXT(dependencies_.sessionIdProvider, "sessionIdProvider");
    KT_PARAMETER_ASSERT_TEXT(dependencies_.isConnectedToVPN, "isConnectedToVPN");
    KT_PARAMETER_ASSERT_TEXT(dependencies_.currentTime, "currentTime");
}

AttributeDictionary EventGatewayAttributesProvider::baseAttributes(const APEventDescripting& event) const {
    AttributeDictionary result = AttributeDictionary::object();
    // A later attribute with the same key replaces an earlier one.
    const auto apply = [&](const std::vector<Attribute>& list) {
        for (const Attribute& attribute : list) {
            if (auto value = attribute.valueExtractor(dependencies_)) result[attribute.name] = std::move(*value);
        }
    };
    apply(attributes_);
    if (auto extra = eventTypeSpecificAttributes_.find(event.name()); extra != eventTypeSpecificAttributes_.end())
        apply(extra->second);
    return result;
}

}  // namespace kt
