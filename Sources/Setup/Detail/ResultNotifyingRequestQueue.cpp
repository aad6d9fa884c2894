#include "KTAnalytics/Setup/Detail/ResultNotifyingRequestQueue.h"

#include <utility>

namespace kt::setup_detail {

ResultNotifyingRequestQueue::ResultNotifyingRequestQueue(std::shared_ptr<RequestQueueing> inner,
                                                         std::function<void()> onResult)
    : inner_(std::move(inner)), onResult_(std::move(onResult)) {}

std::shared_ptr<RequestQueueing> ResultNotifyingRequestQueue::inner() const {
    std::lock_guard lock(mutex_);
    return inner_;
}

bool ResultNotifyingRequestQueue::isNetworkReachable() const {
    auto queue = inner();
    return queue && queue->isNetworkReachable();
}

std::chrono::milliseconds ResultNotifyingRequestQueue::pauseRemaining(const std::string& url) const {
    auto queue = inner();
    return queue ? queue->pauseRemaining(url) : std::chrono::milliseconds::zero();
}

void ResultNotifyingRequestQueue::sendRequest(HTTPRequest request, ResultCallback resultCallback) {
    auto inner = this->inner();
    if (!inner) return;
    inner->sendRequest(std::move(request), [callback = std::move(resultCallback), onResult = onResult_](int code) {
        if (callback) callback(code);
        if (onResult) onResult();
    });
}

void ResultNotifyingRequestQueue::stop() {
    std::shared_ptr<RequestQueueing> inner;
    {
        std::lock_guard lock(mutex_);
        inner.swap(inner_);
    }
    inner.reset();
}

}  // namespace kt::setup_detail
