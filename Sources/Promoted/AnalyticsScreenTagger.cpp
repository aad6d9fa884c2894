#include "KTAnalytics/Promoted/AnalyticsScreenTagger.h"

#include "KTAnalytics/AnalyticsProvider/APAnalyticsController.h"
#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

AnalyticsScreenTagger& AnalyticsScreenTagger::sharedInstance() {
    // The shared controller lives for the whole process; a non-owning pointer to it is enough.
    static AnalyticsScreenTagger instance(
        std::shared_ptr<APAnalyticsController>(&APAnalyticsController::sharedInstance(), [](APAnalyticsController*) {}));
    return instance;
}

AnalyticsScreenTagger::AnalyticsScreenTagger(std::shared_ptr<APAnalyticsController> analyticsController)
    : analyticsController_(std::move(analyticsController)) {
    KT_PARAMETER_ASSERT_TEXT(analyticsController_ != nullptr, "controller");
}

void AnalyticsScreenTagger::tagScreen(AnalyticsScreen screen) const { tagScreenEvent(screenEventForScreen(screen)); }

std::shared_ptr<const APEvent> AnalyticsScreenTagger::screenEventForScreen(AnalyticsScreen screen) const {
    AttributeDictionary attributes = AttributeDictionary::object();
    if (auto name = AnalyticsConstants::screenString(screen)) attributes["page_name"] = *name;
    return APEvent::make("pageview", std::move(attributes));
}

void AnalyticsScreenTagger::tagScreenEvent(const std::shared_ptr<const APEvent>& event) const {
    analyticsController_->tagEvent(event);
}

}  // namespace kt
