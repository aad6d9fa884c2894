#include "KTAnalytics/Promoted/AnalyticsEntityTagger.h"

#include <boost/url/parse.hpp>

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
    for (const auto& url : urls) {
        const auto parsed = boost::urls::parse_absolute_uri(url);
        KT_EXPECT_NOT_NIL(parsed.has_value(), "absoluteString");
        events.push_back(APEventBuilder()
                             .name(APPromotedAnalyticsProvider::kPromotedEventName)
                             .addAttribute("url", AttributeValue(std::string(parsed->buffer())))
                             .build());
    }
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
