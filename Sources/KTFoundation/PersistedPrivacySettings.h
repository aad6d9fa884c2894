#pragma once
// Privacy choices kept in user defaults, so that consent given (or withdrawn) survives a
// restart of the application.
//
// Defaults: everything disabled until the host records the listener's choices. The SDK
// must not send analytics before consent exists, so "no record" means "no consent"; a
// host that has consent from elsewhere calls `updateWithPrivacySettings` at start.

#include <memory>
#include <optional>
#include <string>

#include "KTAnalytics/KTFoundation/PrivacySettingsStoring.h"

namespace kt {

class UserDefaults;

class PersistedPrivacySettings final : public PrivacySettingsStoring {
public:
    /// The user-defaults key of the recorded choices (one dictionary, written at once so
    /// that a reader never sees half of an update).
    static constexpr const char* settingsKey = "privacy_settings.current";
    /// Where the analytics id is kept; `resetPrivacySettings` removes it too, so that a
    /// listener who resets their choices is not recognised under the old identity.
    static constexpr const char* analyticsIdKey = "privacy_settings.analytics_id";

    explicit PersistedPrivacySettings(std::shared_ptr<UserDefaults> defaults);
    PersistedPrivacySettings() = delete;

    bool isAnalyticsTrackingEnabled() const override;
    bool isTargetedAdvertisingEnabled() const override;
    std::optional<std::string> iabConsentString() const override;
    bool isiOSAdvertisingTrackingEnabled() const override;

    void updateWithPrivacySettings(const PrivacySettings& settings) override;
    void resetPrivacySettings() override;
    std::string analticsIdStorageKey() const override;

    /// The recorded choices, or the defaults when nothing (or nothing readable) is stored.
    PrivacySettings currentSettings() const;

private:
    std::shared_ptr<UserDefaults> defaults_;
};

}  // namespace kt
