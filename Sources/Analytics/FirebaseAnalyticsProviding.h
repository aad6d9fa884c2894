#pragma once
// The host application's direct line to Firebase, used for user properties. Unlike the
// controller it is not gated by the privacy settings here: the host's implementation
// decides what reaches Firebase.

#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class FirebaseAnalyticsProviding {
public:
    virtual ~FirebaseAnalyticsProviding() = default;
    FirebaseAnalyticsProviding() = default;
    FirebaseAnalyticsProviding(const FirebaseAnalyticsProviding&) = delete;
    FirebaseAnalyticsProviding& operator=(const FirebaseAnalyticsProviding&) = delete;

    virtual void logEventWithName(const std::string& name, const AttributeDictionary& parameters) = 0;
    virtual void setUserIdentifier(const std::string& identifier) = 0;
    virtual void setUserProperty(const std::string& value, const std::string& forName) = 0;
    virtual void setScreenName(const std::string& screenName, const std::string& screenClass) = 0;
};

}  // namespace kt
