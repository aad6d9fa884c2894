#pragma once

#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"
#include "KTAnalytics/TrackingArchitecture/TrackingEvent.h"

namespace kt {

class EventBrokering {
public:
    virtual ~EventBrokering() = default;
    EventBrokering() = default;
    EventBrokering(const EventBrokering&) = delete;
    EventBrokering& operator=(const EventBrokering&) = delete;

    /// Takes the event over: its values are moved on, never copied.
    virtual void track(TrackingEvent event) = 0;
    /// `traits` is a JSON object; null values inside it are sent as null.
    virtual void identify(const std::string& userId, const AttributeValue& traits) = 0;
    virtual void flush() = 0;
};

}  // namespace kt
