#pragma once
// The one value type of the library: attribute values, JSON, user-defaults values.
//
// Kinds: string, number (booleans, integers and floats all count as numbers), array,
// dictionary (string keys) and the null marker. Dates and raw data exist too, because
// user defaults hold them and because an unchecked merge can smuggle them into an
// event; they are carried as binary values with a subtype, and JSON refuses them.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace kt {

using AttributeValue = nlohmann::json;
/// Always a JSON object when present.
using AttributeDictionary = nlohmann::json;
using Date = std::chrono::system_clock::time_point;
using Bytes = std::vector<std::uint8_t>;

namespace value {

inline constexpr std::uint8_t kDateSubtype = 1;
inline constexpr std::uint8_t kDataSubtype = 2;

/// A date value: microseconds since 1970 in a binary value tagged as a date.
AttributeValue date(Date when);
/// A raw data value.
AttributeValue data(const Bytes& bytes);

bool isDate(const AttributeValue& v);
bool isData(const AttributeValue& v);
std::optional<Date> asDate(const AttributeValue& v);
std::optional<Bytes> asData(const AttributeValue& v);

/// True for the five attribute kinds: string, number (bool included), array, dictionary, null.
bool isAttributeKind(const AttributeValue& v);

/// An empty dictionary (a JSON object, not null).
inline AttributeDictionary dictionary() { return AttributeDictionary::object(); }

/// A hash consistent with `==`: numbers that compare equal hash equally, whether they
/// are held as signed, unsigned or floating-point (archives and JSON read 1 back unsigned).
std::size_t hash(const AttributeValue& v);

/// True when `v` nests arrays and dictionaries more than `limit` levels deep (a scalar is
/// depth 0, `[1]` depth 1). Walks with a heap stack, so hostile depths cannot exhaust the
/// thread's stack; every recursive walk of a value (copy, hash, archive, JSON) must come
/// after this check.
bool nestsDeeperThan(const AttributeValue& v, std::size_t limit);

/// True when `v` holds NaN or an infinity anywhere, which JSON cannot carry. Recursive: call
/// it after `nestsDeeperThan`.
bool holdsNonFiniteNumber(const AttributeValue& v);

/// The platform's textual form of a value, used in log lines and descriptions:
/// dictionaries as "{key = value; ...}", arrays as "(a, b)", strings bare.
std::string describe(const AttributeValue& v);

}  // namespace value
}  // namespace kt
