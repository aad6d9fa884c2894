#pragma once
// A number property of the tracking plan (timers, timestamps, counts, positions, ids): sent
// as it was given. An integer stays an integer, exact over the whole 64-bit range (ids and
// timestamps in microseconds pass 2^53, where a double starts rounding); a fraction stays
// a fraction. A timer of 2.5 s is sent as 2.5, not cut to 2.

#include <concepts>
#include <cstdint>
#include <limits>
#include <variant>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class PlanNumber {
public:
    /// Any integer but a boolean: a flag is no count, and converting it would hide a mistake.
    template <std::integral T>
        requires(!std::same_as<T, bool>)
    constexpr PlanNumber(T value) noexcept {
        if constexpr (std::is_signed_v<T>)
            value_ = static_cast<std::int64_t>(value);
        else if (static_cast<std::uint64_t>(value) <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            value_ = static_cast<std::int64_t>(value);
        else
            value_ = static_cast<std::uint64_t>(value);
    }
    template <std::floating_point T>
    constexpr PlanNumber(T value) noexcept : value_(static_cast<double>(value)) {}

    /// True for a value given as an integer (2), false for one given as a fraction (2.0 too).
    constexpr bool isInteger() const noexcept { return !std::holds_alternative<double>(value_); }

    /// JSON's integer for an integer, its number with a fraction for a fraction.
    AttributeValue attributeValue() const {
        return std::visit([](auto value) { return AttributeValue(value); }, value_);
    }

    constexpr bool operator==(const PlanNumber&) const = default;

private:
    // Unsigned only above the largest int64, so that each value has one representation.
    std::variant<std::int64_t, std::uint64_t, double> value_;
};

}  // namespace kt
