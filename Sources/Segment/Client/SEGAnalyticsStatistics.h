#pragma once
// What the product-analytics client reports, apart from the client.

#include <cstdint>
#include <map>
#include <string>

namespace kt {

/// Every reason a message can be removed without delivery, as `droppedByReason` keys it.
inline constexpr const char* kSEGDropReasons[] = {"queue_full",        "too_large",     "rejected",
                                                  "dropped_by_middleware", "not_persisted", "corrupted",
                                                  "too_deeply_nested", "backlog_full"};

/// Counts only ever grow, but `waiting`.
struct SEGAnalyticsStatistics {
    std::uint64_t tracked = 0;    // identify and track calls accepted
    std::uint64_t persisted = 0;  // messages stored in the queue
    std::uint64_t delivered = 0;  // messages in batches answered 2xx
    std::uint64_t batchesSent = 0;
    std::uint64_t bytesSent = 0;  // gzip body bytes of the batches sent
    std::uint64_t retries = 0;    // batches kept for another try
    /// Messages removed without delivery, by reason: "queue_full", "too_large",
    /// "rejected", "dropped_by_middleware", "not_persisted", "too_deeply_nested",
    /// "backlog_full" (refused on the caller's thread: the calls waiting for the worker
    /// already held their most bytes). "corrupted" counts unreadable rows found at start.
    std::map<std::string, std::uint64_t> droppedByReason;
    std::uint64_t waiting = 0;  // calls handed over and not yet delivered or dropped
    /// What the calls waiting for the worker hold now, as counted against the backlog's bound.
    std::uint64_t backlogBytes = 0;

    /// Every message removed without delivery, whatever the reason.
    std::uint64_t dropped() const {
        std::uint64_t total = 0;
        for (const auto& [reason, count] : droppedByReason) total += count;
        return total;
    }
};

}  // namespace kt
