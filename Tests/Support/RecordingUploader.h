#pragma once
// A reliable uploader that sends nothing: it keeps what it is handed and counts the calls.
// Not thread-safe: for tests that call it from their own thread only.

#include <string>
#include <vector>

#include "KTAnalytics/KTData/RRUReliableRequestUploader.h"
#include "Support/HTTPRequestPrinting.h"

namespace kt::testing {

struct RecordingUploader final : RRUReliableRequestUploader {
    void uploadRequest(HTTPRequest request) override { requests.push_back(std::move(request)); }
    void refuseRequest(const char* reason) override { refused.emplace_back(reason); }
    void flush() override { ++flushes; }
    void uploadFailedRequests() override { ++failedUploads; }
    std::vector<HTTPRequest> requests;
    std::vector<std::string> refused;
    int flushes = 0;
    int failedUploads = 0;
};

}  // namespace kt::testing
