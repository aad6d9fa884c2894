#include "KTAnalytics/Firebase/FirebaseABManager.h"

#include "KTAnalytics/Firebase/Detail/WholeTextNumber.h"
#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Platform/UserDefaults.h"

namespace kt {

FirebaseABManager::FirebaseABManager(std::shared_ptr<UserDefaults> userDefaults) {
    KT_PARAMETER_ASSERT(userDefaults);
    remoteAssignmentsStore_ = std::make_unique<FirebaseABAssignmentStore>(userDefaults, remoteAssignmentsKey);
    overriddenAssignmentsStore_ = std::make_unique<FirebaseABAssignmentStore>(userDefaults, overriddenAssignmentsKey);
}

void FirebaseABManager::updateAssignments(const RemoteConfigProviding& remoteConfig,
                                          const std::vector<FirebaseABExperimentType>& experiments) {
    // Only the user-defaults entry goes: the dictionary in memory keeps every earlier
    // value, so a key remote config stops answering keeps serving its last value, and the
    // first write below puts it back on disk.
    remoteAssignmentsStore_->reset();
    for (const auto& experiment : experiments) {
        const std::string id = experiment.id();
        if (auto value = remoteConfig.valueFor(id)) remoteAssignmentsStore_->set(id, std::move(value));
        if (auto remoteValueId = experiment.remoteValueId())
            if (auto value = remoteConfig.valueFor(*remoteValueId))
                remoteAssignmentsStore_->set(*remoteValueId, std::move(value));
    }
}

std::optional<std::string> FirebaseABManager::assignment(const FirebaseABExperimentType& experiment) const {
    const std::string id = experiment.id();
    // An override decides alone, even when it names no variant.
    auto raw = (*overriddenAssignmentsStore_)[id];
    if (!raw) raw = (*remoteAssignmentsStore_)[id];
    if (!raw || !experiment.isRawValue(*raw)) return std::nullopt;
    return raw;
}

std::optional<double> FirebaseABManager::assignmentDoubleValue(const FirebaseABExperimentType& experiment) const {
    const auto remoteValueId = experiment.remoteValueId();
    if (!remoteValueId) return std::nullopt;
    // Remote store only: the menu overrides variants, never companion values.
    const auto text = (*remoteAssignmentsStore_)[*remoteValueId];
    if (!text) return std::nullopt;
    return detail::parseWholeTextDouble(*text);
}

std::optional<std::string> FirebaseABManager::overriddenValue(const std::string& key) const {
    return (*overriddenAssignmentsStore_)[key];
}

void FirebaseABManager::setOverride(const std::optional<std::string>& value, const std::string& key) {
    overriddenAssignmentsStore_->set(key, value);
}

}  // namespace kt
