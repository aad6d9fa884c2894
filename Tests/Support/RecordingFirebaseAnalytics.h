#pragma once
// A Firebase adapter for tests: records every call, in order, through either interface.

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "KTAnalytics/Analytics/FirebaseAnalyticsProviding.h"
#include "KTAnalytics/Analytics/FirebaseAnalyticsWrapping.h"

namespace kt::testing {

struct FirebaseCall {
    enum class Kind { event, screen, userIdentifier, userProperty, screenName };
    Kind kind;
    std::string name;
    AttributeDictionary parameters;
    std::optional<bool> shouldIncludeExtraUserInfo;
    std::string value;
};

class RecordingFirebaseAnalytics final : public FirebaseAnalyticsWrapping, public FirebaseAnalyticsProviding {
public:
    using Kind = FirebaseCall::Kind;
    void logEventWithName(const std::string& name, const AttributeDictionary& parameters,
                          bool shouldIncludeExtraUserInfo) override {
        record({Kind::event, name, parameters, shouldIncludeExtraUserInfo, {}});
    }
    void trackScreenWithName(const std::string& name) override { record({Kind::screen, name, {}, std::nullopt, {}}); }
    void setUserIdentifier(const std::string& id) override { record({Kind::userIdentifier, id, {}, std::nullopt, {}}); }
    void setUserProperty(const std::string& value, const std::string& forName) override {
        record({Kind::userProperty, forName, {}, std::nullopt, value});
    }
    void logEventWithName(const std::string& name, const AttributeDictionary& parameters) override {
        record({Kind::event, name, parameters, std::nullopt, {}});
    }
    void setScreenName(const std::string& screenName, const std::string& screenClass) override {
        record({Kind::screenName, screenName, {}, std::nullopt, screenClass});
    }

    std::vector<FirebaseCall> calls() const { std::lock_guard lock(mutex_); return calls_; }
    std::vector<std::pair<std::string, std::string>> userProperties() const {
        std::vector<std::pair<std::string, std::string>> properties;
        for (const auto& call : calls())
            if (call.kind == Kind::userProperty) properties.emplace_back(call.name, call.value);
        return properties;
    }

private:
    void record(FirebaseCall call) { std::lock_guard lock(mutex_); calls_.push_back(std::move(call)); }
    mutable std::mutex mutex_;
    std::vector<FirebaseCall> calls_;
};

}  // namespace kt::testing
