#pragma once
// How code outside the event core sees an event: a name and attributes (which may be null).

#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class APEventDescripting {
public:
    virtual ~APEventDescripting() = default;
    APEventDescripting() = default;
    APEventDescripting(const APEventDescripting&) = delete;
    APEventDescripting& operator=(const APEventDescripting&) = delete;

    virtual const std::string& name() const = 0;
    /// The attributes dictionary, or null when the event has none.
    virtual const AttributeDictionary* attributes() const = 0;
};

}  // namespace kt
