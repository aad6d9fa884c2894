#pragma once
// CBOR written straight into a byte buffer, byte for byte as nlohmann's `to_cbor` writes
// it: shortest heads, floats as single precision when that is exact, NaN and infinities as
// half precision, object keys in the map's order, binary subtypes as tags. nlohmann's
// writer goes through a virtual call per byte and a shared output adapter per value, which
// made encoding most of what tagging an event cost on the caller's thread.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt::cbor {

inline constexpr std::uint8_t kUnsigned = 0x00, kNegative = 0x20, kByteString = 0x40, kTextString = 0x60,
                              kArrayHead = 0x80, kMapHead = 0xa0;

void appendHead(Bytes& out, std::uint8_t major, std::uint64_t n);
void appendText(Bytes& out, std::string_view text);
void appendInteger(Bytes& out, std::int64_t n);
void appendFloat(Bytes& out, double d);
/// Appends `to_cbor(v)`. Recursive: call it after `value::nestsDeeperThan`.
void appendValue(Bytes& out, const AttributeValue& v);
/// The same, for a value that may nest arrays and dictionaries more than `maximumDepth`
/// levels deep (as `value::nestsDeeperThan` counts them): such a value is refused on the
/// way, with `out` left as it was, so the recursion never goes deeper than that.
bool appendValue(Bytes& out, const AttributeValue& v, std::size_t maximumDepth);

}  // namespace kt::cbor
