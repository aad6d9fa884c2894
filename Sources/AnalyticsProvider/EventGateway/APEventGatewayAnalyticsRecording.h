#pragma once
// An observer shown the gateway form of every event while it is recording (a debug
// console, a test, the tool's live view).

#include <mutex>
#include <vector>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class APEventGatewayAnalyticsRecording {
public:
    virtual ~APEventGatewayAnalyticsRecording() = default;
    APEventGatewayAnalyticsRecording() = default;
    APEventGatewayAnalyticsRecording(const APEventGatewayAnalyticsRecording&) = delete;
    APEventGatewayAnalyticsRecording& operator=(const APEventGatewayAnalyticsRecording&) = delete;

    /// Whether the recorder currently wants events.
    virtual bool recording() const = 0;
    /// The event's gateway dictionary ({"event", "version", "payload"}).
    virtual void recordEvent(const AttributeDictionary& event) = 0;
};

/// Keeps what it is shown in memory while recording is switched on. Safe from any thread.
class APEventGatewayEventRecorder final : public APEventGatewayAnalyticsRecording {
public:
    explicit APEventGatewayEventRecorder(bool recording = false) : recording_(recording) {}

    bool recording() const override {
        std::lock_guard lock(mutex_);
        return recording_;
    }
    void recordEvent(const AttributeDictionary& event) override {
        std::lock_guard lock(mutex_);
        events_.push_back(event);
    }

    void setRecording(bool recording) {
        std::lock_guard lock(mutex_);
        recording_ = recording;
    }
    std::vector<AttributeDictionary> recordedEvents() const {
        std::lock_guard lock(mutex_);
        return events_;
    }

private:
    mutable std::mutex mutex_;
    bool recording_;                          // guarded by mutex_
    std::vector<AttributeDictionary> events_;  // guarded by mutex_
};

}  // namespace kt
