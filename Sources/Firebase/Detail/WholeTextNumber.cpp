#include "KTAnalytics/Firebase/Detail/WholeTextNumber.h"

#include <charconv>
#include <cstdlib>
#include <locale.h>
#include <string>

namespace kt::detail {

namespace {

// strtod_l with a C locale of our own: the process locale (which setlocale may have set to
// one with a decimal comma) must not change what a remote value means.
locale_t cLocale() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", locale_t(0));
    return locale;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

std::optional<double> parseWholeTextDouble(std::string_view text) {
    if (text.empty()) return std::nullopt;
    // strtod would skip leading blank space; the whole text has to be the number.
    switch (text.front()) {
        case ' ': case '\t': case '\n': case '\v': case '\f': case '\r':
            return std::nullopt;
        default:
            break;
    }
    // A copy gives strtod its terminating NUL; an embedded NUL then stops the parse short
    // of the end, which fails below as it should.
    const std::string copy(text);
    char* end = nullptr;
    const double value = strtod_l(copy.c_str(), &end, cLocale());
    if (end != copy.c_str() + copy.size()) return std::nullopt;
    return value;
}

std::optional<long> parseWholeTextInteger(std::string_view text) {
    // from_chars takes a '-' but no '+', and after the sign there must be a digit.
    const bool plus = !text.empty() && text.front() == '+';
    if (plus) text.remove_prefix(1);
    const std::size_t firstDigit = (!plus && !text.empty() && text.front() == '-') ? 1 : 0;
    if (text.size() <= firstDigit || !isDigit(text[firstDigit])) return std::nullopt;
    long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 10);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

}  // namespace kt::detail
