#pragma once
// The tool's stand-ins for what the host application supplies to attribution: a player
// that plays what it is told, and a delegate that keeps the tokens it is handed.

#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "KTAnalytics/Attribution/AttributableEvents.h"
#include "KTAnalytics/Middleware/PlaybackServicing.h"

namespace kt::tool {

class ScriptedPlaybackService final : public PlaybackServicing {
public:
    void setDelegate(std::weak_ptr<PlaybackServiceDelegating> delegate) override;
    /// Makes `urn` the current item and reports each playback position, in seconds.
    void play(const std::string& urn, PlayQueueItemType type, std::initializer_list<double> progress);

private:
    std::mutex mutex_;
    std::weak_ptr<PlaybackServiceDelegating> delegate_;  // guarded by mutex_
};

/// Thread-safe.
class TokenRecorder final : public AttributableEventCenterDelegate {
public:
    void didTriggerEventWithName(const std::string& token) override;
    std::vector<std::string> tokens() const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> tokens_;  // guarded by mutex_
};

}  // namespace kt::tool
