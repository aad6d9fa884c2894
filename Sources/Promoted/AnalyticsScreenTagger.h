#pragma once
// Tags a screen the listener sees as a "pageview" event.

#include <memory>

#include "KTAnalytics/Middleware/AnalyticsConstants.h"

namespace kt {

class APAnalyticsController;
class APEvent;

class AnalyticsScreenTagger {
public:
    /// Over the shared analytics controller, created once.
    static AnalyticsScreenTagger& sharedInstance();
    /// A null controller is fatal ("Invalid parameter not satisfying: controller").
    explicit AnalyticsScreenTagger(std::shared_ptr<APAnalyticsController> analyticsController);
    AnalyticsScreenTagger() = delete;

    void tagScreen(AnalyticsScreen screen) const;
    /// "pageview" with "page_name" set to the screen's page name (absent when it has none).
    std::shared_ptr<const APEvent> screenEventForScreen(AnalyticsScreen screen) const;
    void tagScreenEvent(const std::shared_ptr<const APEvent>& event) const;

private:
    const std::shared_ptr<APAnalyticsController> analyticsController_;
};

}  // namespace kt
