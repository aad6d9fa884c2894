#pragma once
// How an operation's arguments become property values: urns by their analytics string,
// enumerations by their description string, numbers as they were given (integer or
// fraction), absent optionals as absent values (sent as null), everything else unchanged.

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "KTAnalytics/KTFoundation/Urn.h"
#include "KTAnalytics/Platform/AttributeValue.h"
#include "KTAnalytics/TrackingArchitecture/Plan/PlanNumber.h"

namespace kt::tracking {

using PropertyValue = std::optional<AttributeValue>;

/// An enumeration of the plan: it answers `description(value)` with its case's string.
template <class E>
concept PlanEnumeration = std::is_enum_v<E> && requires(E e) {
    { description(e) } -> std::convertible_to<std::string>;
};

inline PropertyValue propertyValue(const std::string& value) { return AttributeValue(value); }
inline PropertyValue propertyValue(const char* value) { return AttributeValue(value); }
inline PropertyValue propertyValue(bool value) { return AttributeValue(value); }
inline PropertyValue propertyValue(std::int64_t value) { return AttributeValue(value); }
inline PropertyValue propertyValue(double value) { return AttributeValue(value); }
inline PropertyValue propertyValue(const PlanNumber& value) { return value.attributeValue(); }
inline PropertyValue propertyValue(const Urn& value) { return AttributeValue(value.analyticsString()); }
/// Lists and maps go unchanged.
inline PropertyValue propertyValue(const AttributeValue& value) { return value; }

inline PropertyValue propertyValue(const std::vector<Urn>& urns) {
    auto list = AttributeValue::array();
    for (const auto& urn : urns) list.push_back(urn.analyticsString());
    return list;
}

inline PropertyValue propertyValue(const std::vector<std::string>& values) { return AttributeValue(values); }

template <PlanEnumeration E>
PropertyValue propertyValue(E value) {
    return AttributeValue(std::string(description(value)));
}

template <class T>
PropertyValue propertyValue(const std::optional<T>& value) {
    if (!value) return std::nullopt;
    return propertyValue(*value);
}

}  // namespace kt::tracking
