#pragma once
// The role of the object the gateway provider hands transformed events to.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"

namespace kt {

/// Why an event was removed without being delivered. Every such removal is counted.
enum class APEventDropReason : std::size_t {
    failedThreeTimes,  ///< its third upload attempt failed
    rejected,          ///< the gateway refused its batch as invalid
    notRepresentable,  ///< JSON or the archive cannot hold one of its values
    unreadable,        ///< its file could not be decoded when read back
    retryCountLost,    ///< its file vanished before a failed attempt could be counted
    tooDeeplyNested,   ///< its attributes nest deeper than the store takes
    notStored,         ///< writing its file failed (no space, no inodes, an I/O error)
    queueFull,         ///< the store already held its most events (`kMaximumStoredEvents`)
    backlogFull,       ///< the events waiting for the queue already held their most bytes
};
inline constexpr std::size_t kEventDropReasonCount = 9;

/// The reason's key in summaries and reports: "failed_three_times", "rejected", ...
std::string_view eventDropReasonKey(APEventDropReason reason);

/// Counts by reason, indexed by `APEventDropReason`.
struct APEventDropCounts {
    std::array<std::uint64_t, kEventDropReasonCount> counts{};

    std::uint64_t operator[](APEventDropReason reason) const { return counts[static_cast<std::size_t>(reason)]; }
    std::uint64_t total() const {
        std::uint64_t sum = 0;
        for (auto c : counts) sum += c;
        return sum;
    }
};

class APEventGatewayUploading {
public:
    virtual ~APEventGatewayUploading() = default;
    APEventGatewayUploading() = default;
    APEventGatewayUploading(const APEventGatewayUploading&) = delete;
    APEventGatewayUploading& operator=(const APEventGatewayUploading&) = delete;

    /// Stores the event and uploads when enough are waiting. Called on the uploader's queue.
    virtual void uploadEvent(const std::shared_ptr<const APEvent>& event) = 0;
    /// Uploads what is stored now. May be called from any thread.
    virtual void flush() = 0;
    /// Counts (and logs) an event that was refused before it could be handed over, on the
    /// uploader's queue.
    virtual void discardEvent(const APEventDescripting& event, APEventDropReason reason) = 0;
    /// Counts an event refused on the tagging thread, before it reached the queue. Any
    /// thread; never blocks and never waits for the queue.
    virtual void discardEventBeforeQueue(APEventDropReason reason) = 0;
};

}  // namespace kt
