#pragma once
// A TechLogging that keeps every technical event, for tests that check what was reported.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "KTFoundation/TechEvent.h"

namespace kt::testing {

/// Thread-safe.
class RecordingTechLogger final : public TechLogging {
public:
    RecordingTechLogger() = default;

    void logEvent(const TechEvent& event) override;

    std::vector<TechEvent> events() const { std::lock_guard lock(mutex_); return events_; }
    std::vector<TechEvent> eventsNamed(const std::string& name) const;
    std::size_t count() const { std::lock_guard lock(mutex_); return events_.size(); }
    void clear() { std::lock_guard lock(mutex_); events_.clear(); }
    /// Waits until at least `count` events were recorded; false on time-out.
    bool waitForCount(std::size_t count, std::chrono::milliseconds timeout) const;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable recorded_;
    std::vector<TechEvent> events_;  // guarded by mutex_
};

}  // namespace kt::testing
