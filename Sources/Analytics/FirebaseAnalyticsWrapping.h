#pragma once
// The host application's adapter around the Firebase SDK. It must be safe to call from
// any thread that logs; what extra user information it adds is its own business.

#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class FirebaseAnalyticsWrapping {
public:
    virtual ~FirebaseAnalyticsWrapping() = default;
    FirebaseAnalyticsWrapping() = default;
    FirebaseAnalyticsWrapping(const FirebaseAnalyticsWrapping&) = delete;
    FirebaseAnalyticsWrapping& operator=(const FirebaseAnalyticsWrapping&) = delete;

    virtual void logEventWithName(const std::string& name, const AttributeDictionary& parameters,
                                  bool shouldIncludeExtraUserInfo) = 0;
    virtual void trackScreenWithName(const std::string& name) = 0;
    virtual void setUserIdentifier(const std::string& identifier) = 0;
    virtual void setUserProperty(const std::string& value, const std::string& forName) = 0;
};

}  // namespace kt
