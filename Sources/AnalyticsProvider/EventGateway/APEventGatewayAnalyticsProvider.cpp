#include "AnalyticsProvider/EventGateway/APEventGatewayAnalyticsProvider.h"

#include "AnalyticsProvider/APEvent.h"
#include "AnalyticsProvider/EventGateway/APEventGatewayAnalyticsRecording.h"
#include "AnalyticsProvider/EventGateway/APEventGatewayEventTransforming.h"
#include "AnalyticsProvider/EventGateway/Upload/APEventGatewayUploading.h"
#include "AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "Platform/Fatal.h"
#include "Platform/SerialQueue.h"

namespace kt {

std::shared_ptr<APEventGatewayAnalyticsProvider> APEventGatewayAnalyticsProvider::make(
    std::shared_ptr<APEventGatewayUploading> uploader, std::shared_ptr<APEventGatewayEventTransforming> eventTransformer,
    std::shared_ptr<APEventGatewayAnalyticsRecording> recorder, std::shared_ptr<SerialQueue> queue) {
    return std::make_shared<APEventGatewayAnalyticsProvider>(Passkey(), std::move(uploader), std::move(eventTransformer),
                                                             std::move(recorder), std::move(queue));
}

APEventGatewayAnalyticsProvider::APEventGatewayAnalyticsProvider(
    Passkey, std::shared_ptr<APEventGatewayUploading> uploader,
    std::shared_ptr<APEventGatewayEventTransforming> eventTransformer,
    std::shared_ptr<APEventGatewayAnalyticsRecording> recorder, std::shared_ptr<SerialQueue> queue)
    : uploader_(std::move(uploader)),
      eventTransformer_(std::move(eventTransformer)),
      recorder_(std::move(recorder)),
      queue_(std::move(queue)) {
    KT_PARAMETER_ASSERT_TEXT(uploader_ != nullptr, "uploader");
    KT_PARAMETER_ASSERT_TEXT(eventTransformer_ != nullptr, "eventTransformer");
    KT_PARAMETER_ASSERT_TEXT(recorder_ != nullptr, "recorder");
    KT_PARAMETER_ASSERT_TEXT(queue_ != nullptr, "queue");
}

std::shared_ptr<const EventNameSet> APEventGatewayAnalyticsProvider::trackedEvents() const {
    // Built once and shared: callers on the tagging road must not pay for a new set.
    static const auto names = std::make_shared<const EventNameSet>(EventNameSet{
        "ad_request",
        "ad_delivery",
        "audio",
        "audio_performance",
        "audio_error",
        "authentication::abort",
        "authentication::initiate",
        "clickthrough::companion_display",
        "clickthrough::consumer_sub_ad",
        "clickthrough::interstitial",
        "clickthrough::video_ad",
        "dismiss::consumer_sub_ad",
        "foreground",
        "impression",
        "like",
        "list_view_interaction",
        "pageview",
        "rich_media_stream_error",
        "rich_media_stream",
        "rich_media_stream_performance",
        "related_tracks",
        "repost",
        "search",
        "share",
        "share::prompt",
        "unlike",
        "unrepost",
        "offline_sync",
        "click",
    });
    return names;
}

void APEventGatewayAnalyticsProvider::tagEvent(const std::shared_ptr<const APEventDescripting>& event) {
    const std::size_t pending = pending_.fetch_add(1, std::memory_order_relaxed) + 1;
    if (pending > peakPending_.load(std::memory_order_relaxed)) peakPending_.store(pending, std::memory_order_relaxed);
    if (pending > kCompactAbove) {
        postCompact(event);
        return;
    }
    queue_->async([weak = weak_from_this(), event] {
        if (auto self = weak.lock()) {
            self->pending_.fetch_sub(1, std::memory_order_relaxed);
            self->process(*event);
        }
    });
}

namespace {

// Only a name: what a work item needs to count an event it cannot carry.
class NamedOnly final : public APEventDescripting {
public:
    explicit NamedOnly(std::string name) : name_(std::move(name)) {}
    const std::string& name() const override { return name_; }
    const AttributeDictionary* attributes() const override { return nullptr; }

private:
    std::string name_;
};

}  // namespace

void APEventGatewayAnalyticsProvider::postCompact(const std::shared_ptr<const APEventDescripting>& event) {
    const AttributeDictionary* attributes = event->attributes();
    // The encoder recurses, so the depth is looked at first, on the caller's thread too.
    const bool tooDeep = attributes && value::nestsDeeperThan(*attributes, APEventSerializer::kMaximumAttributeDepth);
    std::optional<Bytes> encoded;
    if (attributes && !tooDeep) encoded = AttributeValue::to_cbor(*attributes);
    queue_->async([weak = weak_from_this(), name = event->name(), encoded = std::move(encoded), tooDeep] {
        auto self = weak.lock();
        if (!self) return;
        self->pending_.fetch_sub(1, std::memory_order_relaxed);
        if (tooDeep) {
            self->uploader_->discardEvent(NamedOnly(name), APEventDropReason::tooDeeplyNested);
            return;
        }
        std::optional<AttributeDictionary> decoded;
        // Dates and data travel as tagged byte strings and come back as what they were.
        if (encoded)
            decoded = AttributeValue::from_cbor(*encoded, true, true, AttributeValue::cbor_tag_handler_t::store);
        self->process(*APEvent::make(name, std::move(decoded)));
    });
}

void APEventGatewayAnalyticsProvider::process(const APEventDescripting& event) {
    // The transformer copies the attributes recursively; a hostile depth must stop here.
    if (const auto* attributes = event.attributes();
        attributes && value::nestsDeeperThan(*attributes, APEventSerializer::kMaximumAttributeDepth)) {
        uploader_->discardEvent(event, APEventDropReason::tooDeeplyNested);
        return;
    }
    auto transformed = std::dynamic_pointer_cast<const APEvent>(eventTransformer_->transform(event));
    if (!transformed) return;  // nothing, or not an event the gateway can take
    if (recorder_->recording()) recorder_->recordEvent(transformed->eventGatewayDictionary());
    uploader_->uploadEvent(transformed);
}

void APEventGatewayAnalyticsProvider::flush() { uploader_->flush(); }

}  // namespace kt
