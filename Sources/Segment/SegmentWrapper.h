#pragma once
// The one process-wide product-analytics client of the tracking plan, configured with the
// product's context middleware, the re-addressing of its uploads to the event gateway
// host and the device-mode integrations.

#include <memory>
#include <string>

#include "Segment/SegmentAnalyticsProtocol.h"
#include "Segment/SegmentEventRecorder.h"
#include "Segment/SegmentWrapping.h"

namespace kt {

class KTLogger;
struct SEGAnalyticsConfiguration;

class SegmentWrapper final : public SegmentWrapping {
public:
    /// Reads the anonymous id from the client once.
    SegmentWrapper(std::shared_ptr<SegmentAnalyticsProtocol> segmentAnalytics,
                   std::shared_ptr<SegmentEventRecording> eventRecorder, std::shared_ptr<KTLogger> logger);

    /// Built on first use from the shared environment's write key and the hooks of
    /// `SegmentDependencyProvider`; lives for the process.
    static std::shared_ptr<SegmentWrapper> shared();

    /// The configuration the shared instance is built with: write key, the context
    /// middleware, the request rewriter when the hook names a host, the integrations.
    static SEGAnalyticsConfiguration makeConfiguration(const std::string& writeKey, const std::string& apiHost);

    void track(const std::string& name, std::int64_t version, const std::optional<AttributeValue>& properties,
               const SegmentIntegrations& integrations) override;
    void identify(const std::string& userId, const std::optional<AttributeValue>& traits,
                  const SegmentIntegrations& integrations) override;
    void flush() override;

    const std::shared_ptr<SegmentAnalyticsProtocol>& segmentAnalytics() const { return segmentAnalytics_; }
    const std::string& anonymousId() const { return anonymousId_; }

private:
    std::shared_ptr<SegmentAnalyticsProtocol> segmentAnalytics_;
    std::shared_ptr<SegmentEventRecording> eventRecorder_;
    std::string anonymousId_;
    std::shared_ptr<KTLogger> logger_;
};

}  // namespace kt
