#pragma once
// What the batch uploader reports, apart from the uploader.

#include <cstdint>

#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayUploading.h"

namespace kt {

/// What the uploader has done since it was made, and what waits now. A snapshot.
struct APEventGatewayUploadStatistics {
    std::uint64_t stored = 0;          ///< events handed over and written to disk
    std::uint64_t delivered = 0;       ///< events in batches the gateway accepted
    APEventDropCounts droppedByReason; ///< events removed without delivery
    std::uint64_t retryCountsInMemory = 0;  ///< failed attempts counted in memory only
    std::uint64_t batchesSent = 0;
    std::uint64_t batchesFailed = 0;   ///< answered with a code other than 0 and 3
    std::uint64_t bytesRaw = 0;        ///< JSON bodies before compression
    std::uint64_t bytesGzipped = 0;    ///< bodies as sent
    std::uint64_t retries = 0;         ///< failed events kept for another attempt
    std::uint64_t waiting = 0;         ///< event files on disk now (in flight included)
    std::uint64_t inFlight = 0;        ///< events handed to the request queue, not yet answered
    std::uint64_t requestsInFlight = 0;  ///< requests sent and not yet answered

    std::uint64_t dropped() const { return droppedByReason.total(); }
    std::uint64_t dropped(APEventDropReason reason) const { return droppedByReason[reason]; }
};

}  // namespace kt
