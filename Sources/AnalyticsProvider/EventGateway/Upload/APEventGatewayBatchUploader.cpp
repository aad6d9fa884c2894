#include "AnalyticsProvider/EventGateway/Upload/APEventGatewayBatchUploader.h"

#include <filesystem>
#include <string>
#include <unordered_set>

#include "AnalyticsProvider/APEventFormatter.h"
#include "AnalyticsProvider/EventGateway/Upload/APEventGatewayRequestFactory.h"
#include "AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "KTData/RequestQueue.h"
#include "KTFoundation/KTEnvironment.h"
#include "KTFoundation/LogMacros.h"
#include "KTFoundation/TechEvent.h"
#include "Platform/Fatal.h"
#include "Platform/SerialQueue.h"

namespace kt {

namespace {

constexpr const char* kFile = "Sources/AnalyticsProvider/EventGateway/Upload/APEventGatewayBatchUploader";
constexpr int kTechEventSpace = 1;
// The third failed attempt drops the event.
constexpr std::uint64_t kMaximumRetryCount = 2;

void add(std::atomic<std::uint64_t>& counter, std::uint64_t amount) {
    counter.fetch_add(amount, std::memory_order_relaxed);
}

}  // namespace

std::shared_ptr<APEventGatewayBatchUploader> APEventGatewayBatchUploader::make(
    std::shared_ptr<APEventSerializer> eventSerializer, std::shared_ptr<APEventGatewayRequestFactory> requestFactory,
    std::shared_ptr<RequestQueueing> requestQueue, APSerializedEventSet queuedEvents, std::size_t minimumBatchSize,
    std::shared_ptr<TechLogging> techLogger, std::shared_ptr<SerialQueue> queue,
    std::shared_ptr<BuildEnvironmentDetecting> environmentDetector, bool shouldFlushAtRegularIntervals,
    std::shared_ptr<KTLogger> logger) {
    auto uploader = std::make_shared<APEventGatewayBatchUploader>(
        Passkey(), std::move(eventSerializer), std::move(requestFactory), std::move(requestQueue),
        std::move(queuedEvents), minimumBatchSize, std::move(techLogger), std::move(queue),
        std::move(environmentDetector), shouldFlushAtRegularIntervals, std::move(logger));
    // The timer holds the uploader weakly, which needs the shared pointer made above.
    uploader->flushDelayed();
    return uploader;
}

APEventGatewayBatchUploader::APEventGatewayBatchUploader(
    Passkey, std::shared_ptr<APEventSerializer> eventSerializer,
    std::shared_ptr<APEventGatewayRequestFactory> requestFactory, std::shared_ptr<RequestQueueing> requestQueue,
    APSerializedEventSet queuedEvents, std::size_t minimumBatchSize, std::shared_ptr<TechLogging> techLogger,
    std::shared_ptr<SerialQueue> queue, std::shared_ptr<BuildEnvironmentDetecting> environmentDetector,
    bool shouldFlushAtRegularIntervals, std::shared_ptr<KTLogger> logger)
    : eventSerializer_(std::move(eventSerializer)),
      requestFactory_(std::move(requestFactory)),
      requestQueue_(std::move(requestQueue)),
      queuedEvents_(std::move(queuedEvents)),
      minimumBatchSize_(minimumBatchSize),
      techLogger_(std::move(techLogger)),
      eventGatewayQueue_(std::move(queue)),
      environmentDetector_(std::move(environmentDetector)),
      shouldFlushAtRegularIntervals_(shouldFlushAtRegularIntervals),
      logger_(logger ? std::move(logger) : KTLogger::null()) {
    KT_PARAMETER_ASSERT_TEXT(eventSerializer_ != nullptr, "eventSerializer");
    KT_PARAMETER_ASSERT_TEXT(requestFactory_ != nullptr, "requestFactory");
    KT_PARAMETER_ASSERT_TEXT(requestQueue_ != nullptr, "requestQueue");
    KT_PARAMETER_ASSERT_TEXT(eventGatewayQueue_ != nullptr, "queue");
    publishQueueState();
}

void APEventGatewayBatchUploader::uploadEvent(const std::shared_ptr<const APEvent>& event) {
    KT_PARAMETER_ASSERT_TEXT(event != nullptr, "event");
    if (eventSerializer_->serializeEvent(event)) add(counters_.stored, 1);
    flushIfNeeded();
    publishQueueState();
}

void APEventGatewayBatchUploader::flush() {
    // The caller may be on any thread; the state belongs to the queue.
    eventGatewayQueue_->async([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->flushOnQueue();
    });
}

void APEventGatewayBatchUploader::flushIfNeeded() {
    if (numberOfEventsWaitingToBeUploaded() >= minimumBatchSize_) flushIfPossible();
}

void APEventGatewayBatchUploader::flushIfPossible() {
    if (requestQueue_->isNetworkReachable()) flushOnQueue();
}

void APEventGatewayBatchUploader::flushDelayed() {
    if (!shouldFlushAtRegularIntervals_) return;
    eventGatewayQueue_->asyncAfter(kFlushInterval, [weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self) return;
        self->flushIfPossible();
        self->flushDelayed();
    });
}

