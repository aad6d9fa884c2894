#include "KTAnalytics/Attribution/AttributableEventEmitters.h"

#include <cmath>
#include <limits>

#include "KTAnalytics/AnalyticsProvider/APAnalyticsController.h"
#include "KTAnalytics/KTFoundation/KeyValueStoring.h"
#include "KTAnalytics/KTFoundation/Urn.h"
#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

namespace {

const std::string* stringAttribute(const APEventDescripting& event, const char* key) {
    const AttributeDictionary* attributes = event.attributes();
    if (!attributes) return nullptr;
    const auto found = attributes->find(key);
    return found != attributes->end() && found->is_string() ? &found->get_ref<const std::string&>() : nullptr;
}

}  // namespace

std::string_view attributableEventToken(AttributableEvent event) {
    switch (event) {
        case AttributableEvent::like: return "k4tq7v";
        case AttributableEvent::follow: return "31x905";
        case AttributableEvent::playlistPlay: return "pqdse2";
    }
    return {};
}

std::optional<AttributableEvent> attributableEventFromToken(std::string_view token) {
    for (auto event : {AttributableEvent::like, AttributableEvent::follow, AttributableEvent::playlistPlay})
        if (attributableEventToken(event) == token) return event;
    return std::nullopt;
}

// --- the analytics event stream ---------------------------------------------------------

std::shared_ptr<AttributableAnalyticsEventEmitter> AttributableAnalyticsEventEmitter::make(
    std::shared_ptr<APAnalyticsController> analyticsController) {
    KT_PARAMETER_ASSERT_TEXT(analyticsController != nullptr, "analyticsController");
    auto emitter = std::make_shared<AttributableAnalyticsEventEmitter>(Passkey(), analyticsController);
    analyticsController->registerAnalyticsProvider(emitter);
    return emitter;
}

AttributableAnalyticsEventEmitter::AttributableAnalyticsEventEmitter(
    Passkey, std::shared_ptr<APAnalyticsController> analyticsController)
    : analyticsController_(std::move(analyticsController)) {}

void AttributableAnalyticsEventEmitter::setDelegate(std::weak_ptr<AttributableEventEmitterDelegate> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

std::shared_ptr<const EventNameSet> AttributableAnalyticsEventEmitter::trackedEvents() const {
    static const auto names = std::make_shared<const EventNameSet>(EventNameSet{"like", "click", "audio"});
    return names;
}

void AttributableAnalyticsEventEmitter::tagEvent(const std::shared_ptr<const APEventDescripting>& event) {
    const std::string& name = event->name();
    if (name == "like") {
        emit(AttributableEvent::like);
    } else if (name == "click") {
        const auto* clickName = stringAttribute(*event, "click_name");
        if (clickName && *clickName == "follow::add") emit(AttributableEvent::follow);
    } else if (name == "audio") {
        const auto* action = stringAttribute(*event, "action");
        if (!action || *action != "play") return;
        const auto* playlist = stringAttribute(*event, "in_playlist");
        if (!playlist) return;
        const auto urn = Urn::parse(*playlist);
        if (!urn) return;
        {
            std::lock_guard lock(mutex_);
            // Playback going on in the same playlist is no new milestone.
            if (urn->stringValue() == currentPlaylist_) return;
            currentPlaylist_ = *playlist;
        }
        if (urn->isSystemPlaylist()) emit(AttributableEvent::playlistPlay);
    }
}

void AttributableAnalyticsEventEmitter::emit(AttributableEvent event) {
    std::shared_ptr<AttributableEventEmitterDelegate> delegate;
    {
        std::lock_guard lock(mutex_);
        delegate = delegate_.lock();
    }
    if (delegate) delegate->didEmitEventWithName(std::string(attributableEventToken(event)));
}

// --- the player -----------------------------------------------------------------------------

std::shared_ptr<AttributablePlaybackEventEmitter> AttributablePlaybackEventEmitter::make(
    std::shared_ptr<PlaybackServicing> playbackService, std::shared_ptr<KeyValueStoring> store,
    double progressThreshold) {
    auto emitter = std::make_shared<AttributablePlaybackEventEmitter>(Passkey(), std::move(playbackService),
                                                                      std::move(store), progressThreshold);
    emitter->playbackService_->setDelegate(emitter);
    return emitter;
}

AttributablePlaybackEventEmitter::AttributablePlaybackEventEmitter(Passkey,
                                                                   std::shared_ptr<PlaybackServicing> playbackService,
                                                                   std::shared_ptr<KeyValueStoring> store,
                                                                   double progressThreshold)
    : playbackService_(std::move(playbackService)), store_(std::move(store)), progressThreshold_(progressThreshold) {
    KT_PARAMETER_ASSERT_TEXT(playbackService_ != nullptr, "playbackService");
    KT_PARAMETER_ASSERT_TEXT(store_ != nullptr, "store");
}

void AttributablePlaybackEventEmitter::setDelegate(std::weak_ptr<AttributableEventEmitterDelegate> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

void AttributablePlaybackEventEmitter::currentPlayQueueItemDidChangeToItem(const std::optional<PlayQueueItem>& item) {
    if (!item || item->itemType == PlayQueueItemType::ad) return;
    std::lock_guard lock(mutex_);
    if (currentItem_ && currentItem_->urn == item->urn) return;
    currentItem_ = item;
    isNewTrack_ = true;
}

std::uint64_t AttributablePlaybackEventEmitter::storedCount() const {
    const auto stored = store_->number(kPlayCountStoreKey);
    // Only a whole number an unsigned count can hold counts; anything else is taken as 0.
    if (!stored || !std::isfinite(*stored) || *stored < 0 || *stored != std::floor(*stored) ||
        *stored > static_cast<double>(std::numeric_limits<std::uint64_t>::max()))
        return 0;
    if (*stored == static_cast<double>(std::numeric_limits<std::uint64_t>::max()))
        return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(*stored);
}

void AttributablePlaybackEventEmitter::progressDidChangeToDuration(double seconds) {
    {
        std::lock_guard lock(mutex_);
        if (!(seconds > progressThreshold_) || !isNewTrack_) return;
        isNewTrack_ = false;
    }
    const std::uint64_t count = storedCount();
    KT_ASSERT(count != std::numeric_limits<std::uint64_t>::max(), "the play count cannot grow any further");
    store_->setNumber(static_cast<double>(count + 1), kPlayCountStoreKey);
    emit(EventToken::playToken);
    const std::uint64_t now = storedCount();
    if (now == kFirstPlay)
        emit(EventToken::firstPlayToken);
    else if (now == kFifthPlay)
        emit(EventToken::fifthPlayToken);
}

void AttributablePlaybackEventEmitter::emit(const char* token) {
    std::shared_ptr<AttributableEventEmitterDelegate> delegate;
    {
        std::lock_guard lock(mutex_);
        delegate = delegate_.lock();
    }
    if (delegate) delegate->didEmitEventWithName(token);
}

}  // namespace kt
