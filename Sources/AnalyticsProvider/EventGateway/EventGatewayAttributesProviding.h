#pragma once
// The role of the object that supplies the base attributes every gateway event carries.

#include "KTAnalytics/Middleware/APEventDescripting.h"
#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class EventGatewayAttributesProviding {
public:
    virtual ~EventGatewayAttributesProviding() = default;
    EventGatewayAttributesProviding() = default;
    EventGatewayAttributesProviding(const EventGatewayAttributesProviding&) = delete;
    EventGatewayAttributesProviding& operator=(const EventGatewayAttributesProviding&) = delete;

    /// A dictionary (never null) of the base attributes for `event`, read afresh on every call.
    virtual AttributeDictionary baseAttributesFor(const APEventDescripting& event) const = 0;
};

}  // namespace kt
