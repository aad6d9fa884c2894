#pragma once
// Readable failures for tracking events: GoogleTest finds PrintTo by argument lookup.

#include <ostream>

#include "TrackingArchitecture/TrackingEvent.h"

namespace kt {

inline void PrintTo(const TrackingEvent& event, std::ostream* out) {
    *out << '"' << event.name << "\" v" << event.version << " {";
    if (event.properties)
        for (const auto& [key, value] : *event.properties) *out << ' ' << key << '=' << (value ? value->dump() : "absent");
    *out << " }" << (event.properties ? "" : " (no map)") << " [";
    for (const auto& name : event.thirdParties) *out << ' ' << name;
    *out << " ]";
}

}  // namespace kt
