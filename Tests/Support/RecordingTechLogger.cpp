#include "Support/RecordingTechLogger.h"

namespace kt::testing {

void RecordingTechLogger::logEvent(const TechEvent& event) {
    std::lock_guard lock(mutex_);
    events_.push_back(event);
    recorded_.notify_all();
}

std::vector<TechEvent> RecordingTechLogger::eventsNamed(const std::string& name) const {
    std::lock_guard lock(mutex_);
    std::vector<TechEvent> result;
    for (const auto& event : events_)
        if (event.name == name)
            result.push_back(event);
    return result;
}

bool RecordingTechLogger::waitForCount(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return recorded_.wait_for(lock, timeout, [&] { return events_.size() >= count; });
}

}  // namespace kt::testing
