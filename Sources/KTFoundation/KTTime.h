#pragma once
// A span of time as the application measures it (start-up time, play positions), held in
// whole microseconds so that conversions to milliseconds are exact.

#include <chrono>
#include <cmath>
#include <cstdint>

namespace kt {

class KTTime {
public:
    constexpr KTTime() = default;
    template <class Rep, class Period>
    constexpr explicit KTTime(std::chrono::duration<Rep, Period> span)
        : span_(std::chrono::duration_cast<std::chrono::microseconds>(span)) {}

    /// Seconds as a floating-point value, rounded to the nearest microsecond.
    static KTTime seconds(double seconds) {
        return KTTime(std::chrono::microseconds(std::llround(seconds * 1'000'000.0)));
    }

    /// Whole milliseconds, truncated toward zero.
    constexpr std::int64_t milliseconds() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(span_).count();
    }
    constexpr std::chrono::microseconds duration() const { return span_; }

    friend constexpr bool operator==(KTTime, KTTime) = default;

private:
    std::chrono::microseconds span_{0};
};

}  // namespace kt
