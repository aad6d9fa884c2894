#pragma once
// Takes over single requests and delivers them, retrying as it sees fit.

#include "Platform/HTTPRequest.h"

namespace kt {

class RRUReliableRequestUploader {
public:
    virtual ~RRUReliableRequestUploader() = default;
    RRUReliableRequestUploader() = default;
    RRUReliableRequestUploader(const RRUReliableRequestUploader&) = delete;
    RRUReliableRequestUploader& operator=(const RRUReliableRequestUploader&) = delete;

    /// Takes over one request; returns at once.
    virtual void uploadRequest(HTTPRequest request) = 0;
    /// Sends what waits now.
    virtual void flush() = 0;
    /// Tries the requests that failed before again, at once.
    virtual void uploadFailedRequests() = 0;
};

}  // namespace kt
