#pragma once
// The analytics provider that sends events to the event gateway. `tagEvent` returns at
// once; on the provider's serial queue each event is transformed into its gateway form,
// shown to the recorder while it records, and handed to the uploader, one event at a time
// in tag order.
//
// A burst can outrun the disk by far: tagging costs a fraction of a microsecond, storing a
// file a hundred or more. Past `kCompactAbove` events waiting for the queue, each further
// event (and every one after it until the backlog is empty, to keep their order) is handed over as its compact binary encoding (a few hundred bytes instead of a few
// kilobytes of decoded dictionary), packed into a `CompactBacklog` that holds at most
// `kMaximumBacklogBytes`: an event that does not fit is dropped on the caller's thread and
// counted as `backlogFull` ("backlog_full"). The caller never waits for the queue.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "KTAnalytics/AnalyticsProvider/APBaseAnalyticsProvider.h"
#include "KTAnalytics/Platform/CompactBacklog.h"

namespace kt {

class APEventGatewayAnalyticsRecording;
class APEventGatewayEventTransforming;
class APEventGatewayUploading;
class SerialQueue;

class APEventGatewayAnalyticsProvider final : public APBaseAnalyticsProvider,
                                              public std::enable_shared_from_this<APEventGatewayAnalyticsProvider> {
    struct Passkey {
        explicit Passkey() = default;
    };

public:
    static constexpr std::size_t kCompactAbove = 1000;
    /// The compact events waiting for the queue hold at most this many bytes together (each
    /// counted as its record plus `kCompactEventOverhead`). An ordinary event of twelve
    /// attributes takes about 250 bytes, so a 100,000-event burst (about 24 MiB at its peak)
    /// fits whole, and at the bound the process stays under 64 MiB however long the burst.
    /// A longer line would only grow what a kill loses: the disk stores a few thousand events
    /// a second.
    static constexpr std::size_t kMaximumBacklogBytes = 32 * 1024 * 1024;
    /// What one compact event costs beyond its record: nothing, since the events waiting
    /// share one task in the queue.
    static constexpr std::size_t kCompactEventOverhead = 0;

    /// The queue must be the uploader's queue: the uploader's `uploadEvent` runs there.
    static std::shared_ptr<APEventGatewayAnalyticsProvider> make(
        std::shared_ptr<APEventGatewayUploading> uploader, std::shared_ptr<APEventGatewayEventTransforming> eventTransformer,
        std::shared_ptr<APEventGatewayAnalyticsRecording> recorder, std::shared_ptr<SerialQueue> queue);

    APEventGatewayAnalyticsProvider(Passkey, std::shared_ptr<APEventGatewayUploading> uploader,
                                    std::shared_ptr<APEventGatewayEventTransforming> eventTransformer,
                                    std::shared_ptr<APEventGatewayAnalyticsRecording> recorder,
                                    std::shared_ptr<SerialQueue> queue);
    APEventGatewayAnalyticsProvider() = delete;

    /// The 29 names of the gateway vocabulary: the same immutable set on every call.
    std::shared_ptr<const EventNameSet> trackedEvents() const override;
    /// Returns at once; the work runs on the queue. Queued work does nothing once the
    /// provider is gone.
    void tagEvent(const std::shared_ptr<const APEventDescripting>& event) override;
    /// Flushes the uploader directly from the caller's thread.
    void flush() override;

    /// Events handed over and not yet taken up by the queue, and the most there ever were.
    std::size_t pendingEvents() const { return pending_.load(std::memory_order_relaxed); }
    std::size_t peakPendingEvents() const { return peakPending_.load(std::memory_order_relaxed); }
    /// Bytes counted against `kMaximumBacklogBytes` now.
    std::size_t backlogBytes() const { return backlog_.bytes(); }

private:
    void handOverCompact(const std::string& name, const AttributeDictionary* attributes);
    void takeUpCompact();
    void takeUp(std::vector<std::uint8_t>& record);
    void process(const APEventDescripting& event);
    void transformAndUpload(const APEventDescripting& event);

    std::atomic<std::size_t> pending_{0};
    std::atomic<std::size_t> peakPending_{0};
    // The compact events, as records: the name's length, the name, the attributes' CBOR
    // (nothing for null attributes). One reader on the queue takes them up, a task per
    // record, started by the record that finds none under way.
    CompactBacklog backlog_{kMaximumBacklogBytes, kCompactEventOverhead};
    std::vector<std::uint8_t> takenUp_;  // queue only

    const std::shared_ptr<APEventGatewayUploading> uploader_;
    const std::shared_ptr<APEventGatewayEventTransforming> eventTransformer_;
    const std::shared_ptr<APEventGatewayAnalyticsRecording> recorder_;
    const std::shared_ptr<SerialQueue> queue_;
};

}  // namespace kt
