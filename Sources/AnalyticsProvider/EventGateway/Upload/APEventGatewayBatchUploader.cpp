#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayBatchUploader.h"

#include <filesystem>
#include <string>
#include <unordered_set>
#include <utility>

#include "KTAnalytics/AnalyticsProvider/APEventFormatter.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayRequestFactory.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "KTAnalytics/KTData/RequestQueue.h"
#include "KTAnalytics/KTFoundation/KTEnvironment.h"
#include "KTAnalytics/KTFoundation/LogMacros.h"
#include "KTAnalytics/KTFoundation/TechEvent.h"
#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Platform/SerialQueue.h"

namespace kt {

namespace {

constexpr const char* kFile = "Sources/AnalyticsProvider/EventGateway/Upload/APEventGatewayBatchUploader";
constexpr int kTechEventSpace = 1;
// The third failed attempt drops the event.
constexpr std::uint64_t kMaximumRetryCount = 2;

void add(std::atomic<std::uint64_t>& counter, std::uint64_t amount) {
    counter.fetch_add(amount, std::memory_order_relaxed);
}

std::string fileName(const APSerializedEvent& event) { return event.eventURL().filename().native(); }

}  // namespace

std::string_view eventDropReasonKey(APEventDropReason reason) {
    switch (reason) {
        case APEventDropReason::failedThreeTimes: return "failed_three_times";
        case APEventDropReason::rejected: return "rejected";
        case APEventDropReason::notRepresentable: return "not_representable";
        case APEventDropReason::unreadable: return "unreadable";
        case APEventDropReason::retryCountLost: return "retry_count_lost";
        case APEventDropReason::tooDeeplyNested: return "too_deeply_nested";
        case APEventDropReason::notStored: return "not_stored";
        case APEventDropReason::queueFull: return "queue_full";
        case APEventDropReason::backlogFull: return "backlog_full";
    }
    return "unknown";
}

std::shared_ptr<APEventGatewayBatchUploader> APEventGatewayBatchUploader::make(
    std::shared_ptr<APEventSerializer> eventSerializer, std::shared_ptr<APEventGatewayRequestFactory> requestFactory,
    std::shared_ptr<RequestQueueing> requestQueue, APSerializedEventSet queuedEvents, std::size_t minimumBatchSize,
    std::shared_ptr<TechLogging> techLogger, std::shared_ptr<SerialQueue> queue,
    std::shared_ptr<BuildEnvironmentDetecting> environmentDetector, bool shouldFlushAtRegularIntervals,
    std::shared_ptr<KTLogger> logger, DropsCallback dropped) {
    auto uploader = std::make_shared<APEventGatewayBatchUploader>(
        Passkey(), std::move(eventSerializer), std::move(requestFactory), std::move(requestQueue),
        std::move(queuedEvents), minimumBatchSize, std::move(techLogger), std::move(queue),
        std::move(environmentDetector), shouldFlushAtRegularIntervals, std::move(logger), std::move(dropped));
    // The timer holds the uploader weakly, which needs the shared pointer made above.
    uploader->flushDelayed();
    return uploader;
}

APEventGatewayBatchUploader::APEventGatewayBatchUploader(
    Passkey, std::shared_ptr<APEventSerializer> eventSerializer,
    std::shared_ptr<APEventGatewayRequestFactory> requestFactory, std::shared_ptr<RequestQueueing> requestQueue,
    APSerializedEventSet queuedEvents, std::size_t minimumBatchSize, std::shared_ptr<TechLogging> techLogger,
    std::shared_ptr<SerialQueue> queue, std::shared_ptr<BuildEnvironmentDetecting> environmentDetector,
    bool shouldFlushAtRegularIntervals, std::shared_ptr<KTLogger> logger, DropsCallback dropped)
    : eventSerializer_(std::move(eventSerializer)),
      requestFactory_(std::move(requestFactory)),
      requestQueue_(std::move(requestQueue)),
      queuedEvents_(std::move(queuedEvents)),
      minimumBatchSize_(minimumBatchSize),
      techLogger_(std::move(techLogger)),
      eventGatewayQueue_(std::move(queue)),
      environmentDetector_(std::move(environmentDetector)),
      shouldFlushAtRegularIntervals_(shouldFlushAtRegularIntervals),
      logger_(logger ? std::move(logger) : KTLogger::null()),
      dropped_(std::move(dropped)) {
    KT_PARAMETER_ASSERT_TEXT(eventSerializer_ != nullptr, "eventSerializer");
    KT_PARAMETER_ASSERT_TEXT(requestFactory_ != nullptr, "requestFactory");
    KT_PARAMETER_ASSERT_TEXT(requestQueue_ != nullptr, "requestQueue");
    KT_PARAMETER_ASSERT_TEXT(eventGatewayQueue_ != nullptr, "queue");
    for (const auto& e : queuedEvents_) inFlightNames_.insert(fileName(e));
    // The store listed its folder when it was made; what it found waits from the start.
    relistNotQueued();
    publishQueueState();
}

void APEventGatewayBatchUploader::uploadEvent(const std::shared_ptr<const APEvent>& event) {
    KT_PARAMETER_ASSERT_TEXT(event != nullptr, "event");
    APEventStoreFailure failure = APEventStoreFailure::none;
    if (eventSerializer_->serializedEventsCount() >= kMaximumStoredEvents) {
        // The newest gives way: what waits keeps its order, and no stored file is touched.
        drop(APEventDropReason::queueFull, 1);
    } else if (auto stored = eventSerializer_->serializeEvent(event, &failure)) {
        add(counters_.stored, 1);
        // A byte-identical event whose file is in flight collapses into that file.
        if (auto name = fileName(*stored); inFlightNames_.count(name) == 0) notQueuedNames_.insert(std::move(name));
    } else {
        switch (failure) {
            case APEventStoreFailure::tooDeeplyNested: drop(APEventDropReason::tooDeeplyNested, 1); break;
            case APEventStoreFailure::notArchivable: drop(APEventDropReason::notRepresentable, 1); break;
            default: drop(APEventDropReason::notStored, 1); break;
        }
    }
    flushIfNeeded();
    publishQueueState();
    reportDrops();
}

void APEventGatewayBatchUploader::discardEvent(const APEventDescripting& event, APEventDropReason reason) {
    KT_LOG(logger_, 3, kFile, "-[APEventGatewayBatchUploader discardEvent:]", "Dropping event {}: {}", event.name(),
           eventDropReasonKey(reason));
    drop(reason, 1);
    publishQueueState();
    reportDrops();
}

void APEventGatewayBatchUploader::discardEventBeforeQueue(APEventDropReason reason) {
    add(counters_.dropped[static_cast<std::size_t>(reason)], 1);
    add(counters_.droppedBeforeQueue, 1);
    // A burst drops many in a row, while the queue may be far behind: one urgent task
    // reports them all, and the tagging thread adds nothing else to the queue.
    if (earlyDropsReportScheduled_.exchange(true, std::memory_order_acq_rel)) return;
    eventGatewayQueue_->asyncUrgent([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self) return;
        // Acquires every count added before a drop that found this task scheduled.
        self->earlyDropsReportScheduled_.exchange(false, std::memory_order_acq_rel);
        const auto total = self->counters_.droppedBeforeQueue.load(std::memory_order_relaxed);
        KT_LOG(self->logger_, 2, kFile, "-[APEventGatewayBatchUploader discardEvent:]",
               "Dropped {} events before they reached the queue (see the drops by reason)",
               total - std::exchange(self->earlyDropsLogged_, total));
        self->dropsUnreported_ = true;
        self->reportDrops();
    });
}

