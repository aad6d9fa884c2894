#pragma once
// The role of the object that turns an application event into the event the gateway
// receives (base attributes merged in, ignored keys removed).

#include <memory>

#include "KTAnalytics/Middleware/APEventDescripting.h"

namespace kt {

class APEventGatewayEventTransforming {
public:
    virtual ~APEventGatewayEventTransforming() = default;
    APEventGatewayEventTransforming() = default;
    APEventGatewayEventTransforming(const APEventGatewayEventTransforming&) = delete;
    APEventGatewayEventTransforming& operator=(const APEventGatewayEventTransforming&) = delete;

    /// The gateway form of `event`, or null to drop it. The gateway provider only uploads
    /// results that are `APEvent`s; anything else is dropped silently.
    virtual std::shared_ptr<const APEventDescripting> transform(const APEventDescripting& event) const = 0;
};

}  // namespace kt
