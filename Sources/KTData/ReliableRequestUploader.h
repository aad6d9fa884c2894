#pragma once
// Delivers single requests (promoted tracking URLs and the like) through the request queue
// and keeps the ones worth retrying in a small SQLite table, so they survive a restart.

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
    /// The SQLite file of requests waiting for another attempt; empty keeps them in memory.
    std::filesystem::path databasePath;
    /// Attempts in all, the first included; a request failing that often is dropped.
    int maximumAttempts = 5;
};

struct ReliableRequestUploaderStatistics {
    std::uint64_t delivered = 0;
    std::uint64_t rejected = 0;  // answered with code 3: retrying cannot help
    std::uint64_t dropped = 0;   // failed `maximumAttempts` times
    std::uint64_t retried = 0;   // stored requests sent again
};

/// Any thread may call it. A request is sent at once; when the answer is worth retrying
/// (code 2) the request is stored, and every `uploadFailedRequests` (or `flush`) sends the
/// stored requests that are not already in flight again. Nothing is sent while the queue
/// reports the network unreachable: new requests are stored straight away.
class ReliableRequestUploader final : public RRUReliableRequestUploader {
public:
    using Configuration = ReliableRequestUploaderConfiguration;
    using Statistics = ReliableRequestUploaderStatistics;

    ReliableRequestUploader(Configuration configuration, std::shared_ptr<RequestQueueing> requestQueue,
                            std::shared_ptr<KTLogger> logger);
    ReliableRequestUploader() = delete;
    ~ReliableRequestUploader() override;

    /// Takes over one request and delivers it, retrying as configured.
    void uploadRequest(HTTPRequest request);
    void uploadFailedRequests() override;
    /// Same as `uploadFailedRequests`.
    void flush();

    /// Requests stored for another attempt, in flight or not.
    std::size_t numberOfStoredRequests() const;
    Statistics statistics() const;

private:
    struct State;
    std::shared_ptr<RequestQueueing> requestQueue_;
    // Shared with the result callbacks, which may come after this object is gone.
    std::shared_ptr<State> state_;
};

}  // namespace kt
