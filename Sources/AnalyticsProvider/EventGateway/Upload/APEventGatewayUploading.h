#pragma once
// The role of the object the gateway provider hands transformed events to.

#include <memory>

#include "AnalyticsProvider/APEvent.h"

namespace kt {

class APEventGatewayUploading {
public:
    virtual ~APEventGatewayUploading() = default;
    APEventGatewayUploading() = default;
    APEventGatewayUploading(const APEventGatewayUploading&) = delete;
    APEventGatewayUploading& operator=(const APEventGatewayUploading&) = delete;

    /// Stores the event and uploads when enough are waiting. Called on the uploader's queue.
    virtual void uploadEvent(const std::shared_ptr<const APEvent>& event) = 0;
    /// Uploads what is stored now. May be called from any thread.
    virtual void flush() = 0;
};

}  // namespace kt
