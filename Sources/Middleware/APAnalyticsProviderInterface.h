#pragma once
// The interface every analytics provider implements.

#include <memory>
#include <string>
#include <unordered_set>

#include "KTAnalytics/Middleware/APEventDescripting.h"

namespace kt {

using EventNameSet = std::unordered_set<std::string>;

class APAnalyticsProviderInterface {
public:
    virtual ~APAnalyticsProviderInterface() = default;
    APAnalyticsProviderInterface() = default;
    APAnalyticsProviderInterface(const APAnalyticsProviderInterface&) = delete;
    APAnalyticsProviderInterface& operator=(const APAnalyticsProviderInterface&) = delete;

    /// The names this provider takes, or null for none. Callers on the hot path may keep
    /// the returned set only as long as they keep the pointer.
    virtual std::shared_ptr<const EventNameSet> trackedEvents() const = 0;
    virtual void tagEvent(const std::shared_ptr<const APEventDescripting>& event) = 0;
    virtual void flush() = 0;
};

}  // namespace kt
