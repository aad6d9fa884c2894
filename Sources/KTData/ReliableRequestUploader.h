#pragma once
// Delivers single requests (promoted tracking URLs and the like), durably: every request is
// written to a small SQLite table before `uploadRequest` returns, so neither a failed attempt
// nor a killed process loses it, and a worker thread of its own sends and retries them.
//
// Retries: a failed attempt (no answer, 5xx, 408, 429) is tried again after
// `firstRetryDelay`, doubling each time up to `longestRetryDelay`, each delay with ±20 %
// jitter. A request is given up after `maximumAttempts` attempts or once it is older than
// `maximumAge`; one answered as rejected (other 4xx) is never retried. Both are counted.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>

#include "KTData/RRUReliableRequestUploader.h"
#include "KTData/RequestQueue.h"
#include "Platform/HTTPRequest.h"

namespace kt {

class KTLogger;

struct ReliableRequestUploaderConfiguration {
    /// The SQLite file of the requests not yet delivered; empty keeps them in memory only.
    std::filesystem::path databasePath;
    /// Attempts in all, the first included.
    int maximumAttempts = 10;
    /// A request still undelivered this long after it was handed over is given up.
    std::chrono::milliseconds maximumAge = std::chrono::hours(24 * 7);
    std::chrono::milliseconds firstRetryDelay = std::chrono::seconds(2);
    std::chrono::milliseconds longestRetryDelay = std::chrono::minutes(10);
    /// While the request queue reports the network unreachable, how often to look again.
    std::chrono::milliseconds reachabilityPoll = std::chrono::seconds(5);
};

/// Counts since the uploader was made; `waiting` and `inFlight` are the state now.
struct ReliableRequestUploaderStatistics {
    std::uint64_t fired = 0;      ///< requests handed to `uploadRequest`
    std::uint64_t delivered = 0;
    std::uint64_t rejected = 0;   ///< answered with code 3: retrying cannot help
    std::uint64_t givenUp = 0;    ///< failed `maximumAttempts` times or grew older than `maximumAge`
    std::uint64_t retried = 0;    ///< attempts after the first
    std::uint64_t waiting = 0;    ///< stored and not yet settled (in flight included)
    std::uint64_t inFlight = 0;
    std::uint64_t notStored = 0;  ///< could not be written; sent once from memory all the same
};

class ReliableRequestUploader final : public RRUReliableRequestUploader {
public:
    using Configuration = ReliableRequestUploaderConfiguration;
    using Statistics = ReliableRequestUploaderStatistics;

    /// Opens (or creates) the table and starts the worker, which sends whatever an earlier
    /// process left. `logger` may be null.
    ReliableRequestUploader(Configuration configuration, std::shared_ptr<RequestQueueing> requestQueue,
                            std::shared_ptr<KTLogger> logger);
    ReliableRequestUploader() = delete;
    /// Stops the worker; what is not delivered stays in the table for the next start.
    ~ReliableRequestUploader() override;

    /// Any thread: stores the request and returns; the worker sends it.
    void uploadRequest(HTTPRequest request) override;
    /// Any thread: every stored request waiting for a later attempt is sent now.
    void flush() override;
    /// Any thread: the requests that failed before are tried again at once.
    void uploadFailedRequests() override;

    /// Requests stored and not yet settled.
    std::size_t numberOfStoredRequests() const;
    Statistics statistics() const;

private:
    struct State;
    // Shared with the worker and the result callbacks, which may outlive this object.
    std::shared_ptr<State> state_;
};

}  // namespace kt
