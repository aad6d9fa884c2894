#pragma once
// What the application calls to report an event of the tracking plan.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "KTFoundation/Urn.h"
#include "Platform/AttributeValue.h"
#include "TrackingArchitecture/Plan/TrackingPlanEnumerations.h"

namespace kt {

class EventSending {
public:
    virtual ~EventSending() = default;
    EventSending() = default;
    EventSending(const EventSending&) = delete;
    EventSending& operator=(const EventSending&) = delete;

    virtual void flush() = 0;

    // One operation per event of the tracking plan, generated from Plan/TrackingPlan.txt.
#include "TrackingArchitecture/Plan/EventSendingOperations.inc"
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