std::size_t APEventGatewayBatchUploader::numberOfEventsWaitingToBeUploaded() const {
    // Unsigned on purpose: entries left in flight by a corrupted batch can make this wrap,
    // and a wrapped count makes every later check try a flush.
    return eventSerializer_->serializedEventsCount() - queuedEvents_.size();
}

APSerializedEventSet APEventGatewayBatchUploader::serializedEventsNotQueued() const {
    // Files of events in flight are not read again: their names are the digests of their
    // contents, so they would decode to the very events already in flight and be filtered
    // out. Without this, every flush while a large batch is out would re-read all of it.
    std::unordered_set<std::string> inFlight;
    inFlight.reserve(queuedEvents_.size());
    for (const auto& e : queuedEvents_) inFlight.insert(e.eventURL().native());
    APSerializedEventSet events = eventSerializer_->serializedEvents(
        [&inFlight](const std::filesystem::path& url) { return inFlight.count(url.native()) != 0; });
    std::erase_if(events, [this](const APSerializedEvent& e) { return queuedEvents_.count(e) != 0; });
    return events;
}

bool APEventGatewayBatchUploader::shouldTrackInvalidEvents() const {
    return environmentDetector_ && environmentDetector_->isAlpha();
}

void APEventGatewayBatchUploader::flushOnQueue() {
    if (shouldTrackInvalidEvents())
        flushSingleEvent();
    else
        flushBatchOfEvents();
    publishQueueState();
}

void APEventGatewayBatchUploader::flushBatchOfEvents() {
    APSerializedEventSet events = serializedEventsNotQueued();
    if (events.empty()) return;
    Batch batch;
    batch.reserve(events.size());
    for (auto it = events.begin(); it != events.end();) {
        auto node = events.extract(it++);
        queuedEvents_.insert(node.value());
        batch.push_back(std::move(node.value()));
    }
    createRequestAndUploadSerializedEvents(std::move(batch));
}

void APEventGatewayBatchUploader::flushSingleEvent() {
    APSerializedEventSet events = serializedEventsNotQueued();
    if (events.empty()) return;
    Batch batch{*events.begin()};
    queuedEvents_.insert(batch.front());
    createRequestAndUploadSerializedEvents(std::move(batch));
}

void APEventGatewayBatchUploader::createRequestAndUploadSerializedEvents(Batch events) {
    KT_LOG(logger_, 0, kFile, "-[APEventGatewayBatchUploader createRequestAndUploadSerializedEvents:]",
           "Uploading events: {}", describeSerializedEvents(events));
    APEventGatewayRequestFactory::Events list;
    list.reserve(events.size());
    for (const auto& e : events) list.push_back(e.event());
    std::string error;
    std::size_t rawSize = 0;
    auto request = requestFactory_->requestForEvents(list, &error, &rawSize);
    if (!request) {
        deleteCorruptedEvents(events, error);
        return;
    }
    add(counters_.batchesSent, 1);
    add(counters_.bytesRaw, rawSize);
    add(counters_.bytesGzipped, request->body.size());
    uploadSerializedEvents(std::make_shared<const Batch>(std::move(events)), std::move(*request));
}

void APEventGatewayBatchUploader::deleteCorruptedEvents(const Batch& events, const std::string& error) {
    KT_LOG(logger_, 3, kFile, "-[APEventGatewayBatchUploader deleteCorruptedEvents:withError:]",
           "Fatal error - unable to serialize events to JSON {}: {}", describeSerializedEvents(events), error);
    eventSerializer_->deleteEvents(events);
    add(counters_.droppedCorrupted, events.size());
    if (techLogger_) techLogger_->logEvent(TechEvent("corrupted_events", kTechEventSpace));
    // The events stay in the in-flight set until the process ends: this is how the
    // uploader has always behaved, and the waiting count may wrap because of it.
}

