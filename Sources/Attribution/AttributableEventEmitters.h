#pragma once
// The two sources of attribution milestones: the analytics event stream (likes, follows
// from a click, playback starting in a new system playlist) and the player (every track
// played past five seconds, and the first and fifth ever, counted persistently).

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "KTAnalytics/AnalyticsProvider/APBaseAnalyticsProvider.h"
#include "KTAnalytics/Attribution/AttributableEvents.h"
#include "KTAnalytics/Middleware/PlaybackServicing.h"

namespace kt {

class APAnalyticsController;
class KeyValueStoring;

/// Delegates are held weakly; calls may come from any thread, one at a time per emitter.
class AttributableAnalyticsEventEmitter final
    : public APBaseAnalyticsProvider,
      public AttributableEventEmitter,
      public std::enable_shared_from_this<AttributableAnalyticsEventEmitter> {
    struct Passkey {
        explicit Passkey() = default;
    };

public:
    /// Builds the emitter and registers it with the controller.
    static std::shared_ptr<AttributableAnalyticsEventEmitter> make(
        std::shared_ptr<APAnalyticsController> analyticsController);
    AttributableAnalyticsEventEmitter(Passkey, std::shared_ptr<APAnalyticsController> analyticsController);
    AttributableAnalyticsEventEmitter() = delete;

    void setDelegate(std::weak_ptr<AttributableEventEmitterDelegate> delegate) override;
    /// {"like", "click", "audio"}.
    std::shared_ptr<const EventNameSet> trackedEvents() const override;
    void tagEvent(const std::shared_ptr<const APEventDescripting>& event) override;

private:
    void emit(AttributableEvent event);

    // Weak: the controller owns its providers, this one included.
    const std::weak_ptr<APAnalyticsController> analyticsController_;
    std::mutex mutex_;
    std::weak_ptr<AttributableEventEmitterDelegate> delegate_;  // guarded by mutex_
    std::string currentPlaylist_;                               // guarded by mutex_
};

class AttributablePlaybackEventEmitter final
    : public PlaybackServiceDelegating,
      public AttributableEventEmitter,
      public std::enable_shared_from_this<AttributablePlaybackEventEmitter> {
    struct Passkey {
        explicit Passkey() = default;
    };

public:
    static constexpr const char* kPlayCountStoreKey = "playTrackCount";
    static constexpr double kDefaultProgressThreshold = 5.0;
    static constexpr std::uint64_t kFirstPlay = 1;
    static constexpr std::uint64_t kFifthPlay = 5;

    /// Builds the emitter and makes it the player's delegate.
    static std::shared_ptr<AttributablePlaybackEventEmitter> make(std::shared_ptr<PlaybackServicing> playbackService,
                                                                  std::shared_ptr<KeyValueStoring> store,
                                                                  double progressThreshold = kDefaultProgressThreshold);
    AttributablePlaybackEventEmitter(Passkey, std::shared_ptr<PlaybackServicing> playbackService,
                                     std::shared_ptr<KeyValueStoring> store, double progressThreshold);
    AttributablePlaybackEventEmitter() = delete;

    void setDelegate(std::weak_ptr<AttributableEventEmitterDelegate> delegate) override;
    void currentPlayQueueItemDidChangeToItem(const std::optional<PlayQueueItem>& item) override;
    void nextPlayQueueItemDidChangeToItem(const std::optional<PlayQueueItem>&) override {}
    void progressDidChangeToDuration(double seconds) override;
    void playStateDidTransition(PlayState) override {}

private:
    void emit(const char* token);
    std::uint64_t storedCount() const;

    const std::shared_ptr<PlaybackServicing> playbackService_;
    const std::shared_ptr<KeyValueStoring> store_;
    const double progressThreshold_;
    std::mutex mutex_;
    std::weak_ptr<AttributableEventEmitterDelegate> delegate_;  // guarded by mutex_
    std::optional<PlayQueueItem> currentItem_;                  // guarded by mutex_
    bool isNewTrack_ = false;                                   // guarded by mutex_
};

}  // namespace kt
