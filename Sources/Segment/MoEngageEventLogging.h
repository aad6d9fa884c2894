#pragma once
// What the host's engagement SDK wrapper offers the product-analytics integration.

#include <iosfwd>
#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class MoEngageEventLogging {
public:
    virtual ~MoEngageEventLogging() = default;
    MoEngageEventLogging() = default;
    MoEngageEventLogging(const MoEngageEventLogging&) = delete;
    MoEngageEventLogging& operator=(const MoEngageEventLogging&) = delete;

    /// `properties` is a JSON object.
    virtual void logEvent(const std::string& name, const AttributeValue& properties) = 0;
};

/// Writes each event as one line, for the tool.
class ConsoleMoEngageEventLogger final : public MoEngageEventLogging {
public:
    explicit ConsoleMoEngageEventLogger(std::ostream& out) : out_(out) {}
    void logEvent(const std::string& name, const AttributeValue& properties) override;

private:
    std::ostream& out_;
};

}  // namespace kt
