#pragma once
// The base of the library's providers: tracks nothing and ignores everything until a
// subclass says otherwise.

#include <any>
#include <optional>
#include <vector>

#include "KTAnalytics/Middleware/APAnalyticsProviderInterface.h"

namespace kt {

class APBaseAnalyticsProvider : public APAnalyticsProviderInterface {
public:
    std::shared_ptr<const EventNameSet> trackedEvents() const override { return nullptr; }
    void tagEvent(const std::shared_ptr<const APEventDescripting>&) override {}
    void flush() override {}
    /// Custom dimensions; ignored unless a subclass uses them.
    virtual void setDimensions(const std::optional<std::vector<std::string>>&) {}
};

}  // namespace kt
