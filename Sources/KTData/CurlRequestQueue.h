#pragma once
// The request queue over libcurl: one worker thread drives every transfer through a
// curl multi handle, so several requests are in flight at once and connections are reused.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "KTAnalytics/KTData/RequestQueue.h"
#include "KTAnalytics/KTData/RequestStatistics.h"

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
    /// After a failed attempt (no connection, a time-out, 5xx, 408, 429) the request's origin
    /// (scheme, host, port) pauses: nothing more is sent to it until the pause has passed,
    /// whatever is handed over meanwhile. The first pause, each next one this many times
    /// longer, at most the longest, each spread by ±20 %; a Retry-After answer lengthens it
    /// (up to the longest). Any answer that is not a failure ends the pauses of its origin.
    /// The defaults make an item's three attempts span more than a minute.
    std::chrono::milliseconds firstFailurePause = std::chrono::seconds(20);
    int failurePauseGrowth = 3;
    std::chrono::milliseconds longestFailurePause = std::chrono::minutes(5);
    /// The base URL the requests go to. When its host is loopback (127.0.0.0/8, ::1,
    /// "localhost") the network always counts as reachable: a machine whose only interface
    /// is loopback still reaches a gateway running on it, while the connectivity detector
    /// (which ignores loopback) would say it is offline.
    std::string baseURL;
};

/// `sendRequest` only enqueues and wakes the worker; result callbacks run on the worker
/// thread, never on the caller's. Requests to a paused origin wait in the queue, in order,
/// and go out when the pause has passed. Destruction stops accepting requests, lets the
/// accepted ones run for at most `shutdownTimeout`, answers whatever is left with code 1
/// (not sent: no attempt spent) and joins. Redirects are followed only for a request whose
/// `followsRedirects` is set: at most 5 hops, over http and https, the final answer deciding;
/// a longer chain or a loop fails like a lost connection. Authorization and Cookie headers
/// never go past the first host. Any other request's 3xx is its answer (a failed attempt).
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

    /// Reachability alone; a pause is asked for with `pauseRemaining`.
    bool isNetworkReachable() const override;
    void sendRequest(HTTPRequest request, ResultCallback resultCallback) override;
    std::chrono::milliseconds pauseRemaining(const std::string& url) const override;

    Statistics statistics() const;
    const Configuration& configuration() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kt
