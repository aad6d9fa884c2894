#include "KTAnalytics/Segment/SegmentEventRecorder.h"

namespace kt {

std::shared_ptr<SegmentEventRecorder> SegmentEventRecorder::shared() {
    static const auto instance = std::make_shared<SegmentEventRecorder>();
    return instance;
}

void SegmentEventRecorder::record(const std::string& name, const std::optional<AttributeValue>& properties,
                                  const std::optional<std::vector<std::string>>& thirdParties) {
    std::string recordedName = name;
    if (name == "Screen Viewed" && properties && properties->is_object()) {
        auto screen = properties->find("name");
        if (screen != properties->end() && screen->is_string()) recordedName = screen->get<std::string>() + " 📱";
    }
    std::shared_ptr<ThirdPartyEventRecording> viewer;
    {
        std::lock_guard lock(mutex_);
        viewer = eventRecorder_.lock();
    }
    if (!viewer) return;
    AttributeValue dictionary = {{"event", recordedName},
                                 {"properties", properties ? *properties : AttributeValue::object()}};
    if (thirdParties && !thirdParties->empty()) dictionary["thirdParties"] = *thirdParties;
    viewer->record(dictionary);
}

bool SegmentEventRecorder::isRecording() const {
    std::lock_guard lock(mutex_);
    return !eventRecorder_.expired();
}

void SegmentEventRecorder::injectEventRecorder(const std::shared_ptr<ThirdPartyEventRecording>& eventRecorder) {
    std::lock_guard lock(mutex_);
    eventRecorder_ = eventRecorder;
}

}  // namespace kt
