#pragma once
// The listener's privacy choices, as the host application records them (consent dialog,
// settings screen). Readers ask afresh on every use, so a change applies at once.

#include <optional>
#include <string>

namespace kt {

/// One complete set of privacy choices, written at once by `updateWithPrivacySettings`.
struct PrivacySettings {
    bool analyticsTrackingEnabled = false;
    bool targetedAdvertisingEnabled = false;
    /// The IAB transparency-and-consent string, when a consent platform produced one.
    std::optional<std::string> iabConsentString;
    /// The device-level permission to track for advertising. A phone's operating system
    /// owns it there; on this platform the host application records it with the rest.
    bool iOSAdvertisingTrackingEnabled = false;
};

class PrivacySettingsStoring {
public:
    virtual ~PrivacySettingsStoring() = default;
    PrivacySettingsStoring() = default;
    PrivacySettingsStoring(const PrivacySettingsStoring&) = delete;
    PrivacySettingsStoring& operator=(const PrivacySettingsStoring&) = delete;

    virtual bool isAnalyticsTrackingEnabled() const = 0;
    virtual bool isTargetedAdvertisingEnabled() const = 0;
    virtual std::optional<std::string> iabConsentString() const = 0;
    virtual bool isiOSAdvertisingTrackingEnabled() const = 0;

    /// Replaces every stored choice with `settings`.
    virtual void updateWithPrivacySettings(const PrivacySettings& settings) = 0;
    /// Forgets every recorded choice; the defaults apply again.
    virtual void resetPrivacySettings() = 0;

    /// The storage key under which the analytics id is kept (the name's spelling is the
    /// interface's own and is relied on by callers).
    virtual std::string analticsIdStorageKey() const = 0;
};

}  // namespace kt
