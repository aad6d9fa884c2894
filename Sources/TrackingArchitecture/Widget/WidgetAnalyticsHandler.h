#pragma once
// Recognises URLs opened from a home-screen widget: reports "Widget Item Opened" and hands
// back the URL without the widget's marker query items, so the application routes it as
// an ordinary link.

#include <memory>
#include <string>

#include "KTAnalytics/KTFoundation/KTLogger.h"
#include "KTAnalytics/TrackingArchitecture/EventSending.h"

namespace kt {

class WidgetAnalyticsHandler {
public:
    WidgetAnalyticsHandler(std::shared_ptr<EventSending> eventSender,
                           std::shared_ptr<KTLogger> logger = KTLogger::null());

    /// The URL without the widget markers when it came from a widget (or could at least be
    /// cleaned), else the URL as given.
    std::string handle(const std::string& url) const;

private:
    std::shared_ptr<EventSending> evenSender;
    std::shared_ptr<KTLogger> logger_;
};

}  // namespace kt
