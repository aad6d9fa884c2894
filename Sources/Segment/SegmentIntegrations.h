#pragma once
// The device-mode integrations of the tracking plan: selected events forwarded, in the
// process, to the Firebase analytics controller and to the engagement SDK.

#include <functional>
#include <iosfwd>
#include <memory>
#include <mutex>

#include "KTAnalytics/Segment/Client/SEGPayload.h"
#include "KTAnalytics/Segment/SegmentDependencyProvider.h"

namespace kt {

class FirebaseAnalyticsControlling;
class KTLogger;
class MoEngageEventLogging;

/// Fetches its controller from the hook on first use and keeps it; without one the event
/// is not forwarded and the hook is asked again next time.
class SegmentFirebaseIntegration final : public SEGIntegration {
public:
    SegmentFirebaseIntegration(std::function<DependencyResult<FirebaseAnalyticsControlling>()> controllerProvider,
                               std::shared_ptr<KTLogger> logger);
    void track(const SEGTrackPayload& payload) override;

private:
    std::function<DependencyResult<FirebaseAnalyticsControlling>()> controllerProvider_;
    std::shared_ptr<KTLogger> logger_;
    std::mutex mutex_;
    std::shared_ptr<FirebaseAnalyticsControlling> controller_;
};

class SegmentMoEngageIntegration final : public SEGIntegration {
public:
    /// `console` receives the line every track prints.
    SegmentMoEngageIntegration(std::function<DependencyResult<MoEngageEventLogging>()> loggerProvider,
                               std::shared_ptr<KTLogger> logger, std::ostream& console);
    void track(const SEGTrackPayload& payload) override;

private:
    std::function<DependencyResult<MoEngageEventLogging>()> loggerProvider_;
    std::shared_ptr<KTLogger> logger_;
    std::ostream& console_;
    std::mutex mutex_;
    std::shared_ptr<MoEngageEventLogging> eventLogger_;
};

class SegmentFirebaseIntegrationFactory final : public SEGIntegrationFactory {
public:
    SegmentFirebaseIntegrationFactory(std::function<DependencyResult<FirebaseAnalyticsControlling>()> controllerProvider,
                                      std::shared_ptr<KTLogger> logger);
    std::string key() const override { return "Firebase"; }
    std::shared_ptr<SEGIntegration> createWithSettings(const AttributeValue& settings, SEGAnalytics& analytics) override;

private:
    std::function<DependencyResult<FirebaseAnalyticsControlling>()> controllerProvider_;
    std::shared_ptr<KTLogger> logger_;
};

class SegmentMoEngageIntegrationFactory final : public SEGIntegrationFactory {
public:
    SegmentMoEngageIntegrationFactory(std::function<DependencyResult<MoEngageEventLogging>()> loggerProvider,
                                      std::shared_ptr<KTLogger> logger, std::ostream& console);
    std::string key() const override { return "MoEngage"; }
    std::shared_ptr<SEGIntegration> createWithSettings(const AttributeValue& settings, SEGAnalytics& analytics) override;

private:
    std::function<DependencyResult<MoEngageEventLogging>()> loggerProvider_;
    std::shared_ptr<KTLogger> logger_;
    std::ostream& console_;
};

}  // namespace kt
