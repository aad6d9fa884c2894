#include "KTAnalytics/Platform/AttributeValue.h"

#include <boost/container/small_vector.hpp>

#include <cmath>
#include <cstring>

namespace kt::value {

AttributeValue date(Date when) {
    const std::int64_t micros =
        std::chrono::duration_cast<std::chrono::microseconds>(when.time_since_epoch()).count();
    Bytes raw(sizeof micros);
    std::memcpy(raw.data(), &micros, sizeof micros);
    return AttributeValue::binary(std::move(raw), kDateSubtype);
}

AttributeValue data(const Bytes& bytes) { return AttributeValue::binary(bytes, kDataSubtype); }

bool isDate(const AttributeValue& v) {
    return v.is_binary() && v.get_binary().has_subtype() && v.get_binary().subtype() == kDateSubtype &&
           v.get_binary().size() == sizeof(std::int64_t);
}

bool isData(const AttributeValue& v) { return v.is_binary() && !isDate(v); }

std::optional<Date> asDate(const AttributeValue& v) {
    if (!isDate(v)) return std::nullopt;
    std::int64_t micros = 0;
    std::memcpy(&micros, v.get_binary().data(), sizeof micros);
    return Date(std::chrono::duration_cast<Date::duration>(std::chrono::microseconds(micros)));
}

std::optional<Bytes> asData(const AttributeValue& v) {
    if (!isData(v)) return std::nullopt;
    return Bytes(v.get_binary().begin(), v.get_binary().end());
}

bool isAttributeKind(const AttributeValue& v) {
    return v.is_string() || v.is_number() || v.is_boolean() || v.is_array() || v.is_object() || v.is_null();
}

namespace {
void describeInto(const AttributeValue& v, std::string& out) {
    switch (v.type()) {
        case AttributeValue::value_t::object: {
            out += '{';
            bool first = true;
            for (const auto& [k, item] : v.items()) {
                out += first ? "" : "; ";
                first = false;
                out += k;
                out += " = ";
                describeInto(item, out);
            }
            out += '}';
            break;
        }
        case AttributeValue::value_t::array: {
            out += '(';
            bool first = true;
            for (const auto& item : v) {
                out += first ? "" : ", ";
                first = false;
                describeInto(item, out);
            }
            out += ')';
            break;
        }
        case AttributeValue::value_t::string:
            out += v.get_ref<const std::string&>();
            break;
        case AttributeValue::value_t::null:
            out += "<null>";
            break;
        case AttributeValue::value_t::boolean:
            out += v.get<bool>() ? "1" : "0";
            break;
        case AttributeValue::value_t::binary:
            out += isDate(v) ? "<date>" : "<data>";
            break;
        default:
            out += v.dump();
    }
}
}  // namespace

bool nestsDeeperThan(const AttributeValue& v, std::size_t limit) {
    struct Level {
        const AttributeValue* container;
        AttributeValue::const_iterator next;
    };
    if (!v.is_structured()) return false;
    // Callers check every event on their own thread: the usual shallow values need no
    // allocation.
    boost::container::small_vector<Level, 16> stack;
    stack.push_back({&v, v.cbegin()});
    while (!stack.empty()) {
        if (stack.size() > limit) return true;
        auto& top = stack.back();
        if (top.next == top.container->cend()) {
            stack.pop_back();
            continue;
        }
        const AttributeValue& item = *top.next;
        ++top.next;
        if (item.is_structured()) stack.push_back({&item, item.cbegin()});
    }
    return false;
}

bool holdsNonFiniteNumber(const AttributeValue& v) {
    if (v.is_number_float()) return !std::isfinite(v.get<double>());
    if (!v.is_structured()) return false;
    for (const auto& item : v) if (holdsNonFiniteNumber(item)) return true;
    return false;
}

std::size_t hash(const AttributeValue& v) {
    constexpr std::size_t kMix = 0x9e3779b97f4a7c15ULL;
    const auto combine = [](std::size_t seed, std::size_t h) { return seed ^ (h + kMix + (seed << 6) + (seed >> 2)); };
    switch (v.type()) {
        case AttributeValue::value_t::object: {
            std::size_t seed = 1;
            for (const auto& [key, item] : v.items())
                seed = combine(seed, combine(std::hash<std::string>{}(key), hash(item)));
            return seed;
        }
        case AttributeValue::value_t::array: {
            std::size_t seed = 2;
            for (const auto& item : v) seed = combine(seed, hash(item));
            return seed;
        }
        case AttributeValue::value_t::number_integer:
        case AttributeValue::value_t::number_unsigned:
        case AttributeValue::value_t::number_float:
            // Every kind of number hashes through its double value, as equality compares them.
            return std::hash<double>{}(v.get<double>());
        default:
            return std::hash<AttributeValue>{}(v);
    }
}

std::string describe(const AttributeValue& v) {
    std::string out;
    describeInto(v, out);
    return out;
}

}  // namespace kt::value
