#pragma once
// What the shared client is configured with: the context middleware and the device-mode
// integration factories.

#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KTAnalytics/Segment/Client/SEGPayload.h"
#include "KTAnalytics/Segment/SegmentDependencyProvider.h"

namespace kt {

class AnalyticsAttributeRegistry;
class KTLogger;
class SessionIdProviding;

class SegmentMiddlewareMaking {
public:
    virtual ~SegmentMiddlewareMaking() = default;
    SegmentMiddlewareMaking() = default;
    SegmentMiddlewareMaking(const SegmentMiddlewareMaking&) = delete;
    SegmentMiddlewareMaking& operator=(const SegmentMiddlewareMaking&) = delete;

    virtual std::vector<std::shared_ptr<SEGMiddleware>> makeSourceMiddleware() = 0;
    virtual std::vector<std::shared_ptr<SEGIntegrationFactory>> makeIntegrations() = 0;
};

/// Everything the middleware and the integrations read, each a source asked on use.
struct SegmentMiddlewareSources {
    std::shared_ptr<AnalyticsAttributeRegistry> attributeRegistry;
    std::shared_ptr<SessionIdProviding> sessionIdProvider;
    std::function<std::vector<std::string>()> assignedVariantIds;
    std::function<std::string()> anonymousId;
    std::function<std::optional<std::string>()> analyticsId;
    std::function<DependencyResult<FirebaseAnalyticsControlling>()> firebaseAnalyticsController;
    std::function<DependencyResult<MoEngageEventLogging>()> moEngageEventLogger;
    std::shared_ptr<KTLogger> logger;
    /// Where the engagement integration prints its lines; null is standard output.
    std::ostream* console = nullptr;
};

class SegmentMiddlewareFactory final : public SegmentMiddlewareMaking {
public:
    explicit SegmentMiddlewareFactory(SegmentMiddlewareSources sources);
    /// Sources from the hooks of SegmentDependencyProvider and the shared registry and
    /// session id; the anonymous id from `anonymousId`.
    static SegmentMiddlewareSources sourcesFromHooks(std::function<std::string()> anonymousId,
                                                     std::shared_ptr<KTLogger> logger);

    /// One AddKTAttributesToContext.
    std::vector<std::shared_ptr<SEGMiddleware>> makeSourceMiddleware() override;
    /// The Firebase factory, then the MoEngage one.
    std::vector<std::shared_ptr<SEGIntegrationFactory>> makeIntegrations() override;

private:
    SegmentMiddlewareSources sources_;
};

}  // namespace kt