void APEventGatewayBatchUploader::drop(APEventDropReason reason, std::uint64_t count) {
    add(counters_.dropped[static_cast<std::size_t>(reason)], count);
    dropsUnreported_ = true;
}

void APEventGatewayBatchUploader::reportDrops() {
    // The store counts the unreadable files it deleted itself, during any read.
    const auto unreadable = eventSerializer_->statistics().unreadableDeleted;
    if (!dropped_ || (!dropsUnreported_ && unreadable == unreadableReported_)) return;
    dropsUnreported_ = false;
    unreadableReported_ = unreadable;
    dropped_(statistics().droppedByReason);
}

void APEventGatewayBatchUploader::flush() {
    // The caller may be on any thread; the state belongs to the queue.
    eventGatewayQueue_->async([weak = weak_from_this()] {
        if (auto self = weak.lock(); self && !self->pausedAfterFailure()) self->flushOnQueue();
    });
}

void APEventGatewayBatchUploader::flushIfNeeded() {
    if (numberOfEventsWaitingToBeUploaded() >= minimumBatchSize_) flushIfPossible();
}

void APEventGatewayBatchUploader::flushIfPossible() {
    if (requestQueue_->isNetworkReachable() && !pausedAfterFailure()) flushOnQueue();
}

bool APEventGatewayBatchUploader::pausedAfterFailure() {
    // While the gateway pauses after a failed attempt, a flush would only spend an attempt of
    // every waiting event (or wait in the request queue): the events wait on disk instead,
    // and one flush is due when the pause has passed.
    const auto remaining = requestQueue_->pauseRemaining(requestFactory_->baseURL());
    if (remaining <= std::chrono::milliseconds::zero()) return false;
    if (!flushAfterPauseScheduled_) {
        flushAfterPauseScheduled_ = true;
        eventGatewayQueue_->asyncAfter(remaining, [weak = weak_from_this()] {
            auto self = weak.lock();
            if (!self) return;
            self->flushAfterPauseScheduled_ = false;
            if (!self->notQueuedNames_.empty()) self->flushIfPossible();
        });
    }
    return true;
}

