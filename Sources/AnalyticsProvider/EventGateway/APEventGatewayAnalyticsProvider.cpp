#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayAnalyticsProvider.h"

#include <cstring>
#include <optional>
#include <vector>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/Platform/CBORWriting.h"
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
    // While compact events wait, every later one joins them, so none overtakes another.
    if (pending <= kCompactAbove && backlog_.idle()) {
        if (pending > peakPending_.load(std::memory_order_relaxed))
            peakPending_.store(pending, std::memory_order_relaxed);
        queue_->async([weak = weak_from_this(), event] {
            if (auto self = weak.lock()) {
                self->pending_.fetch_sub(1, std::memory_order_relaxed);
                self->process(*event);
            }
        });
        return;
    }
    handOverCompact(event->name(), event->attributes());
}

namespace {
// A thread's encoding buffer is kept for its next event, unless a large one grew it.
constexpr std::size_t kKeptBufferBytes = 64 * 1024;
using NameLength = std::uint32_t;
}  // namespace

void APEventGatewayAnalyticsProvider::handOverCompact(const std::string& name, const AttributeDictionary* attributes) {
    const auto refuse = [&](APEventDropReason reason) {
        pending_.fetch_sub(1, std::memory_order_relaxed);
        uploader_->discardEventBeforeQueue(reason);
    };
    // A full backlog refuses before the encoding is paid for.
    if (!backlog_.wouldFit(sizeof(NameLength) + name.size())) return refuse(APEventDropReason::backlogFull);
    thread_local std::vector<std::uint8_t> record;
    const auto length = static_cast<NameLength>(name.size());
    record.resize(sizeof length);
    std::memcpy(record.data(), &length, sizeof length);
    record.insert(record.end(), name.begin(), name.end());
    // The encoder stops at a hostile depth before it recurses that deep.
    if (attributes && !cbor::appendValue(record, *attributes, APEventSerializer::kMaximumAttributeDepth))
        return refuse(APEventDropReason::tooDeeplyNested);
    bool startReader = false;
    const bool kept = backlog_.push(record, startReader);
    // One reader takes the records up; a caller adds a task only to start it, behind the
    // events handed over whole before.
    if (startReader)
        queue_->async([weak = weak_from_this()] {
            if (auto self = weak.lock()) self->takeUpCompact();
        });
    if (record.capacity() > kKeptBufferBytes) std::vector<std::uint8_t>().swap(record);
    if (!kept) return refuse(APEventDropReason::backlogFull);
    const std::size_t pending = pending_.load(std::memory_order_relaxed);
    if (pending > peakPending_.load(std::memory_order_relaxed)) peakPending_.store(pending, std::memory_order_relaxed);
}

void APEventGatewayAnalyticsProvider::takeUpCompact() {
    // One record per task, the next in an urgent one: answers to requests still come between
    // records, while what waits in the ordinary line (a flush, a timer, a drain) comes after
    // every event tagged before it, as when each event had its own task. A queue shutting
    // down takes no more tasks, so then the rest is taken up here.
    do {
        if (!backlog_.pop(takenUp_)) return;  // the reader ends; the next record starts another
        queue_->asyncUrgent([weak = weak_from_this()] {
            if (auto self = weak.lock()) self->takeUpCompact();
        });
        takeUp(takenUp_);
    } while (!queue_->accepting());
}

void APEventGatewayAnalyticsProvider::takeUp(std::vector<std::uint8_t>& record) {
    pending_.fetch_sub(1, std::memory_order_relaxed);
    NameLength length;
    std::memcpy(&length, record.data(), sizeof length);
    const auto nameAt = record.begin() + sizeof length, attributesAt = nameAt + length;
    std::optional<AttributeDictionary> attributes;
    // Dates and data travel as tagged byte strings and come back as what they were.
    if (attributesAt != record.end())
        attributes = AttributeValue::from_cbor(attributesAt, record.end(), true, true,
                                               AttributeValue::cbor_tag_handler_t::store);
    auto event = APEvent::make(std::string(nameAt, attributesAt), std::move(attributes));
    if (record.capacity() > kKeptBufferBytes) std::vector<std::uint8_t>().swap(record);
    transformAndUpload(*event);
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
