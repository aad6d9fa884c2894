#include "KTAnalytics/Analytics/Detail/ParameterDescription.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace kt::detail {
namespace {

void appendQuoted(std::string& out, const std::string& text) {
    out += '"';
    for (unsigned char c : text) {
        switch (c) {
            case '\0': out += "\\0"; break;
            case '\t': out += "\\t"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '"': out += "\\\""; break;
            case '\'': out += "\\'"; break;
            case '\\': out += "\\\\"; break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    char buffer[12];
                    std::snprintf(buffer, sizeof buffer, "\\u{%X}", c);
                    out += buffer;
                } else {
                    out += static_cast<char>(c);  // UTF-8 passes through unchanged
                }
        }
    }
    out += '"';
}

// Shortest text that reads back as the same double; fixed notation for exponents -4..15
// (always with a fractional part, "1.0"), scientific otherwise ("1e+16", "1e-05").
std::string describeDouble(double number) {
    if (std::isnan(number))
        return "nan";
    if (std::isinf(number))
        return number < 0 ? "-inf" : "inf";
    char buffer[64];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, number, std::chars_format::scientific);
    if (ec != std::errc())
        return "nan";
    std::string scientific(buffer, end);
    auto ePosition = scientific.find('e');
    int exponent = std::stoi(scientific.substr(ePosition + 1));
    if (exponent < -4 || exponent >= 16)
        return scientific;

    std::string out = scientific[0] == '-' ? "-" : "";
    std::string digits;
    for (char c : scientific.substr(0, ePosition))
        if (c >= '0' && c <= '9')
            digits += c;
    if (exponent < 0) {
        out.append("0.").append(static_cast<std::size_t>(-exponent - 1), '0').append(digits);
        return out;
    }
    const auto integerDigits = static_cast<std::size_t>(exponent) + 1;
    if (digits.size() <= integerDigits) {
        out.append(digits).append(integerDigits - digits.size(), '0').append(".0");
    } else {
        out.append(digits, 0, integerDigits).append(".").append(digits, integerDigits, std::string::npos);
    }
    return out;
}

std::string describeDate(Date when) {
    std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char buffer[40];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &utc);
    return buffer;
}

}  // namespace

std::string describeParameterValue(const AttributeValue& value) {
    switch (value.type()) {
        case AttributeValue::value_t::string: {
            std::string out;
            appendQuoted(out, value.get_ref<const std::string&>());
            return out;
        }
        case AttributeValue::value_t::boolean:
            return value.get<bool>() ? "true" : "false";
        case AttributeValue::value_t::number_integer:
            return std::to_string(value.get<std::int64_t>());
        case AttributeValue::value_t::number_unsigned:
            return std::to_string(value.get<std::uint64_t>());
        case AttributeValue::value_t::number_float:
            return describeDouble(value.get<double>());
        case AttributeValue::value_t::object:
            return describeParameters(value);
        case AttributeValue::value_t::array: {
            std::string out = "[";
            bool first = true;
            for (const auto& element : value) {
                if (!first)
                    out += ", ";
                first = false;
                out += describeParameterValue(element);
            }
            return out + "]";
        }
        case AttributeValue::value_t::binary:
            if (auto when = value::asDate(value))
                return describeDate(*when);
            return std::to_string(value.get_binary().size()) + " bytes";
        case AttributeValue::value_t::null:
        case AttributeValue::value_t::discarded:
            break;
    }
    return "<null>";
}

std::string describeParameters(const AttributeValue& dictionary) {
    if (!dictionary.is_object() || dictionary.empty())
        return "[:]";
    std::string out = "[";
    bool first = true;
    for (const auto& [key, element] : dictionary.items()) {
        if (!first)
            out += ", ";
        first = false;
        appendQuoted(out, key);
        out += ": ";
        out += describeParameterValue(element);
    }
    return out + "]";
}

}  // namespace kt::detail
