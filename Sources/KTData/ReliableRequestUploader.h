#pragma once
// Delivers single requests (promoted tracking URLs and the like), durably: every request is
// written to a small SQLite table before `uploadRequest` returns, so neither a failed attempt
// nor a killed process loses it (with everything it carries, `followsRedirects` included),
// and a worker thread of its own sends and retries them.
//
// Retries: a failed attempt (no answer, 5xx, 408, 429) is tried again after
// `firstRetryDelay`, doubling each time up to `longestRetryDelay`, each delay with ±20 %
// jitter. A request is given up after `maximumAttempts` attempts or once it is older than
// `maximumAge`; one answered as rejected (other 4xx) is never retried. While the request
// queue holds an origin back after a failure (`pauseRemaining`), nothing is sent to it and
// no attempt is spent.
//
// Every request leaves once: delivered, or dropped under one reason (request_drop_reason),
// each drop written to the table's `drops` count as it happens. The table's copy of a
// request's state can lag behind when the disk refuses a write (a full disk): the uploader
// keeps what it owes (deletions, attempt counts, drops) in memory and writes it later, and
// never sends a settled request again or a failed one before its back-off has passed.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "KTAnalytics/KTData/RRUReliableRequestUploader.h"
#include "KTAnalytics/KTData/RequestQueue.h"
#include "KTAnalytics/KTData/RequestStatistics.h"
#include "KTAnalytics/Platform/HTTPRequest.h"

namespace kt {

class KTLogger;

/// A week offline rarely brings a listener past a few thousand impressions; 10,000 rows of
/// about 1 KiB keep the file near 10 MiB, whatever the network does.
inline constexpr std::size_t kDefaultMaximumWaitingRequests = 10'000;

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
    /// After the disk refused a write, how long before what is owed is written again (a
    /// request stored meanwhile writes it sooner).
    std::chrono::milliseconds storageRetryDelay = std::chrono::seconds(5);
    /// The most requests kept waiting; past it the oldest gives way (`queue_full`).
    std::size_t maximumWaiting = kDefaultMaximumWaitingRequests;
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

    /// Any thread: stores the request and returns; the worker sends it. A request that can
    /// never be sent (refusalReasonForURL) is refused, logged and counted instead.
    void uploadRequest(HTTPRequest request) override;
    /// Any thread: counts a request its caller could not build, dropped under `reason`.
    void refuseRequest(const char* reason) override;
    /// Any thread: every stored request waiting for a later attempt is sent now (origins
    /// the request queue holds back still wait).
    void flush() override;
    /// Any thread: the requests that failed before are tried again at once.
    void uploadFailedRequests() override;

    /// Requests stored and not yet settled.
    std::size_t numberOfStoredRequests() const;
    Statistics statistics() const;

    /// The drops written to `databasePath` by every run over it, by reason; empty when
    /// there is no such file or table. Any process may call it while another uses the file.
    static std::map<std::string, std::uint64_t> recordedDrops(const std::filesystem::path& databasePath);
    /// The URLs of the requests stored in `databasePath` and not yet settled, oldest first.
    static std::vector<std::string> storedURLs(const std::filesystem::path& databasePath);

private:
    struct State;
    // Shared with the worker and the result callbacks, which may outlive this object.
    std::shared_ptr<State> state_;
};

}  // namespace kt
