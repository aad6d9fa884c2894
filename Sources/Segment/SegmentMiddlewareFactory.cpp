#include "KTAnalytics/Segment/SegmentMiddlewareFactory.h"

#include <iostream>

#include "KTAnalytics/AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/SessionIdProvider.h"
#include "KTAnalytics/Segment/AddKTAttributesToContext.h"
#include "KTAnalytics/Segment/SegmentIntegrations.h"

namespace kt {

SegmentMiddlewareFactory::SegmentMiddlewareFactory(SegmentMiddlewareSources sources) : sources_(std::move(sources)) {}

SegmentMiddlewareSources SegmentMiddlewareFactory::sourcesFromHooks(std::function<std::string()> anonymousId,
                                                                    std::shared_ptr<KTLogger> logger) {
    SegmentMiddlewareSources sources;
    sources.attributeRegistry = AnalyticsAttributeRegistry::sharedInstance();
    sources.sessionIdProvider = SessionIdProvider::shared();
    // The hooks are read on every use, so a host may replace them after start.
    sources.assignedVariantIds = [] { return SegmentDependencyProvider::assignedVariantIds(); };
    sources.anonymousId = std::move(anonymousId);
    sources.analyticsId = [] { return SegmentDependencyProvider::analyticsId(); };
    sources.firebaseAnalyticsController = [] { return SegmentDependencyProvider::firebaseAnalyticsController(); };
    sources.moEngageEventLogger = [] { return SegmentDependencyProvider::moEngageEventLogger(); };
    sources.logger = std::move(logger);
    return sources;
}

std::vector<std::shared_ptr<SEGMiddleware>> SegmentMiddlewareFactory::makeSourceMiddleware() {
    return {std::make_shared<AddKTAttributesToContext>(sources_.attributeRegistry, sources_.assignedVariantIds,
                                                       sources_.anonymousId, sources_.analyticsId,
                                                       sources_.sessionIdProvider)};
}

std::vector<std::shared_ptr<SEGIntegrationFactory>> SegmentMiddlewareFactory::makeIntegrations() {
    std::ostream& console = sources_.console ? *sources_.console : std::cout;
    return {std::make_shared<SegmentFirebaseIntegrationFactory>(sources_.firebaseAnalyticsController, sources_.logger),
            std::make_shared<SegmentMoEngageIntegrationFactory>(sources_.moEngageEventLogger, sources_.logger, console)};
}

}  // namespace kt
