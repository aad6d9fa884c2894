#pragma once
// One-line descriptions of events for logs and technical events: the name and the few
// string attributes that help a reader recognise the event.

#include <string>
#include <vector>

#include "KTAnalytics/Middleware/APEventDescripting.h"

namespace kt {

class APEventFormatter {
public:
    APEventFormatter() = delete;

    /// "page_name", "action", "ad_urn", "track_urn", "monetization_type",
    /// "monetization_object", "click_name", "click_object", "source".
    static const std::vector<std::string>& relevantAttributes();
    static std::string shortDescriptionForEvent(const APEventDescripting& event);
    /// The relevant attributes are always included besides `extraKeys`. Only non-empty
    /// string values are kept.
    static std::string shortDescriptionForEvent(const APEventDescripting& event,
                                                const std::vector<std::string>& extraKeys);
};

}  // namespace kt
