#pragma once
// One event of the tracking plan on its way to the broker.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

/// Properties in the plan's key order, keys unique; an absent value is a key sent as null.
using TrackingProperties = std::vector<std::pair<std::string, std::optional<AttributeValue>>>;

struct TrackingEvent {
    std::string name;
    std::int64_t version = 1;
    std::optional<TrackingProperties> properties;
    std::vector<std::string> thirdParties;

    bool operator==(const TrackingEvent&) const = default;
};

struct IdentityTrackingEvent {
    std::string userId;
    AttributeValue traits = AttributeValue::object();

    bool operator==(const IdentityTrackingEvent&) const = default;
};

}  // namespace kt
