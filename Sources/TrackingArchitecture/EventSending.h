#pragma once
// What the application calls to report an event of the tracking plan.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "KTAnalytics/KTFoundation/Urn.h"
#include "KTAnalytics/Platform/AttributeValue.h"
#include "KTAnalytics/TrackingArchitecture/Plan/PlanNumber.h"
#include "KTAnalytics/TrackingArchitecture/Plan/TrackingPlanEnumerations.h"

namespace kt {

class EventSending {
public:
    virtual ~EventSending() = default;
    EventSending() = default;
    EventSending(const EventSending&) = delete;
    EventSending& operator=(const EventSending&) = delete;

    virtual void flush() = 0;

    // One operation per event of the tracking plan, generated from Plan/TrackingPlan.txt.
#include "KTAnalytics/TrackingArchitecture/Plan/EventSendingOperations.inc"
};

class IdentityEventSending {
public:
    virtual ~IdentityEventSending() = default;
    IdentityEventSending() = default;
    IdentityEventSending(const IdentityEventSending&) = delete;
    IdentityEventSending& operator=(const IdentityEventSending&) = delete;

    /// `traits` is a JSON object.
    virtual void identify(const std::string& userId, const AttributeValue& traits) = 0;
};

}  // namespace kt