void APEventGatewayBatchUploader::flushDelayed() {
    if (!shouldFlushAtRegularIntervals_) return;
    eventGatewayQueue_->asyncAfter(kFlushInterval, [weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self) return;
        // The one listing of the folder between two timed flushes.
        self->relistNotQueued();
        self->flushIfPossible();
        self->publishQueueState();
        self->flushDelayed();
    });
}

void APEventGatewayBatchUploader::relistNotQueued() {
    notQueuedNames_.clear();
    for (auto& name : eventSerializer_->relistReadableNames())
        if (inFlightNames_.count(name) == 0) notQueuedNames_.insert(std::move(name));
}

std::size_t APEventGatewayBatchUploader::numberOfEventsWaitingToBeUploaded() const {
    // Unsigned on purpose: entries left in flight by a corrupted batch can make this wrap,
    // and a wrapped count makes every later check try a flush.
    return eventSerializer_->serializedEventsCount() - queuedEvents_.size();
}

APSerializedEventSet APEventGatewayBatchUploader::serializedEventsNotQueued() const {
    // Files of events in flight are not read again: their names are the digests of their
    // contents, so they would decode to the very events already in flight.
    APSerializedEventSet events = eventSerializer_->serializedEvents(
        [this](const std::filesystem::path& url) { return inFlightNames_.count(url.filename().native()) != 0; });
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
    reportDrops();
}

std::vector<std::string> APEventGatewayBatchUploader::takeNotQueued(bool single) {
    std::vector<std::string> names;
    if (single) {
        if (!notQueuedNames_.empty()) names.push_back(std::move(notQueuedNames_.extract(notQueuedNames_.begin()).value()));
        return names;
    }
    names.reserve(notQueuedNames_.size());
    for (auto it = notQueuedNames_.begin(); it != notQueuedNames_.end();)
        names.push_back(std::move(notQueuedNames_.extract(it++).value()));
    return names;
}

void APEventGatewayBatchUploader::markInFlight(const Batch& batch) {
    for (const auto& e : batch) {
        queuedEvents_.insert(e);
        inFlightNames_.insert(fileName(e));
    }
}

void APEventGatewayBatchUploader::flushBatchOfEvents() { createRequestAndUploadSerializedEvents(takeNotQueued(false)); }

void APEventGatewayBatchUploader::flushSingleEvent() {
    // A file that turns out unreadable is deleted by the store; the next one is tried.
    while (!notQueuedNames_.empty() && !createRequestAndUploadSerializedEvents(takeNotQueued(true))) {
    }
}

APSerializedEvent APEventGatewayBatchUploader::inFlightHandle(APSerializedEvent stored) {
    // An event in flight needs only its file: delete, count or retry all go by the file.
    // Holding thousands of decoded events while a slow gateway answers would make memory
    // grow with the backlog. Alpha builds keep them to report rejections.
    if (shouldTrackInvalidEvents()) return stored;
    auto& light = nameOnlyEvents_[stored.event()->name()];
    if (!light) light = APEvent::make(stored.event()->name(), std::nullopt);
    return APSerializedEvent(light, stored.eventURL());
}

bool APEventGatewayBatchUploader::createRequestAndUploadSerializedEvents(std::vector<std::string> names) {
    // The files are read back one at a time as the body is written: each decoded event is
    // let go once its element is in the compressor, so a batch of thousands never exists
    // decoded all at once.
    Batch batch;
    batch.reserve(names.size());
    std::size_t index = 0;
    const auto readNext = [&]() -> std::shared_ptr<const APEvent> {
        while (index < names.size()) {
            auto stored = eventSerializer_->serializedEventNamed(names[index++]);
            if (!stored) continue;  // unreadable (deleted and counted) or gone
            auto event = stored->event();
            batch.push_back(inFlightHandle(std::move(*stored)));
            return event;
        }
        return nullptr;
    };
    auto first = readNext();
    if (!first) return false;
    const auto source = [&]() -> std::shared_ptr<const APEvent> { return first ? std::move(first) : readNext(); };
    std::string error;
    std::size_t rawSize = 0;
    auto request = requestFactory_->requestForEventSource(source, &error, &rawSize);
    if (!request)
        while (readNext()) {
        }
    names = {};  // the handles in `batch` carry the paths from here on
    KT_LOG(logger_, 0, kFile, "-[APEventGatewayBatchUploader createRequestAndUploadSerializedEvents:]",
           "Uploading events: {}", describeSerializedEvents(batch));
    markInFlight(batch);
    if (!request) {
        deleteCorruptedEvents(batch, error);
        return true;
    }
    add(counters_.batchesSent, 1);
    add(counters_.bytesRaw, rawSize);
    add(counters_.bytesGzipped, request->body.size());
    uploadSerializedEvents(std::make_shared<const Batch>(std::move(batch)), std::move(*request));
    return true;
}

