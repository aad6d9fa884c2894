#include "Setup/Detail/ResultNotifyingRequestQueue.h"

#include <utility>

namespace kt::setup_detail {

ResultNotifyingRequestQueue::ResultNotifyingRequestQueue(std::shared_ptr<RequestQueueing> inner,
                                                         std::function<void()> onResult)
    : inner_(std::move(inner)), onResult_(std::move(onResult)) {}

bool ResultNotifyingRequestQueue::isNetworkReachable() const {
    std::shared_ptr<RequestQueueing> inner;
    {
        std::lock_guard lock(mutex_);
        inner = inner_;
    }
    return inner && inner->isNetworkReachable();
}

void ResultNotifyingRequestQueue::sendRequest(HTTPRequest request, ResultCallback resultCallback) {
    std::shared_ptr<RequestQueueing> inner;
    {
        std::lock_guard lock(mutex_);
        inner = inner_;
    }
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
