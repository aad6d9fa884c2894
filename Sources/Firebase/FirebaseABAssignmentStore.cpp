#include "KTAnalytics/Firebase/FirebaseABAssignmentStore.h"

#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Platform/UserDefaults.h"

namespace kt {

FirebaseABAssignmentStore::FirebaseABAssignmentStore(std::shared_ptr<UserDefaults> userDefaults, std::string key)
    : userDefaults_(std::move(userDefaults)), key_(std::move(key)) {
    KT_PARAMETER_ASSERT_TEXT(userDefaults_, "userDefaults");
    if (auto stored = userDefaults_->stringDictionary(key_)) {
        assignments_ = std::move(*stored);
        writeBack();
    }
}

void FirebaseABAssignmentStore::reset() { userDefaults_->removeObject(key_); }

std::optional<std::string> FirebaseABAssignmentStore::operator[](const std::string& key) const {
    auto it = assignments_.find(key);
    if (it == assignments_.end()) return std::nullopt;
    return it->second;
}

void FirebaseABAssignmentStore::set(const std::string& key, std::optional<std::string> value) {
    modify(key, [&](std::optional<std::string>& entry) { entry = std::move(value); });
}

void FirebaseABAssignmentStore::modify(const std::string& key,
                                       const std::function<void(std::optional<std::string>&)>& change) {
    std::optional<std::string> entry = (*this)[key];
    change(entry);
    if (entry)
        assignments_[key] = std::move(*entry);
    else
        assignments_.erase(key);
    writeBack();
}

void FirebaseABAssignmentStore::writeBack() {
    // Always a plain object of strings, one entry per assigned key (an empty one included).
    AttributeValue dictionary = AttributeValue::object();
    for (const auto& [key, value] : assignments_) dictionary[key] = value;
    userDefaults_->set(dictionary, key_);
}

}  // namespace kt
