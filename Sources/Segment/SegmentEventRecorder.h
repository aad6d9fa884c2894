#pragma once
// A debug mirror of every event the wrapper sends, for an in-app event viewer.

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

/// What the host's event viewer implements; the recorder holds it weakly.
class ThirdPartyEventRecording {
public:
    virtual ~ThirdPartyEventRecording() = default;
    ThirdPartyEventRecording() = default;
    ThirdPartyEventRecording(const ThirdPartyEventRecording&) = delete;
    ThirdPartyEventRecording& operator=(const ThirdPartyEventRecording&) = delete;

    virtual void record(const AttributeValue& dictionary) = 0;
};

class SegmentEventRecording {
public:
    virtual ~SegmentEventRecording() = default;
    SegmentEventRecording() = default;
    SegmentEventRecording(const SegmentEventRecording&) = delete;
    SegmentEventRecording& operator=(const SegmentEventRecording&) = delete;

    virtual void record(const std::string& name, const std::optional<AttributeValue>& properties,
                        const std::optional<std::vector<std::string>>& thirdParties) = 0;
    /// Whether a record would reach anyone: without a viewer the sender skips building one.
    virtual bool isRecording() const { return true; }
};

class SegmentEventRecorder final : public SegmentEventRecording {
public:
    SegmentEventRecorder() = default;

    static std::shared_ptr<SegmentEventRecorder> shared();

    void record(const std::string& name, const std::optional<AttributeValue>& properties,
                const std::optional<std::vector<std::string>>& thirdParties) override;
    bool isRecording() const override;
    /// Installs (or, with null, removes) the viewer; held weakly.
    void injectEventRecorder(const std::shared_ptr<ThirdPartyEventRecording>& eventRecorder);

private:
    mutable std::mutex mutex_;
    std::weak_ptr<ThirdPartyEventRecording> eventRecorder_;
};

}  // namespace kt
