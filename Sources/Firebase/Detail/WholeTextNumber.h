#pragma once
// Numbers read from remote-config text. The whole text must be the number: no blank space
// before or after, no unit, and the reading never depends on the process locale.

#include <optional>
#include <string_view>

namespace kt::detail {

/// A floating-point number as the C locale writes it (decimal point, no grouping; also
/// exponents, hexadecimal floats, "inf" and "nan"). Out-of-range magnitudes become
/// infinity or zero, as strtod gives them.
std::optional<double> parseWholeTextDouble(std::string_view text);

/// A base-10 integer of the machine's word size: an optional '+' or '-', then at least one
/// digit and nothing else. Overflow fails.
std::optional<long> parseWholeTextInteger(std::string_view text);

}  // namespace kt::detail