void APEventGatewayBatchUploader::deleteCorruptedEvents(const Batch& events, const std::string& error) {
    KT_LOG(logger_, 3, kFile, "-[APEventGatewayBatchUploader deleteCorruptedEvents:withError:]",
           "Fatal error - unable to serialize events to JSON {}: {}", describeSerializedEvents(events), error);
    eventSerializer_->deleteEvents(events);
    drop(APEventDropReason::notRepresentable, events.size());
    if (techLogger_) techLogger_->logEvent(TechEvent("corrupted_events", kTechEventSpace));
    // The events stay in the in-flight set until the process ends: this is how the
    // uploader has always behaved, and the waiting count may wrap because of it.
}

void APEventGatewayBatchUploader::uploadSerializedEvents(std::shared_ptr<const Batch> events, HTTPRequest request) {
    std::weak_ptr<APEventGatewayBatchUploader> weak = weak_from_this();
    add(counters_.requestsInFlight, 1);
    requestQueue_->sendRequest(std::move(request), [weak, events](int resultCode) {
        // Any thread: move the result onto the queue, where the state lives.
        auto self = weak.lock();
        if (!self) return;
        // Ahead of pending stores: a delivered batch is deleted at once, not after the
        // backlog, so a crash leaves few delivered events on disk to be sent again.
        self->eventGatewayQueue_->asyncUrgent([weak, events, resultCode] {
            if (auto uploader = weak.lock()) uploader->handleResult(*events, resultCode);
        });
    });
}

void APEventGatewayBatchUploader::handleResult(const Batch& events, int resultCode) {
    counters_.requestsInFlight.fetch_sub(1, std::memory_order_relaxed);
    switch (resultCode) {
        case static_cast<int>(RequestResult::delivered):
            eventSerializer_->deleteEvents(events);
            add(counters_.delivered, events.size());
            break;
        case static_cast<int>(RequestResult::rejected):
            trackInvalidEventIfNeededFrom(events);
            eventSerializer_->deleteEvents(events);
            drop(APEventDropReason::rejected, events.size());
            break;
        case static_cast<int>(RequestResult::notSent):
            // Never answered: the events wait as they were, their attempts unspent.
            for (const auto& e : events) notQueuedNames_.insert(fileName(e));
            break;
        default:
            add(counters_.batchesFailed, 1);
            increaseRetryCountAndDeleteEventsIfNeeded(events);
            break;
    }
    for (const auto& e : events) {
        queuedEvents_.erase(e);
        inFlightNames_.erase(fileName(e));
    }
    // Schedules the flush for the end of the pause this answer may have begun.
    if (resultCode != static_cast<int>(RequestResult::delivered) &&
        resultCode != static_cast<int>(RequestResult::rejected))
        pausedAfterFailure();
    publishQueueState();
    reportDrops();
}

void APEventGatewayBatchUploader::increaseRetryCountAndDeleteEventsIfNeeded(const Batch& events) {
    for (const auto& event : events) {
        const auto count = eventSerializer_->increaseRetryCount(event);
        if (!count) {
            // The file is gone: nothing is left to retry.
            eventSerializer_->deleteEvents(Batch{event});
            drop(APEventDropReason::retryCountLost, 1);
        } else if (*count > kMaximumRetryCount) {
            eventSerializer_->deleteEvents(Batch{event});
            drop(APEventDropReason::failedThreeTimes, 1);
        } else {
            add(counters_.retries, 1);
            notQueuedNames_.insert(fileName(event));
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
    for (std::size_t i = 0; i < kEventDropReasonCount; ++i) s.droppedByReason.counts[i] = load(counters_.dropped[i]);
    // The store deletes undecodable files itself, whoever asked it to read.
    const auto store = eventSerializer_->statistics();
    s.droppedByReason.counts[static_cast<std::size_t>(APEventDropReason::unreadable)] += store.unreadableDeleted;
    s.retryCountsInMemory = store.retryCountsInMemory;
    s.batchesSent = load(counters_.batchesSent);
    s.batchesFailed = load(counters_.batchesFailed);
    s.bytesRaw = load(counters_.bytesRaw);
    s.bytesGzipped = load(counters_.bytesGzipped);
    s.retries = load(counters_.retries);
    s.waiting = load(counters_.waiting);
    s.inFlight = load(counters_.inFlight);
    s.requestsInFlight = load(counters_.requestsInFlight);
    return s;
}

}  // namespace kt
