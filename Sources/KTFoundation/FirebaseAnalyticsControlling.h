#pragma once
// What the foundation framework's users (for example the product-analytics integration)
// need from the Firebase analytics controller: plain named events and screen views.
// The operations share their names with the controller's own, which implements them.

#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class FirebaseAnalyticsControlling {
public:
    virtual ~FirebaseAnalyticsControlling() = default;
    FirebaseAnalyticsControlling() = default;
    FirebaseAnalyticsControlling(const FirebaseAnalyticsControlling&) = delete;
    FirebaseAnalyticsControlling& operator=(const FirebaseAnalyticsControlling&) = delete;

    /// `parameters` is a dictionary (a JSON object) of string keys.
    virtual void logEvent(const std::string& name, const AttributeDictionary& parameters) = 0;
    virtual void trackScreen(const std::string& name) = 0;
};

}  // namespace kt
