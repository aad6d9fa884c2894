#pragma once
// Takes gateway events one at a time, stores each at once, and uploads the stored events
// in batches: when enough are waiting, and (when enabled) every 60 seconds regardless.
// The request queue's result code decides whether a batch is deleted, retried or
// reported; an event is dropped after its third failed attempt.
//
// Cost: the uploader keeps, beside the in-flight set, the names of the stored files that
// are not in flight. A flush reads exactly those files, each once, so its cost follows the
// batch and not the number of events on disk or in flight. The folder itself is listed
// when the store is made and once per timed flush, to pick up files the index cannot know
// of (written by an earlier process, say).
//
// Threads: the uploader's state (the in-flight set and the store) is touched only on its
// serial queue. `uploadEvent` and the flush operations other than `flush` must be called
// there; `flush` may be called from any thread and moves itself onto the queue, so an
// event handed over just before it may be stored after the flush ran (callers tolerate
// that ordering). The 60-second timer and the request callbacks hold the uploader weakly.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayUploadStatistics.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayUploading.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APSerializedEvent.h"
#include "KTAnalytics/Platform/HTTPRequest.h"

namespace kt {

class APEventSerializer;
class APEventGatewayRequestFactory;
class BuildEnvironmentDetecting;
class KTLogger;
class RequestQueueing;
class SerialQueue;
class TechLogging;

class APEventGatewayBatchUploader final : public APEventGatewayUploading,
                                          public std::enable_shared_from_this<APEventGatewayBatchUploader> {
    struct Passkey {
        explicit Passkey() = default;
    };

public:
    using DropsCallback = std::function<void(const APEventDropCounts&)>;
    static constexpr std::chrono::nanoseconds kFlushInterval = std::chrono::seconds(60);
    /// Events the store keeps at most; past it a new event is dropped (`queueFull`). About a
    /// week of heavy listening offline, and about 100 MB of files at a typical kilobyte each.
    static constexpr std::size_t kMaximumStoredEvents = 100'000;

    /// Builds the uploader and starts the 60-second flush when `shouldFlushAtRegularIntervals`.
    /// `queuedEvents` is the initial in-flight set (normally empty). A null tech logger,
    /// environment detector or logger is allowed (nothing is reported; not an alpha build).
    /// `dropped`, when set, runs on the queue with every drop count so far, once after each
    /// piece of work that dropped events (a batch of drops makes one call), so that the
    /// counts can be written down before a kill could lose them.
    static std::shared_ptr<APEventGatewayBatchUploader> make(
        std::shared_ptr<APEventSerializer> eventSerializer, std::shared_ptr<APEventGatewayRequestFactory> requestFactory,
        std::shared_ptr<RequestQueueing> requestQueue, APSerializedEventSet queuedEvents, std::size_t minimumBatchSize,
        std::shared_ptr<TechLogging> techLogger, std::shared_ptr<SerialQueue> queue,
        std::shared_ptr<BuildEnvironmentDetecting> environmentDetector, bool shouldFlushAtRegularIntervals,
        std::shared_ptr<KTLogger> logger, DropsCallback dropped = {});

    APEventGatewayBatchUploader(Passkey, std::shared_ptr<APEventSerializer> eventSerializer,
                                std::shared_ptr<APEventGatewayRequestFactory> requestFactory,
                                std::shared_ptr<RequestQueueing> requestQueue, APSerializedEventSet queuedEvents,
                                std::size_t minimumBatchSize, std::shared_ptr<TechLogging> techLogger,
                                std::shared_ptr<SerialQueue> queue,
                                std::shared_ptr<BuildEnvironmentDetecting> environmentDetector,
                                bool shouldFlushAtRegularIntervals, std::shared_ptr<KTLogger> logger,
                                DropsCallback dropped = {});
    APEventGatewayBatchUploader() = delete;

    /// On the queue: stores the event and flushes if enough are waiting.
    void uploadEvent(const std::shared_ptr<const APEvent>& event) override;
    /// Any thread: uploads every stored event not in flight (one event on alpha builds);
    /// while the gateway pauses after a failed attempt, nothing until the pause has passed.
    void flush() override;
    /// On the queue: counts and logs an event refused before it reached the store.
    void discardEvent(const APEventDescripting& event, APEventDropReason reason) override;
    /// Any thread: counts at once; the drops are logged and reported (`dropped`) from the
    /// queue, by one task per run of them ahead of the queue's backlog.
    void discardEventBeforeQueue(APEventDropReason reason) override;

    /// On the queue: `flushIfPossible` when at least `minimumBatchSize` events wait.
    void flushIfNeeded();
    /// On the queue: flushes when the network is reachable and the gateway is not pausing
    /// after a failed attempt (then one flush follows the pause).
    void flushIfPossible();
    /// On the queue: schedules the next 60-second flush (when enabled).
    void flushDelayed();

    /// On the queue: stored files minus in-flight events (an unsigned difference).
    std::size_t numberOfEventsWaitingToBeUploaded() const;
    /// On the queue: every stored event that is not in flight (reads the files back).
    APSerializedEventSet serializedEventsNotQueued() const;
    /// On the queue: the events in flight. Once its request is built, an event in flight is
    /// held by its name and file only (alpha builds keep the whole event).
    const APSerializedEventSet& queuedEvents() const { return queuedEvents_; }
    /// Alpha builds upload one event per request and report events the gateway rejects.
    bool shouldTrackInvalidEvents() const;

    /// Any thread.
    APEventGatewayUploadStatistics statistics() const;

    std::size_t minimumBatchSize() const { return minimumBatchSize_; }
    const std::shared_ptr<APEventSerializer>& eventSerializer() const { return eventSerializer_; }

private:
    using Batch = std::vector<APSerializedEvent>;

    void flushOnQueue();
    // True while the request queue holds the gateway back after a failure; makes sure one
    // flush runs when that pause has passed.
    bool pausedAfterFailure();
    void relistNotQueued();
    std::vector<std::string> takeNotQueued(bool single);
    void markInFlight(const Batch& batch);
    APSerializedEvent inFlightHandle(APSerializedEvent stored);
    void drop(APEventDropReason reason, std::uint64_t count);
    void reportDrops();
    void flushBatchOfEvents();
    void flushSingleEvent();
    /// Reads the named files back and uploads them as one request; false when none could
    /// be read (nothing was sent).
    bool createRequestAndUploadSerializedEvents(std::vector<std::string> names);
    void deleteCorruptedEvents(const Batch& events, const std::string& error);
    void uploadSerializedEvents(std::shared_ptr<const Batch> events, HTTPRequest request);
    void handleResult(const Batch& events, int resultCode);
    void increaseRetryCountAndDeleteEventsIfNeeded(const Batch& events);
    void trackInvalidEventIfNeededFrom(const Batch& events);
    void reportInvalidEventToCrashlytics(const APEvent& event);
    void publishQueueState();

    const std::shared_ptr<APEventSerializer> eventSerializer_;
    const std::shared_ptr<APEventGatewayRequestFactory> requestFactory_;
    const std::shared_ptr<RequestQueueing> requestQueue_;
    APSerializedEventSet queuedEvents_;  // only touched on eventGatewayQueue_
    // File names of queuedEvents_, and of the stored files not among them. Queue only.
    std::unordered_set<std::string> inFlightNames_;
    std::unordered_set<std::string> notQueuedNames_;
    // One attribute-less event per name, shared by the handles of events in flight.
    std::unordered_map<std::string, std::shared_ptr<const APEvent>> nameOnlyEvents_;
    const std::size_t minimumBatchSize_;
    const std::shared_ptr<TechLogging> techLogger_;
    const std::shared_ptr<SerialQueue> eventGatewayQueue_;
    const std::shared_ptr<BuildEnvironmentDetecting> environmentDetector_;
    const bool shouldFlushAtRegularIntervals_;
    const std::shared_ptr<KTLogger> logger_;
    const DropsCallback dropped_;
    bool flushAfterPauseScheduled_ = false;  // queue only
    bool dropsUnreported_ = false;           // queue only
    // A task reporting the drops counted off the queue is on its way.
    std::atomic<bool> earlyDropsReportScheduled_{false};
    std::uint64_t earlyDropsLogged_ = 0;  // queue only
    std::uint64_t unreadableReported_ = 0;   // queue only

    struct Counters {
        std::atomic<std::uint64_t> stored{0}, delivered{0}, batchesSent{0}, batchesFailed{0}, bytesRaw{0},
            bytesGzipped{0}, retries{0}, waiting{0}, inFlight{0}, requestsInFlight{0}, droppedBeforeQueue{0};
        std::array<std::atomic<std::uint64_t>, kEventDropReasonCount> dropped{};
    };
    Counters counters_;
};

}  // namespace kt
