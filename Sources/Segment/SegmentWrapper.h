#pragma once
// The one process-wide product-analytics client of the tracking plan, configured with the
// product's context middleware, the re-addressing of its uploads to the event gateway
// host and the device-mode integrations.

#include <memory>
#include <string>

#include "KTAnalytics/Segment/SegmentAnalyticsProtocol.h"
#include "KTAnalytics/Segment/SegmentEventRecorder.h"
#include "KTAnalytics/Segment/SegmentMiddlewareFactory.h"
#include "KTAnalytics/Segment/SegmentWrapping.h"

namespace kt {

class KTLogger;
class KeychainCredentialStoring;
struct SEGAnalyticsConfiguration;
struct SEGAnalyticsDependencies;

/// What a wrapper's client is configured from.
struct SegmentWrapperSetup {
    std::string writeKey;
    /// The client's API URL; empty: the client's default.
    std::string apiHost;
    /// The host that replaces the API host in upload URLs; absent: uploads go out unchanged.
    std::optional<std::string> replacementAPIHost;
    std::shared_ptr<KeychainCredentialStoring> keychain;
    /// Its middlewares and integrations configure the client; null: none.
    std::shared_ptr<SegmentMiddlewareMaking> middlewareFactory;
    std::shared_ptr<KTLogger> logger;
    /// The uploads' "User-Agent"; empty: the client's own.
    std::string userAgent;
    /// Upload once this many messages wait.
    std::size_t flushAt = 20;
};

class SegmentWrapper final : public SegmentWrapping {
public:
    /// Reads the anonymous id from the client once.
    SegmentWrapper(std::shared_ptr<SegmentAnalyticsProtocol> segmentAnalytics,
                   std::shared_ptr<SegmentEventRecording> eventRecorder, std::shared_ptr<KTLogger> logger);

    /// The started SDK's wrapper (see `setShared`); without one, a wrapper built on first use
    /// from the shared environment's write key and the hooks of `SegmentDependencyProvider`
    /// (logger and credential included), which lives for the process.
    static std::shared_ptr<SegmentWrapper> shared();
    /// Makes `wrapper` the one `shared()` answers; null gives the hook-built one back.
    static void setShared(std::shared_ptr<SegmentWrapper> wrapper);

    /// The client configuration: write key, the factory's source middlewares, the request
    /// rewriter when a replacement host is given (no request factory otherwise), the
    /// factory's integrations in order.
    static SEGAnalyticsConfiguration makeConfiguration(const SegmentWrapperSetup& setup);
    /// A wrapper over a new client made from `setup`, with a SegmentMiddlewareFactory over
    /// `sources` (an empty anonymous-id source there reports this client's id).
    static std::shared_ptr<SegmentWrapper> make(SegmentWrapperSetup setup, SegmentMiddlewareSources sources,
                                                SEGAnalyticsDependencies dependencies,
                                                std::shared_ptr<SegmentEventRecording> eventRecorder);

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
