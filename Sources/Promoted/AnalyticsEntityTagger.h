#pragma once
// Turns the tracking URLs of a promoted item into "promoted_event" events and tags them.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KTAnalytics/Middleware/AnalyticsConstants.h"

namespace kt {

class APAnalyticsProviderInterface;
class APEvent;
class APEventDescripting;

class AnalyticsEntityTagger {
public:
    /// A null provider is fatal ("Invalid parameter not satisfying: analyticsProvider").
    explicit AnalyticsEntityTagger(std::shared_ptr<APAnalyticsProviderInterface> analyticsProvider);
    AnalyticsEntityTagger() = delete;

    /// One "promoted_event" per URL text, in order, each with the one attribute "url". The texts
    /// come from ad-server data, so one that is not an absolute URL is never fatal: its event
    /// carries it as it is, and the promoted provider refuses it when tagged (logged, nothing
    /// sent, counted under its reason in the request uploader's drops).
    std::vector<std::shared_ptr<const APEvent>> promotedEventsForUrls(const std::vector<std::string>& urls) const;
    /// Hands each event, in order, to the provider.
    void tagEvents(const std::vector<std::shared_ptr<const APEvent>>& events) const;
    bool isValidScreen(AnalyticsScreen screen) const;
    std::optional<std::string> screenName(AnalyticsScreen screen) const;

    const std::shared_ptr<APAnalyticsProviderInterface>& analyticsProvider() const { return analyticsProvider_; }

private:
    const std::shared_ptr<APAnalyticsProviderInterface> analyticsProvider_;
};

}  // namespace kt
