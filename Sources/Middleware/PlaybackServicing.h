#pragma once
// The player, as the application supplies it: a play queue whose items are known by their
// URN and kind, and a delegate told when the current item changes and as playback moves.

#include <memory>
#include <optional>

#include "KTAnalytics/KTFoundation/Urn.h"

namespace kt {

enum class PlayQueueItemType { track, ad, episode };

/// One entry of the play queue.
struct PlayQueueItem {
    Urn urn;
    PlayQueueItemType itemType = PlayQueueItemType::track;
};

enum class PlayState { idle, buffering, playing, paused, ended };

class PlaybackServiceDelegating {
public:
    virtual ~PlaybackServiceDelegating() = default;
    PlaybackServiceDelegating() = default;
    PlaybackServiceDelegating(const PlaybackServiceDelegating&) = delete;
    PlaybackServiceDelegating& operator=(const PlaybackServiceDelegating&) = delete;

    virtual void currentPlayQueueItemDidChangeToItem(const std::optional<PlayQueueItem>& item) = 0;
    virtual void nextPlayQueueItemDidChangeToItem(const std::optional<PlayQueueItem>& item) = 0;
    /// The playback position within the current item, in seconds.
    virtual void progressDidChangeToDuration(double seconds) = 0;
    virtual void playStateDidTransition(PlayState state) = 0;
};

class PlaybackServicing {
public:
    virtual ~PlaybackServicing() = default;
    PlaybackServicing() = default;
    PlaybackServicing(const PlaybackServicing&) = delete;
    PlaybackServicing& operator=(const PlaybackServicing&) = delete;

    /// Held weakly: the player never keeps its delegate alive.
    virtual void setDelegate(std::weak_ptr<PlaybackServiceDelegating> delegate) = 0;
};

}  // namespace kt
