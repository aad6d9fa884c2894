#pragma once
// What the request queue and the reliable uploader report: plain counts, apart from the
// classes, so that a host reading them needs neither.

#include <cstdint>
#include <map>
#include <string>

namespace kt {

/// What the queue has done so far. Counts only ever grow.
struct CurlRequestQueueStatistics {
    std::uint64_t requestsSent = 0;  // requests that got an HTTP answer, whatever its status
    std::uint64_t bytesSent = 0;     // body bytes of those requests
    std::uint64_t delivered = 0;     // answered with code 0
    std::uint64_t failed = 0;        // answered with code 2 (no answer, time-out, 5xx, 408, 429)
    std::uint64_t rejected = 0;      // answered with code 3
    std::uint64_t notSent = 0;       // answered with code 1: held by a pause, then shutdown came
    std::uint64_t pauses = 0;        // pauses begun after a failed attempt
};

/// Counts since the uploader was made; `waiting` and `inFlight` are the state now. Always
/// `restored + fired == delivered + Σ droppedByReason + waiting`.
struct ReliableRequestUploaderStatistics {
    std::uint64_t fired = 0;      ///< requests handed over (`uploadRequest`, `refuseRequest`)
    std::uint64_t restored = 0;   ///< found waiting in the table at start, left by an earlier run
    std::uint64_t delivered = 0;
    std::uint64_t rejected = 0;   ///< droppedByReason["rejected"]: retrying cannot help
    std::uint64_t givenUp = 0;    ///< droppedByReason["given_up"]
    std::uint64_t retried = 0;    ///< attempts after the first
    std::uint64_t waiting = 0;    ///< not yet settled (in flight included)
    std::uint64_t inFlight = 0;
    std::uint64_t notStored = 0;  ///< could not be written; sent once from memory (delivered or `not_stored`)
    /// Every request dropped in this run, by reason (request_drop_reason).
    std::map<std::string, std::uint64_t> droppedByReason;

    std::uint64_t dropped() const {
        std::uint64_t sum = 0;
        for (const auto& [reason, count] : droppedByReason) sum += count;
        return sum;
    }
};

}  // namespace kt
