#pragma once
// The slice of the product-analytics client that the wrapper uses.

#include <optional>
#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class SegmentAnalyticsProtocol {
public:
    virtual ~SegmentAnalyticsProtocol() = default;
    SegmentAnalyticsProtocol() = default;
    SegmentAnalyticsProtocol(const SegmentAnalyticsProtocol&) = delete;
    SegmentAnalyticsProtocol& operator=(const SegmentAnalyticsProtocol&) = delete;

    /// `options` may hold "integrations" (a map of key to boolean) and "context" (merged
    /// into the message's context).
    virtual void identify(const std::string& userId, const std::optional<AttributeValue>& traits,
                          const std::optional<AttributeValue>& options) = 0;
    virtual void track(const std::string& event, const std::optional<AttributeValue>& properties,
                       const std::optional<AttributeValue>& options) = 0;
    virtual std::string getAnonymousId() = 0;
    virtual void flush() = 0;
};

}  // namespace kt
