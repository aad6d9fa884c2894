#pragma once
// A request queue in front of the real one that announces every handled result and can be
// stopped. The composition root hands it to the uploaders so that it can wait for results
// without polling, and release the real queue (joining its worker) at shutdown even while
// the uploaders are still referenced elsewhere.

#include <functional>
#include <memory>
#include <mutex>

#include "KTAnalytics/KTData/RequestQueue.h"

namespace kt::setup_detail {

class ResultNotifyingRequestQueue final : public RequestQueueing {
public:
    /// `onResult` runs on the inner queue's callback thread right after the sender's own
    /// callback; it must not call back into this object.
    ResultNotifyingRequestQueue(std::shared_ptr<RequestQueueing> inner, std::function<void()> onResult);
    ResultNotifyingRequestQueue() = delete;

    /// False once stopped.
    bool isNetworkReachable() const override;
    /// After `stop` the request is not sent and its callback never runs: whoever sent it is
    /// being torn down, and its events stay on disk for the next start.
    void sendRequest(HTTPRequest request, ResultCallback resultCallback) override;
    std::chrono::milliseconds pauseRemaining(const std::string& url) const override;

    /// Releases the inner queue (outside the lock, so its destructor may still answer
    /// requests in flight). Idempotent.
    void stop();

private:
    std::shared_ptr<RequestQueueing> inner() const;

    mutable std::mutex mutex_;
    std::shared_ptr<RequestQueueing> inner_;  // guarded by mutex_
    const std::function<void()> onResult_;
};

}  // namespace kt::setup_detail
