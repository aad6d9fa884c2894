#pragma once
// Turns an application event into the event the gateway receives: the same name, the
// event's attributes with the base attributes merged over them, less the keys the gateway
// must not receive.

#include <array>
#include <memory>
#include <optional>
#include <string_view>

#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayEventTransforming.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/EventGatewayAttributesProviding.h"
#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class APEventGatewayEventTransformer final : public APEventGatewayEventTransforming {
public:
    explicit APEventGatewayEventTransformer(std::shared_ptr<const EventGatewayAttributesProviding> attributesProvider);
    APEventGatewayEventTransformer() = delete;

    /// A new APEvent with the event's name and `transformedAttributesForEvent`; an event
    /// without attributes gives an event with an empty dictionary. Never null.
    std::shared_ptr<const APEventDescripting> transform(const APEventDescripting& event) const override;

    /// The event's attributes, then the base attributes (which win on equal keys), without
    /// the ignored keys. Null (nullopt) when the event has no attributes: then nothing is
    /// merged at all, not even the base attributes.
    std::optional<AttributeDictionary> transformedAttributesForEvent(const APEventDescripting& event) const;

    /// "resource", "resource_id", "set".
    static const std::array<std::string_view, 3>& ignoredAttributes();

    const std::shared_ptr<const EventGatewayAttributesProviding>& attributesProvider() const {
        return attributesProvider_;
    }

private:
    const std::shared_ptr<const EventGatewayAttributesProviding> attributesProvider_;
};

}  // namespace kt
