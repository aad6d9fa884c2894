#pragma once
// Re-sends requests that failed earlier.

namespace kt {

class RRUReliableRequestUploader {
public:
    virtual ~RRUReliableRequestUploader() = default;
    RRUReliableRequestUploader() = default;
    RRUReliableRequestUploader(const RRUReliableRequestUploader&) = delete;
    RRUReliableRequestUploader& operator=(const RRUReliableRequestUploader&) = delete;

    virtual void uploadFailedRequests() = 0;
};

}  // namespace kt
