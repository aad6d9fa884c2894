#include "KTAnalytics/Analytics/FirebaseAnalyticsController.h"

#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

FirebaseAnalyticsController::FirebaseAnalyticsController(
    std::shared_ptr<FirebaseAnalyticsWrapping> firebaseAnalyticsWrapper,
    std::shared_ptr<PrivacySettingsStoring> privacySettingsStorage)
    : firebaseAnalyticsWrapper_(std::move(firebaseAnalyticsWrapper)),
      privacySettingsStorage_(std::move(privacySettingsStorage)) {
    KT_PARAMETER_ASSERT_TEXT(firebaseAnalyticsWrapper_, "firebaseAnalyticsWrapper");
    KT_PARAMETER_ASSERT_TEXT(privacySettingsStorage_, "privacySettingsStorage");
}

// Asked afresh on every call: consent can change between any two calls.
bool FirebaseAnalyticsController::isTrackingAllowed() {
    bool allowed = privacySettingsStorage_->isAnalyticsTrackingEnabled();
    (allowed ? forwarded_ : suppressed_).fetch_add(1, std::memory_order_relaxed);
    return allowed;
}

FirebaseAnalyticsController::CallCounts FirebaseAnalyticsController::callCounts() const {
    return CallCounts{forwarded_.load(std::memory_order_relaxed), suppressed_.load(std::memory_order_relaxed)};
}

void FirebaseAnalyticsController::logEvent(const std::string& name, const AttributeDictionary& parameters) {
    if (!isTrackingAllowed())
        return;
    // A null dictionary is what `{}` builds; the adapter gets an empty one, never nothing.
    if (parameters.is_null())
        firebaseAnalyticsWrapper_->logEventWithName(name, value::dictionary(), true);
    else
        firebaseAnalyticsWrapper_->logEventWithName(name, parameters, true);
}

void FirebaseAnalyticsController::trackScreen(const std::string& name) {
    if (!isTrackingAllowed())
        return;
    firebaseAnalyticsWrapper_->trackScreenWithName(name);
}

void FirebaseAnalyticsController::log(const FirebaseAnalyticsEvent& event) {
    if (!isTrackingAllowed())
        return;
    firebaseAnalyticsWrapper_->logEventWithName(event.name(), event.parameters(), event.shouldIncludeExtraUserInfo());
}

}  // namespace kt
