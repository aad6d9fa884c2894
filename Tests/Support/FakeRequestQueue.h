#pragma once
// A RequestQueueing that sends nothing: it keeps each request with its callback until the
// test answers it. State belongs to the instance.

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "KTAnalytics/KTData/RequestQueue.h"
#include "Support/HTTPRequestPrinting.h"

namespace kt::testing {

/// Thread-safe.
class FakeRequestQueue final : public RequestQueueing {
public:
    explicit FakeRequestQueue(bool reachable = true) : reachable_(reachable) {}

    bool isNetworkReachable() const override { std::lock_guard lock(mutex_); return reachable_; }
    void sendRequest(HTTPRequest request, ResultCallback resultCallback) override {
        std::lock_guard lock(mutex_);
        sent_.push_back(std::move(request));
        senders_.push_back(std::this_thread::get_id());
        pendingCallbacks_.push_back(std::move(resultCallback));
    }

    void setReachable(bool reachable) { std::lock_guard lock(mutex_); reachable_ = reachable; }
    std::chrono::milliseconds pauseRemaining(const std::string& url) const override {
        std::lock_guard lock(mutex_);
        auto it = pauses_.find(url);
        return it == pauses_.end() ? pause_ : it->second;
    }
    /// What `pauseRemaining` answers for exactly `url` until set again; other URLs get the
    /// pause set for all (zero by default).
    void setPause(const std::string& url, std::chrono::milliseconds pause) { std::lock_guard lock(mutex_); pauses_[url] = pause; }
    void setPause(std::chrono::milliseconds pause) { std::lock_guard lock(mutex_); pause_ = pause; }

    std::vector<HTTPRequest> sentRequests() const { std::lock_guard lock(mutex_); return sent_; }
    /// The thread each request was sent from, in order.
    std::vector<std::thread::id> senders() const { std::lock_guard lock(mutex_); return senders_; }
    std::size_t sentCount() const { std::lock_guard lock(mutex_); return sent_.size(); }
    std::size_t pendingCount() const { std::lock_guard lock(mutex_); return pendingCallbacks_.size(); }
    /// Answers the oldest unanswered request with `code` (outside the lock, as callbacks may
    /// send again). False when none is pending.
    bool respond(int code) {
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
    /// Answers every request pending now with `code`.
    void respondToAll(int code) {
        std::unique_lock lock(mutex_);
        auto callbacks = std::exchange(pendingCallbacks_, {});
        lock.unlock();
        for (auto& callback : callbacks)
            if (callback) callback(code);
    }

private:
    mutable std::mutex mutex_;
    bool reachable_;                                // guarded by mutex_
    std::vector<HTTPRequest> sent_;                 // guarded by mutex_
    std::vector<std::thread::id> senders_;          // guarded by mutex_
    std::vector<ResultCallback> pendingCallbacks_;  // guarded by mutex_
    std::map<std::string, std::chrono::milliseconds> pauses_;  // guarded by mutex_
    std::chrono::milliseconds pause_{0};                       // guarded by mutex_
};

}  // namespace kt::testing
