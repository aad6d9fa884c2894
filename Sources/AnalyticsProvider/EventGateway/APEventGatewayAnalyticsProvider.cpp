#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayAnalyticsProvider.h"

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayAnalyticsRecording.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayEventTransforming.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayUploading.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Platform/SerialQueue.h"

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
    const AttributeDictionary* attributes = event->attributes();
    // The encoder recurses, so an event nested too deeply goes the ordinary way, where it is
    // refused and counted.
    if (pending <= kCompactAbove || !attributes ||
        value::nestsDeeperThan(*attributes, APEventSerializer::kMaximumAttributeDepth)) {
        queue_->async([weak = weak_from_this(), event] {
            if (auto self = weak.lock()) {
                self->pending_.fetch_sub(1, std::memory_order_relaxed);
                self->process(*event);
            }
        });
        return;
    }
    queue_->async([weak = weak_from_this(), name = event->name(), encoded = AttributeValue::to_cbor(*attributes)] {
        auto self = weak.lock();
        if (!self) return;
        self->pending_.fetch_sub(1, std::memory_order_relaxed);
        // Dates and data travel as tagged byte strings and come back as what they were.
        self->transformAndUpload(
            *APEvent::make(name, AttributeValue::from_cbor(encoded, true, true, AttributeValue::cbor_tag_handler_t::store)));
    });
}

void APEventGatewayAnalyticsProvider::process(const APEventDescripting& event) {
    // The transformer copies the attributes recursively; a hostile depth must stop here.
    if (const auto* attributes = event.attributes();
        attributes && value::nestsDeeperThan(*attributes, APEventSerializer::kMaximumAttributeDepth)) {
        uploader_->discardEvent(event, APEventDropReason::tooDeeplyNested);
        return;
    }
    transformAndUpload(event);
}

void APEventGatewayAnalyticsProvider::transformAndUpload(const APEventDescripting& event) {
    auto transformed = std::dynamic_pointer_cast<const APEvent>(eventTransformer_->transform(event));
    if (!transformed) return;  // nothing, or not an event the gateway can take
    if (recorder_->recording()) recorder_->recordEvent(transformed->eventGatewayDictionary());
    uploader_->uploadEvent(transformed);
}

void APEventGatewayAnalyticsProvider::flush() { uploader_->flush(); }

}  // namespace kt
