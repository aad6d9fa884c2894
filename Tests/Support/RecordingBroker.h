#pragma once
// A broker that keeps every event it is handed, and readable failures for tracking events
// (GoogleTest finds PrintTo by argument lookup).

#include <ostream>
#include <vector>

#include "KTAnalytics/TrackingArchitecture/EventBrokering.h"
#include "KTAnalytics/TrackingArchitecture/TrackingEvent.h"

namespace kt {

inline void PrintTo(const TrackingEvent& event, std::ostream* out) {
    *out << '"' << event.name << "\" v" << event.version << " {";
    if (event.properties)
        for (const auto& [key, value] : *event.properties) *out << ' ' << key << '=' << (value ? value->dump() : "absent");
    *out << " }" << (event.properties ? "" : " (no map)") << " [";
    for (const auto& name : event.thirdParties) *out << ' ' << name;
    *out << " ]";
}

namespace testing {

struct RecordingBroker final : EventBrokering {
    std::vector<TrackingEvent> events;
    void track(TrackingEvent event) override { events.push_back(std::move(event)); }
    void identify(const std::string&, const AttributeValue&) override {}
    void flush() override {}
};

}  // namespace testing
}  // namespace kt
