#include "KTAnalytics/Promoted/AnalyticsEntityTagger.h"

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/APEventBuilder.h"
#include "KTAnalytics/Middleware/APAnalyticsProviderInterface.h"
#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Promoted/APPromotedAnalyticsProvider.h"

namespace kt {

AnalyticsEntityTagger::AnalyticsEntityTagger(std::shared_ptr<APAnalyticsProviderInterface> analyticsProvider)
    : analyticsProvider_(std::move(analyticsProvider)) {
    KT_PARAMETER_ASSERT_TEXT(analyticsProvider_ != nullptr, "analyticsProvider");
}

std::vector<std::shared_ptr<const APEvent>> AnalyticsEntityTagger::promotedEventsForUrls(
    const std::vector<std::string>& urls) const {
    std::vector<std::shared_ptr<const APEvent>> events;
    events.reserve(urls.size());
    // Not checked here: the tagger has no logger and no drop counts, while the provider's
    // uploader refuses what can never be sent, logs it and counts it by reason, in one place
    // for every road a promoted event can take.
    for (const auto& url : urls)
        events.push_back(APEventBuilder()
                             .name(APPromotedAnalyticsProvider::kPromotedEventName)
                             .addAttribute("url", AttributeValue(url))
                             .build());
    return events;
}

void AnalyticsEntityTagger::tagEvents(const std::vector<std::shared_ptr<const APEvent>>& events) const {
    for (const auto& event : events) analyticsProvider_->tagEvent(event);
}

bool AnalyticsEntityTagger::isValidScreen(AnalyticsScreen screen) const { return screenName(screen).has_value(); }

std::optional<std::string> AnalyticsEntityTagger::screenName(AnalyticsScreen screen) const {
    return AnalyticsConstants::screenString(screen);
}

}  // namespace kt
