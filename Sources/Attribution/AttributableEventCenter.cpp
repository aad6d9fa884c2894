#include "KTAnalytics/Attribution/AttributableEventCenter.h"

#include "KTAnalytics/AnalyticsProvider/APAnalyticsController.h"
#include "KTAnalytics/Attribution/AttributableEventEmitters.h"
#include "KTAnalytics/KTFoundation/KeyValueStoring.h"

namespace kt {

AttributableEventCenter::AttributableEventCenter(Passkey) {}

std::shared_ptr<AttributableEventCenter> AttributableEventCenter::make(
    std::shared_ptr<PlaybackServicing> playbackService, std::shared_ptr<APAnalyticsController> analyticsController,
    std::shared_ptr<UserDefaults> defaults) {
    auto center = std::make_shared<AttributableEventCenter>(Passkey());
    auto store = std::make_shared<UserDefaultsStore>(std::move(defaults), kStoreNameSpace);
    center->playbackEmitter_ = AttributablePlaybackEventEmitter::make(std::move(playbackService), std::move(store));
    center->analyticsEmitter_ = AttributableAnalyticsEventEmitter::make(std::move(analyticsController));
    center->playbackEmitter_->setDelegate(center);
    center->analyticsEmitter_->setDelegate(center);
    return center;
}

std::shared_ptr<AttributableEventCenter> AttributableEventCenter::make(
    std::shared_ptr<PlaybackServicing> playbackService, std::shared_ptr<UserDefaults> defaults) {
    // The shared controller lives for the whole process.
    return make(std::move(playbackService),
                std::shared_ptr<APAnalyticsController>(&APAnalyticsController::sharedInstance(),
                                                       [](APAnalyticsController*) {}),
                std::move(defaults));
}

void AttributableEventCenter::setDelegate(std::weak_ptr<AttributableEventCenterDelegate> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

void AttributableEventCenter::didEmitEventWithName(const std::string& token) {
    std::shared_ptr<AttributableEventCenterDelegate> delegate;
    {
        std::lock_guard lock(mutex_);
        delegate = delegate_.lock();
    }
    if (delegate) delegate->didTriggerEventWithName(token);
}

}  // namespace kt
