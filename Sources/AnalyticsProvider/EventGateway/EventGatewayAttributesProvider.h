#pragma once
// The base attributes of gateway events: client, anonymous, analytics and session ids,
// connection type, time stamp, user and A/B variants, plus "vpn" for "audio" events.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "KTAnalytics/AnalyticsProvider/EventGateway/EventGatewayAttributesProviding.h"

namespace kt {

class AnalyticsAttributeRegistry;
class AnalyticsIdProviding;
class AssignedABTestVariantIDProviding;
class ConnectivityStateDetecting;
class SessionIdProviding;

/// The value sources of the base attributes.
struct AttributeDependencies {
    std::shared_ptr<const ConnectivityStateDetecting> connectivity;
    std::shared_ptr<const AnalyticsAttributeRegistry> registry;
    std::shared_ptr<const AssignedABTestVariantIDProviding> variantProvider;
    std::function<std::optional<std::string>()> getAnonymousId;
    std::shared_ptr<const AnalyticsIdProviding> analyticsIdProvider;
    std::shared_ptr<SessionIdProviding> sessionIdProvider;
    std::function<bool()> isConnectedToVPN;
    /// The wall clock, as seconds since 1970-01-01 UTC.
    std::function<double()> currentTime;
};

/// One base attribute: its key, and how its value is read (nullopt leaves the key out).
struct Attribute {
    std::string name;
    std::function<std::optional<AttributeValue>(const AttributeDependencies&)> valueExtractor;
};

class EventGatewayAttributesProvider final : public EventGatewayAttributesProviding {
public:
    /// The sources, in the order of AttributeDependencies. None may be null. `currentTime`
    /// defaults to the system clock.
    EventGatewayAttributesProvider(std::shared_ptr<const ConnectivityStateDetecting> connectivity,
                                   std::shared_ptr<const AnalyticsAttributeRegistry> registry,
                                   std::shared_ptr<const AssignedABTestVariantIDProviding> variantProvider,
                                   std::function<std::optional<std::string>()> getAnonymousId,
                                   std::shared_ptr<const AnalyticsIdProviding> analyticsIdProvider,
                                   std::shared_ptr<SessionIdProviding> sessionIdProvider,
                                   std::function<bool()> isConnectedToVPN,
                                   std::function<double()> currentTime = secondsSince1970);
    EventGatewayAttributesProvider() = delete;

    /// Every source is read at the moment of the call; nothing is cached here.
    AttributeDictionary baseAttributes(const APEventDescripting& event) const;
    AttributeDictionary baseAttributesFor(const APEventDescripting& event) const override {
        return baseAttributes(event);
    }

    const std::vector<Attribute>& attributes() const { return attributes_; }
    const std::unordered_map<std::string, std::vector<Attribute>>& eventTypeSpecificAttributes() const {
        return eventTypeSpecificAttributes_;
    }
    const AttributeDependencies& dependencies() const { return dependencies_; }

    /// The system clock as seconds since 1970.
    static double secondsSince1970();

private:
    const std::vector<Attribute> attributes_;
    const std::unordered_map<std::string, std::vector<Attribute>> eventTypeSpecificAttributes_;
    const AttributeDependencies dependencies_;
};

/// Whole milliseconds since 1970 for a time in seconds, truncated toward zero. A time that
/// is not finite or does not fit a signed 64-bit count of milliseconds stops the process.
std::int64_t millisecondsSince1970(double seconds);

}  // namespace kt
