#pragma once
// What the event broker calls: the shared product-analytics wrapper.

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

/// An integrations map: integration key ("Firebase", "All") to enabled.
using SegmentIntegrations = std::map<std::string, bool>;

class SegmentWrapping {
public:
    virtual ~SegmentWrapping() = default;
    SegmentWrapping() = default;
    SegmentWrapping(const SegmentWrapping&) = delete;
    SegmentWrapping& operator=(const SegmentWrapping&) = delete;

    /// `properties` is a JSON object when present.
    virtual void track(const std::string& name, std::int64_t version, const std::optional<AttributeValue>& properties,
                       const SegmentIntegrations& integrations) = 0;
    virtual void identify(const std::string& userId, const std::optional<AttributeValue>& traits,
                          const SegmentIntegrations& integrations) = 0;
    virtual void flush() = 0;
};

}  // namespace kt
