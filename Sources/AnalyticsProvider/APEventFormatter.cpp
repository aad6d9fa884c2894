#include "KTAnalytics/AnalyticsProvider/APEventFormatter.h"

#include <algorithm>

namespace kt {

const std::vector<std::string>& APEventFormatter::relevantAttributes() {
    static const std::vector<std::string> keys{"page_name",         "action",     "ad_urn",       "track_urn",
                                               "monetization_type", "monetization_object", "click_name",
                                               "click_object",      "source"};
    return keys;
}

std::string APEventFormatter::shortDescriptionForEvent(const APEventDescripting& event) {
    return shortDescriptionForEvent(event, {});
}

std::string APEventFormatter::shortDescriptionForEvent(const APEventDescripting& event,
                                                       const std::vector<std::string>& extraKeys) {
    const auto& relevant = relevantAttributes();
    const auto isOfInterest = [&](const std::string& key) {
        return std::find(relevant.begin(), relevant.end(), key) != relevant.end() ||
               std::find(extraKeys.begin(), extraKeys.end(), key) != extraKeys.end();
    };
    AttributeDictionary kept = AttributeDictionary::object();
    if (const AttributeDictionary* attributes = event.attributes(); attributes && attributes->is_object()) {
        for (const auto& [key, value] : attributes->items()) {
            if (value.is_string() && !value.get_ref<const std::string&>().empty() && isOfInterest(key))
                kept[key] = value;
        }
    }
    return event.name() + " " + value::describe(kept);
}

}  // namespace kt
