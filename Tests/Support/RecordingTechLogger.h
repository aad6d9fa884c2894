#pragma once
// A TechLogging that keeps every technical event, for tests that check what was reported,
// and readable failures for technical events (GoogleTest finds PrintTo by argument lookup).

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KTAnalytics/KTFoundation/TechEvent.h"

namespace kt {
inline void PrintTo(const TechEvent& event, std::ostream* out) {
    *out << event.name << " (space " << event.space << ") " << ::testing::PrintToString(event.metrics) << ' '
         << event.attributes.dump();
}
}  // namespace kt

namespace kt::testing {

/// Thread-safe.
class RecordingTechLogger final : public TechLogging {
public:
    void logEvent(const TechEvent& event) override { std::lock_guard lock(mutex_); events_.push_back(event); }

    std::vector<TechEvent> events() const { std::lock_guard lock(mutex_); return events_; }
    std::vector<TechEvent> eventsNamed(const std::string& name) const {
        std::vector<TechEvent> result;
        for (const auto& event : events())
            if (event.name == name) result.push_back(event);
        return result;
    }
    std::size_t count() const { std::lock_guard lock(mutex_); return events_.size(); }

private:
    mutable std::mutex mutex_;
    std::vector<TechEvent> events_;  // guarded by mutex_
};

}  // namespace kt::testing
