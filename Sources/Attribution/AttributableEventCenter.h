#pragma once
// Gathers the attribution milestones of both emitters and hands each token to the host's
// delegate, which forwards it to the attribution service.

#include <memory>
#include <mutex>
#include <vector>

#include "KTAnalytics/Attribution/AttributableEvents.h"

namespace kt {

class APAnalyticsController;
class AttributableAnalyticsEventEmitter;
class AttributablePlaybackEventEmitter;
class PlaybackServicing;
class UserDefaults;

class AttributableEventCenter final : public AttributableEventEmitterDelegate,
                                      public std::enable_shared_from_this<AttributableEventCenter> {
    struct Passkey {
        explicit Passkey() = default;
    };

public:
    static constexpr const char* kStoreNameSpace = "attributableEventCenter";

    /// The play count lives in `defaults` under the name space "attributableEventCenter".
    /// The analytics emitter registers itself with `analyticsController`.
    static std::shared_ptr<AttributableEventCenter> make(std::shared_ptr<PlaybackServicing> playbackService,
                                                         std::shared_ptr<APAnalyticsController> analyticsController,
                                                         std::shared_ptr<UserDefaults> defaults);
    /// The same over the shared analytics controller.
    static std::shared_ptr<AttributableEventCenter> make(std::shared_ptr<PlaybackServicing> playbackService,
                                                         std::shared_ptr<UserDefaults> defaults);
    explicit AttributableEventCenter(Passkey);
    AttributableEventCenter() = delete;

    /// Held weakly; without one, tokens are dropped (the play count still advances).
    void setDelegate(std::weak_ptr<AttributableEventCenterDelegate> delegate);
    void didEmitEventWithName(const std::string& token) override;

    const std::shared_ptr<AttributablePlaybackEventEmitter>& playbackEmitter() const { return playbackEmitter_; }
    const std::shared_ptr<AttributableAnalyticsEventEmitter>& analyticsEmitter() const { return analyticsEmitter_; }

private:
    std::shared_ptr<AttributablePlaybackEventEmitter> playbackEmitter_;
    std::shared_ptr<AttributableAnalyticsEventEmitter> analyticsEmitter_;
    std::mutex mutex_;
    std::weak_ptr<AttributableEventCenterDelegate> delegate_;  // guarded by mutex_
};

}  // namespace kt
