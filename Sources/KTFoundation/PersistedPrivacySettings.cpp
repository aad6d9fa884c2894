#include "KTAnalytics/KTFoundation/PersistedPrivacySettings.h"

#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Platform/UserDefaults.h"

namespace kt {
namespace {

constexpr const char* kAnalyticsTracking = "analytics_tracking_enabled";
constexpr const char* kTargetedAdvertising = "targeted_advertising_enabled";
constexpr const char* kIabConsentString = "iab_consent_string";
constexpr const char* kAdvertisingTracking = "ios_advertising_tracking_enabled";

// Property lists may hand booleans back as numbers; anything else reads as "not granted".
bool readFlag(const AttributeValue& dictionary, const char* key) {
    auto it = dictionary.find(key);
    if (it == dictionary.end())
        return false;
    if (it->is_boolean())
        return it->get<bool>();
    if (it->is_number())
        return it->get<double>() != 0;
    return false;
}

}  // namespace

PersistedPrivacySettings::PersistedPrivacySettings(std::shared_ptr<UserDefaults> defaults)
    : defaults_(std::move(defaults)) {
    KT_PARAMETER_ASSERT_TEXT(defaults_, "defaults");
}

PrivacySettings PersistedPrivacySettings::currentSettings() const {
    PrivacySettings settings;
    auto stored = defaults_->object(settingsKey);
    if (!stored || !stored->is_object())
        return settings;
    settings.analyticsTrackingEnabled = readFlag(*stored, kAnalyticsTracking);
    settings.targetedAdvertisingEnabled = readFlag(*stored, kTargetedAdvertising);
    settings.iOSAdvertisingTrackingEnabled = readFlag(*stored, kAdvertisingTracking);
    if (auto it = stored->find(kIabConsentString); it != stored->end() && it->is_string())
        settings.iabConsentString = it->get<std::string>();
    return settings;
}

bool PersistedPrivacySettings::isAnalyticsTrackingEnabled() const {
    return currentSettings().analyticsTrackingEnabled;
}

bool PersistedPrivacySettings::isTargetedAdvertisingEnabled() const {
    return currentSettings().targetedAdvertisingEnabled;
}

std::optional<std::string> PersistedPrivacySettings::iabConsentString() const {
    return currentSettings().iabConsentString;
}

bool PersistedPrivacySettings::isiOSAdvertisingTrackingEnabled() const {
    return currentSettings().iOSAdvertisingTrackingEnabled;
}

void PersistedPrivacySettings::updateWithPrivacySettings(const PrivacySettings& settings) {
    AttributeValue stored = AttributeValue::object();
    stored[kAnalyticsTracking] = settings.analyticsTrackingEnabled;
    stored[kTargetedAdvertising] = settings.targetedAdvertisingEnabled;
    stored[kAdvertisingTracking] = settings.iOSAdvertisingTrackingEnabled;
    if (settings.iabConsentString)
        stored[kIabConsentString] = *settings.iabConsentString;
    defaults_->set(stored, settingsKey);
}

void PersistedPrivacySettings::resetPrivacySettings() {
    defaults_->removeObject(settingsKey);
    defaults_->removeObject(analyticsIdKey);
}

std::string PersistedPrivacySettings::analticsIdStorageKey() const {
    return analyticsIdKey;
}

}  // namespace kt