void APEventGatewayBatchUploader::uploadSerializedEvents(std::shared_ptr<const Batch> events, HTTPRequest request) {
    std::weak_ptr<APEventGatewayBatchUploader> weak = weak_from_this();
    requestQueue_->sendRequest(std::move(request), [weak, events](int resultCode) {
        // Any thread: move the result onto the queue, where the state lives.
        auto self = weak.lock();
        if (!self) return;
        self->eventGatewayQueue_->async([weak, events, resultCode] {
            if (auto uploader = weak.lock()) uploader->handleResult(*events, resultCode);
        });
    });
}

void APEventGatewayBatchUploader::handleResult(const Batch& events, int resultCode) {
    switch (resultCode) {
        case static_cast<int>(RequestResult::delivered):
            eventSerializer_->deleteEvents(events);
            add(counters_.delivered, events.size());
            break;
        case static_cast<int>(RequestResult::rejected):
            trackInvalidEventIfNeededFrom(events);
            eventSerializer_->deleteEvents(events);
            add(counters_.droppedRejected, events.size());
            break;
        default:
            add(counters_.batchesFailed, 1);
            increaseRetryCountAndDeleteEventsIfNeeded(events);
            break;
    }
    for (const auto& e : events) queuedEvents_.erase(e);
    publishQueueState();
}

void APEventGatewayBatchUploader::increaseRetryCountAndDeleteEventsIfNeeded(const Batch& events) {
    for (const auto& event : events) {
        const auto count = eventSerializer_->increaseRetryCount(event);
        if (!count) {
            // Without a stored count the event could be retried forever.
            eventSerializer_->deleteEvents(Batch{event});
            add(counters_.droppedRetryCountLost, 1);
        } else if (*count > kMaximumRetryCount) {
            eventSerializer_->deleteEvents(Batch{event});
            add(counters_.droppedFailedThreeTimes, 1);
        } else {
            add(counters_.retries, 1);
        }
    }
}

void APEventGatewayBatchUploader::trackInvalidEventIfNeededFrom(const Batch& events) {
    if (!shouldTrackInvalidEvents()) return;
    if (events.size() != 1) {
        KT_LOG(logger_, 2, kFile, "-[APEventGatewayBatchUploader trackInvalidEventIfNeededFrom:]",
               "Expected batch size of 1 on dev, alpha and beta");
        return;
    }
    reportInvalidEventToCrashlytics(*events.front().event());
}

void APEventGatewayBatchUploader::reportInvalidEventToCrashlytics(const APEvent& event) {
    if (!techLogger_) return;
    TechEvent techEvent("invalid-tracking-event", kTechEventSpace);
    techEvent.addAttribute("event", APEventFormatter::shortDescriptionForEvent(event));
    techLogger_->logEvent(techEvent);
}

void APEventGatewayBatchUploader::publishQueueState() {
    counters_.waiting.store(eventSerializer_->serializedEventsCount(), std::memory_order_relaxed);
    counters_.inFlight.store(queuedEvents_.size(), std::memory_order_relaxed);
}

APEventGatewayUploadStatistics APEventGatewayBatchUploader::statistics() const {
    const auto load = [](const std::atomic<std::uint64_t>& c) { return c.load(std::memory_order_relaxed); };
    APEventGatewayUploadStatistics s;
    s.stored = load(counters_.stored);
    s.delivered = load(counters_.delivered);
    s.droppedFailedThreeTimes = load(counters_.droppedFailedThreeTimes);
    s.droppedRejected = load(counters_.droppedRejected);
    s.droppedCorrupted = load(counters_.droppedCorrupted);
    s.droppedRetryCountLost = load(counters_.droppedRetryCountLost);
    s.batchesSent = load(counters_.batchesSent);
    s.batchesFailed = load(counters_.batchesFailed);
    s.bytesRaw = load(counters_.bytesRaw);
    s.bytesGzipped = load(counters_.bytesGzipped);
    s.retries = load(counters_.retries);
    s.waiting = load(counters_.waiting);
    s.inFlight = load(counters_.inFlight);
    return s;
}

}  // namespace kt
