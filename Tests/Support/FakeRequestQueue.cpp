#include "Support/FakeRequestQueue.h"

namespace kt::testing {

bool FakeRequestQueue::isNetworkReachable() const {
    std::lock_guard lock(mutex_);
    return reachable_;
}

void FakeRequestQueue::sendRequest(HTTPRequest request, ResultCallback resultCallback) {
    std::optional<int> automatic;
    {
        std::lock_guard lock(mutex_);
        sent_.push_back(std::move(request));
        automatic = automaticResult_;
        if (!automatic) pendingCallbacks_.push_back(std::move(resultCallback));
    }
    if (automatic && resultCallback) resultCallback(*automatic);
}

void FakeRequestQueue::setReachable(bool reachable) {
    std::lock_guard lock(mutex_);
    reachable_ = reachable;
}

void FakeRequestQueue::setAutomaticResult(std::optional<int> code) {
    std::lock_guard lock(mutex_);
    automaticResult_ = code;
}

std::vector<HTTPRequest> FakeRequestQueue::sentRequests() const {
    std::lock_guard lock(mutex_);
    return sent_;
}

std::size_t FakeRequestQueue::sentCount() const {
    std::lock_guard lock(mutex_);
    return sent_.size();
}

std::size_t FakeRequestQueue::pendingCount() const {
    std::lock_guard lock(mutex_);
    return pendingCallbacks_.size();
}

bool FakeRequestQueue::respond(int code) {
    ResultCallback callback;
    {
        std::lock_guard lock(mutex_);
        if (pendingCallbacks_.empty()) return false;
        callback = std::move(pendingCallbacks_.front());
        pendingCallbacks_.erase(pendingCallbacks_.begin());
    }
    if (callback) callback(code);
    return true;
}

std::size_t FakeRequestQueue::respondToAll(int code) {
    std::vector<ResultCallback> callbacks;
    {
        std::lock_guard lock(mutex_);
        callbacks.swap(pendingCallbacks_);
    }
    for (auto& callback : callbacks)
        if (callback) callback(code);
    return callbacks.size();
}

}  // namespace kt::testing
