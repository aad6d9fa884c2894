#include "Commands/Playback.h"

namespace kt::tool {

void ScriptedPlaybackService::setDelegate(std::weak_ptr<PlaybackServiceDelegating> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

void ScriptedPlaybackService::play(const std::string& urn, PlayQueueItemType type,
                                   std::initializer_list<double> progress) {
    std::shared_ptr<PlaybackServiceDelegating> delegate;
    {
        std::lock_guard lock(mutex_);
        delegate = delegate_.lock();
    }
    const auto parsed = Urn::parse(urn);
    if (!delegate || !parsed) return;
    delegate->currentPlayQueueItemDidChangeToItem(PlayQueueItem{*parsed, type});
    for (double seconds : progress) delegate->progressDidChangeToDuration(seconds);
}

void TokenRecorder::didTriggerEventWithName(const std::string& token) {
    std::lock_guard lock(mutex_);
    tokens_.push_back(token);
}

std::vector<std::string> TokenRecorder::tokens() const {
    std::lock_guard lock(mutex_);
    return tokens_;
}

}  // namespace kt::tool
