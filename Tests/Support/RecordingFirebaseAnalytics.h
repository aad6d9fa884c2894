#pragma once
// A Firebase adapter for tests: records every call, in order, through either interface.

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Analytics/FirebaseAnalyticsProviding.h"
#include "Analytics/FirebaseAnalyticsWrapping.h"

namespace kt::testing {

struct FirebaseCall {
    enum class Kind { event, screen, userIdentifier, userProperty, screenName };
    Kind kind;
    /// Event name, screen name, user property name or user identifier.
    std::string name;
    AttributeDictionary parameters;
    /// Set only for events logged through FirebaseAnalyticsWrapping.
    std::optional<bool> shouldIncludeExtraUserInfo;
    /// User property value or screen class.
    std::string value;
};

class RecordingFirebaseAnalytics final : public FirebaseAnalyticsWrapping, public FirebaseAnalyticsProviding {
public:
    void logEventWithName(const std::string& name, const AttributeDictionary& parameters,
                          bool shouldIncludeExtraUserInfo) override;
    void trackScreenWithName(const std::string& name) override;
    void setUserIdentifier(const std::string& identifier) override;
    void setUserProperty(const std::string& value, const std::string& forName) override;
    void logEventWithName(const std::string& name, const AttributeDictionary& parameters) override;
    void setScreenName(const std::string& screenName, const std::string& screenClass) override;

    std::vector<FirebaseCall> calls() const;
    /// (name, value) of every user property set, in order.
    std::vector<std::pair<std::string, std::string>> userProperties() const;

private:
    void record(FirebaseCall call);
    mutable std::mutex mutex_;
    std::vector<FirebaseCall> calls_;
};

}  // namespace kt::testing
