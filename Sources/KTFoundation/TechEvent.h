#pragma once
// Technical events: diagnostics that must reach the service's backend, not the log.

#include <map>
#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

struct TechEvent {
    std::string name;
    int space = 1;
    std::map<std::string, double> metrics;
    AttributeDictionary attributes = AttributeDictionary::object();

    TechEvent(std::string name, int space) : name(std::move(name)), space(space) {}
    TechEvent& addAttribute(const std::string& key, AttributeValue value) {
        attributes[key] = std::move(value);
        return *this;
    }
    bool operator==(const TechEvent&) const = default;
};

class TechLogging {
public:
    virtual ~TechLogging() = default;
    TechLogging() = default;
    TechLogging(const TechLogging&) = delete;
    TechLogging& operator=(const TechLogging&) = delete;

    virtual void logEvent(const TechEvent& event) = 0;
};

}  // namespace kt
