#pragma once
// Collects the result codes of requests by the key each was sent with, and the threads they
// arrived on, for tests of queues that answer on a thread of their own; and the request
// those tests send.

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "KTAnalytics/KTData/RequestQueue.h"

namespace kt::testing {

/// A JSON POST as the uploaders send it.
inline HTTPRequest jsonPost(const std::string& url, std::string body = "[]") {
    HTTPRequest request;
    request.url = url;
    request.method = "POST";
    request.setValue("KTAnalytics-Test/1", "User-Agent");
    request.setValue("application/json", "Content-Type");
    request.body = std::move(body);
    return request;
}

class ResultCollector {
public:
    RequestQueueing::ResultCallback callback(int key) {
        return [this, key](int code) {
            std::lock_guard lock(mutex_);
            codes_[key] = code;
            threads_.push_back(std::this_thread::get_id());
            changed_.notify_all();
        };
    }
    /// Waits until `count` results arrived (the bound guards against a hang only); the codes by key.
    std::map<int, int> waitFor(std::size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(60), [&] { return codes_.size() >= count; });
        return codes_;
    }
    std::map<int, int> codes() const { std::lock_guard lock(mutex_); return codes_; }
    std::vector<std::thread::id> threads() const { std::lock_guard lock(mutex_); return threads_; }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<int, int> codes_;
    std::vector<std::thread::id> threads_;
};

}  // namespace kt::testing
