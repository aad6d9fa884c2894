#pragma once
// The request queue over libcurl: one worker thread drives every transfer through a
// curl multi handle, so several requests are in flight at once and connections are reused.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "KTData/RequestQueue.h"

namespace kt {

class ConnectivityStateDetecting;
class KTLogger;

struct CurlRequestQueueConfiguration {
    /// Time allowed to establish a connection.
    std::chrono::milliseconds connectTimeout = std::chrono::seconds(5);
    /// Time allowed for a whole transfer, connecting included.
    std::chrono::milliseconds totalTimeout = std::chrono::seconds(30);
    /// How long destruction lets accepted requests finish before aborting them.
    std::chrono::milliseconds shutdownTimeout = std::chrono::seconds(2);
    /// Transfers running at once; further requests wait their turn in order.
    std::size_t maximumConcurrentRequests = 8;
    /// The base URL the requests go to. When its host is loopback (127.0.0.0/8, ::1,
    /// "localhost") the network always counts as reachable: a machine whose only interface
    /// is loopback still reaches a gateway running on it, while the connectivity detector
    /// (which ignores loopback) would say it is offline.
    std::string baseURL;
};

/// What the queue has done so far. Counts only ever grow.
struct CurlRequestQueueStatistics {
    std::uint64_t requestsSent = 0;  // requests that got an HTTP answer, whatever its status
    std::uint64_t bytesSent = 0;     // body bytes of those requests
    std::uint64_t delivered = 0;     // answered with code 0
    std::uint64_t failed = 0;        // answered with code 2 (no answer, time-out, 5xx, 408, 429)
    std::uint64_t rejected = 0;      // answered with code 3
};

/// `sendRequest` only enqueues and wakes the worker; result callbacks run on the worker
/// thread, never on the caller's. Destruction stops accepting requests, lets the accepted
/// ones run for at most `shutdownTimeout`, answers whatever is left with code 2 and joins.
class CurlRequestQueue final : public RequestQueueing {
public:
    using Configuration = CurlRequestQueueConfiguration;
    using Statistics = CurlRequestQueueStatistics;

    /// `connectivity` answers reachability for non-loopback base URLs; when null the
    /// network is taken as reachable and an unreachable host shows up as code 2.
    /// `logger` may be null.
    CurlRequestQueue(Configuration configuration, std::shared_ptr<ConnectivityStateDetecting> connectivity,
                     std::shared_ptr<KTLogger> logger);
    CurlRequestQueue() = delete;
    ~CurlRequestQueue() override;

    bool isNetworkReachable() const override;
    void sendRequest(HTTPRequest request, ResultCallback resultCallback) override;

    Statistics statistics() const;
    const Configuration& configuration() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kt
