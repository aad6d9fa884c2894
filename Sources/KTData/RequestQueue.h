#pragma once
// The request queue the uploaders send through: reachability and result codes.

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "KTAnalytics/Platform/HTTPRequest.h"

namespace kt {

/// What became of a request. Only `requestResultFor` decides this from an HTTP outcome.
enum class RequestResult : int {
    delivered = 0,  // 2xx
    notSent = 1,    // never answered by the server: held while its host backed off, or cut
                    // off by shutdown; no attempt is spent on it
    failed = 2,     // worth retrying: 5xx, 408, 429, time-outs, refused connections
    rejected = 3,   // the server refused the request as invalid: other 4xx
};

/// The one place that interprets an HTTP outcome. `status` is 0 when no response came.
RequestResult requestResultFor(long status);

/// What a pause after a failure applies to: "scheme://host:port" (the host lowercased, the
/// scheme's port when none is named), so that one failing server holds back no other. Text
/// that does not parse as a URL is its own origin.
std::string requestOrigin(std::string_view url);

class RequestQueueing {
public:
    using ResultCallback = std::function<void(int resultCode)>;

    virtual ~RequestQueueing() = default;
    RequestQueueing() = default;
    RequestQueueing(const RequestQueueing&) = delete;
    RequestQueueing& operator=(const RequestQueueing&) = delete;

    virtual bool isNetworkReachable() const = 0;
    /// Sends without blocking the caller; the callback runs later on a worker thread with
    /// one of the RequestResult codes.
    virtual void sendRequest(HTTPRequest request, ResultCallback resultCallback) = 0;
    /// How long requests to `url`'s origin (scheme, host, port) are still held back after a
    /// failed attempt; zero when they go out at once. A request handed over meanwhile waits,
    /// unsent, until the pause has passed. Senders ask before they spend an attempt.
    virtual std::chrono::milliseconds pauseRemaining(const std::string& url) const {
        (void)url;
        return std::chrono::milliseconds::zero();
    }
};

}  // namespace kt
