#pragma once
// Sits between callers and the host's Firebase adapter and forwards each call only while
// the listener allows analytics tracking. The setting is read on every call, so consent
// given or withdrawn applies to the very next call; a call made without consent is
// dropped for good (never queued or replayed), and only counted.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "KTAnalytics/Analytics/FirebaseAnalyticsLogging.h"
#include "KTAnalytics/Analytics/FirebaseAnalyticsWrapping.h"
#include "KTAnalytics/KTFoundation/FirebaseAnalyticsControlling.h"
#include "KTAnalytics/KTFoundation/PrivacySettingsStoring.h"

namespace kt {

class FirebaseAnalyticsController final : public FirebaseAnalyticsLogging, public FirebaseAnalyticsControlling {
public:
    FirebaseAnalyticsController(std::shared_ptr<FirebaseAnalyticsWrapping> firebaseAnalyticsWrapper,
                                std::shared_ptr<PrivacySettingsStoring> privacySettingsStorage);
    FirebaseAnalyticsController() = delete;

    /// Forwarded with the extra-user-info flag always set.
    void logEvent(const std::string& name, const AttributeDictionary& parameters) override;
    void trackScreen(const std::string& name) override;
    /// Forwarded with the event's own extra-user-info flag.
    void log(const FirebaseAnalyticsEvent& event) override;

    /// Calls handed to the wrapper and calls dropped for want of consent, since creation.
    struct CallCounts {
        std::uint64_t forwarded = 0;
        std::uint64_t suppressed = 0;
    };
    CallCounts callCounts() const;

private:
    bool isTrackingAllowed();

    const std::shared_ptr<FirebaseAnalyticsWrapping> firebaseAnalyticsWrapper_;
    const std::shared_ptr<PrivacySettingsStoring> privacySettingsStorage_;
    std::atomic<std::uint64_t> forwarded_{0};
    std::atomic<std::uint64_t> suppressed_{0};
};

}  // namespace kt
