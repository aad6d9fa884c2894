#include "Support/RecordingFirebaseAnalytics.h"

namespace kt::testing {

void RecordingFirebaseAnalytics::record(FirebaseCall call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
}

void RecordingFirebaseAnalytics::logEventWithName(const std::string& name, const AttributeDictionary& parameters,
                                                  bool shouldIncludeExtraUserInfo) {
    record({FirebaseCall::Kind::event, name, parameters, shouldIncludeExtraUserInfo, {}});
}

void RecordingFirebaseAnalytics::trackScreenWithName(const std::string& name) {
    record({FirebaseCall::Kind::screen, name, {}, std::nullopt, {}});
}

void RecordingFirebaseAnalytics::setUserIdentifier(const std::string& identifier) {
    record({FirebaseCall::Kind::userIdentifier, identifier, {}, std::nullopt, {}});
}

void RecordingFirebaseAnalytics::setUserProperty(const std::string& value, const std::string& forName) {
    record({FirebaseCall::Kind::userProperty, forName, {}, std::nullopt, value});
}

void RecordingFirebaseAnalytics::logEventWithName(const std::string& name, const AttributeDictionary& parameters) {
    record({FirebaseCall::Kind::event, name, parameters, std::nullopt, {}});
}

void RecordingFirebaseAnalytics::setScreenName(const std::string& screenName, const std::string& screenClass) {
    record({FirebaseCall::Kind::screenName, screenName, {}, std::nullopt, screenClass});
}

std::vector<FirebaseCall> RecordingFirebaseAnalytics::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

std::vector<std::pair<std::string, std::string>> RecordingFirebaseAnalytics::userProperties() const {
    std::lock_guard lock(mutex_);
    std::vector<std::pair<std::string, std::string>> properties;
    for (const auto& call : calls_)
        if (call.kind == FirebaseCall::Kind::userProperty)
            properties.emplace_back(call.name, call.value);
    return properties;
}

}  // namespace kt::testing
