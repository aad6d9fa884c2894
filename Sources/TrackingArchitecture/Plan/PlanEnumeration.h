#pragma once
// What every enumeration of the tracking plan offers besides its `description`: the raw
// value (the case's position, from 0) and construction from a raw value that callers
// outside the typed code hand in.

#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>

namespace kt {

/// Specialised for each enumeration of the plan: `name` and `caseCount`.
template <class E>
struct PlanEnumerationTraits;

template <class E>
concept TrackingPlanEnumeration = std::is_enum_v<E> && requires {
    { PlanEnumerationTraits<E>::caseCount } -> std::convertible_to<std::int64_t>;
};

template <TrackingPlanEnumeration E>
constexpr std::int64_t rawValue(E value) {
    return static_cast<std::int64_t>(value);
}

/// The case with this raw value, or nullopt when the enumeration has none.
template <TrackingPlanEnumeration E>
constexpr std::optional<E> fromRawValue(std::int64_t raw) {
    if (raw < 0 || raw >= PlanEnumerationTraits<E>::caseCount) return std::nullopt;
    return static_cast<E>(raw);
}

}  // namespace kt
