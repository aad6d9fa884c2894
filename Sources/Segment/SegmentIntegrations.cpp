#include "KTAnalytics/Segment/SegmentIntegrations.h"

#include <ostream>

#include "KTAnalytics/KTFoundation/FirebaseAnalyticsControlling.h"
#include "KTAnalytics/KTFoundation/LogMacros.h"
#include "KTAnalytics/Segment/MoEngageEventLogging.h"

namespace kt {
namespace {
constexpr const char* kFirebaseFile = "Sources/Segment/SegmentFirebaseIntegration";
constexpr const char* kMoEngageFile = "Sources/Segment/SegmentMoEngageIntegration";

// The dependency the integration keeps, fetched on first use; null while the hook fails.
template <class T>
std::shared_ptr<T> fetchOnce(std::mutex& mutex, std::shared_ptr<T>& kept,
                             const std::function<DependencyResult<T>()>& provider) {
    std::lock_guard lock(mutex);
    if (!kept && provider) {
        auto result = provider();
        if (auto* value = std::get_if<std::shared_ptr<T>>(&result)) kept = *value;
    }
    return kept;
}
}  // namespace

SegmentFirebaseIntegration::SegmentFirebaseIntegration(
    std::function<DependencyResult<FirebaseAnalyticsControlling>()> controllerProvider, std::shared_ptr<KTLogger> logger)
    : controllerProvider_(std::move(controllerProvider)), logger_(std::move(logger)) {}

void SegmentFirebaseIntegration::track(const SEGTrackPayload& payload) {
    auto properties = payload.properties.value_or(AttributeValue::object());
    // Our payloads are JSON objects, whose keys are always strings; anything else is not
    // a parameter list.
    if (!properties.is_object()) {
        KT_LOG(logger_, 3, kFirebaseFile, "track(_:)",
               "SegmentFirebaseIntegration: Firebase only supports String keys in the parameters.");
        return;
    }
    auto controller = fetchOnce(mutex_, controller_, controllerProvider_);
    if (!controller) {
        KT_LOG(logger_, 3, kFirebaseFile, "track(_:)",
               "SegmentFirebaseIntegration initialized without FirebaseAnalyticsController being provided.");
        return;
    }
    controller->logEvent(payload.event, properties);
}

SegmentMoEngageIntegration::SegmentMoEngageIntegration(
    std::function<DependencyResult<MoEngageEventLogging>()> loggerProvider, std::shared_ptr<KTLogger> logger,
    std::ostream& console)
    : loggerProvider_(std::move(loggerProvider)), logger_(std::move(logger)), console_(console) {}

void SegmentMoEngageIntegration::track(const SEGTrackPayload& payload) {
    auto properties = payload.properties.value_or(AttributeValue::object());
    console_ << "track invoked on MoEngage Integration for event with name: " << payload.event
             << " and properties: " << properties.dump() << '\n';
    auto eventLogger = fetchOnce(mutex_, eventLogger_, loggerProvider_);
    if (!eventLogger) {
        KT_LOG(logger_, 3, kMoEngageFile, "track(_:)",
               "SegmentMoEngageIntegration initialized without MoEngageWrapper being provided.");
        return;
    }
    eventLogger->logEvent(payload.event, properties.is_object() ? properties : AttributeValue::object());
}

SegmentFirebaseIntegrationFactory::SegmentFirebaseIntegrationFactory(
    std::function<DependencyResult<FirebaseAnalyticsControlling>()> controllerProvider, std::shared_ptr<KTLogger> logger)
    : controllerProvider_(std::move(controllerProvider)), logger_(std::move(logger)) {}

std::shared_ptr<SEGIntegration> SegmentFirebaseIntegrationFactory::createWithSettings(const AttributeValue&,
                                                                                     SEGAnalytics&) {
    return std::make_shared<SegmentFirebaseIntegration>(controllerProvider_, logger_);
}

SegmentMoEngageIntegrationFactory::SegmentMoEngageIntegrationFactory(
    std::function<DependencyResult<MoEngageEventLogging>()> loggerProvider, std::shared_ptr<KTLogger> logger,
    std::ostream& console)
    : loggerProvider_(std::move(loggerProvider)), logger_(std::move(logger)), console_(console) {}

std::shared_ptr<SEGIntegration> SegmentMoEngageIntegrationFactory::createWithSettings(const AttributeValue&,
                                                                                     SEGAnalytics&) {
    return std::make_shared<SegmentMoEngageIntegration>(loggerProvider_, logger_, console_);
}

void ConsoleMoEngageEventLogger::logEvent(const std::string& name, const AttributeValue& properties) {
    out_ << "MoEngage: " << name << ' ' << properties.dump() << '\n';
}

}  // namespace kt
