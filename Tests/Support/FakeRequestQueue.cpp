#include "Support/FakeRequestQueue.h"

namespace kt::testing {

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
