#include "KTAnalytics/Platform/CBORWriting.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

namespace kt::cbor {

namespace {

// Each writer below puts its bytes at `at` and answers where the next go; the vector forms
// are built on them.

std::uint8_t* putBigEndian(std::uint8_t* at, std::uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) *at++ = static_cast<std::uint8_t>(value >> (8 * (bytes - 1 - i)));
    return at;
}

std::uint8_t* putHead(std::uint8_t* at, std::uint8_t major, std::uint64_t n) {
    if (n <= 0x17) {
        *at = static_cast<std::uint8_t>(major | n);
        return at + 1;
    }
    const int width = n <= 0xff ? 1 : n <= 0xffff ? 2 : n <= 0xffffffff ? 4 : 8;
    *at++ = static_cast<std::uint8_t>(major | (width == 1 ? 24 : width == 2 ? 25 : width == 4 ? 26 : 27));
    return putBigEndian(at, n, width);
}

bool isSinglePrecision(double d) {
    return d >= static_cast<double>(std::numeric_limits<float>::lowest()) &&
           d <= static_cast<double>(std::numeric_limits<float>::max()) && static_cast<double>(static_cast<float>(d)) == d;
}

std::uint8_t* putFloat(std::uint8_t* at, double d) {
    if (!std::isfinite(d)) {
        at[0] = 0xf9;
        at[1] = std::isnan(d) ? 0x7e : d > 0 ? 0x7c : 0xfc;
        at[2] = 0x00;
        return at + 3;
    }
    if (isSinglePrecision(d)) {
        *at = 0xfa;
        return putBigEndian(at + 1, std::bit_cast<std::uint32_t>(static_cast<float>(d)), 4);
    }
    *at = 0xfb;
    return putBigEndian(at + 1, std::bit_cast<std::uint64_t>(d), 8);
}

std::uint8_t* putBytes(std::uint8_t* at, const void* data, std::size_t size) {
    if (size != 0) std::memcpy(at, data, size);
    return at + size;
}

std::uint8_t* putText(std::uint8_t* at, std::string_view text) {
    return putBytes(putHead(at, kTextString, text.size()), text.data(), text.size());
}

std::uint8_t* putInteger(std::uint8_t* at, std::int64_t n) {
    return n >= 0 ? putHead(at, kUnsigned, static_cast<std::uint64_t>(n))
                  : putHead(at, kNegative, static_cast<std::uint64_t>(-1 - n));
}

std::size_t headSize(std::uint64_t n) { return n <= 0x17 ? 1 : n <= 0xff ? 2 : n <= 0xffff ? 3 : n <= 0xffffffff ? 5 : 9; }

int tagWidth(std::uint64_t subtype) { return subtype <= 0xff ? 1 : subtype <= 0xffff ? 2 : subtype <= 0xffffffff ? 4 : 8; }

}  // namespace

void appendHead(Bytes& out, std::uint8_t major, std::uint64_t n) {
    std::uint8_t head[9];
    out.insert(out.end(), head, putHead(head, major, n));
}

void appendText(Bytes& out, std::string_view text) {
    const std::size_t at = out.size();
    out.resize(at + headSize(text.size()) + text.size());
    putText(out.data() + at, text);
}

void appendInteger(Bytes& out, std::int64_t n) {
    std::uint8_t head[9];
    out.insert(out.end(), head, putInteger(head, n));
}

void appendFloat(Bytes& out, double d) {
    std::uint8_t bytes[9];
    out.insert(out.end(), bytes, putFloat(bytes, d));
}

namespace {

// A value is measured first and then written into room made once: writing through a
// pointer costs a fraction of growing the vector item by item.
bool measure(const AttributeValue& v, std::size_t depth, std::size_t maximumDepth, std::size_t& size) {
    using T = AttributeValue::value_t;
    switch (v.type()) {
        case T::string: {
            const auto length = v.get_ptr<const std::string*>()->size();
            size += headSize(length) + length;
            return true;
        }
        case T::number_integer: {
            const auto n = *v.get_ptr<const std::int64_t*>();
            size += headSize(n >= 0 ? static_cast<std::uint64_t>(n) : static_cast<std::uint64_t>(-1 - n));
            return true;
        }
        case T::number_unsigned: size += headSize(*v.get_ptr<const std::uint64_t*>()); return true;
        case T::number_float: {
            const double d = *v.get_ptr<const double*>();
            size += !std::isfinite(d) ? 3 : isSinglePrecision(d) ? 5 : 9;
            return true;
        }
        case T::array:
            if (depth == maximumDepth) return false;
            size += headSize(v.size());
            for (const auto& item : *v.get_ptr<const AttributeValue::array_t*>())
                if (!measure(item, depth + 1, maximumDepth, size)) return false;
            return true;
        case T::object:
            if (depth == maximumDepth) return false;
            size += headSize(v.size());
            for (const auto& [key, item] : *v.get_ptr<const AttributeValue::object_t*>()) {
                size += headSize(key.size()) + key.size();
                if (!measure(item, depth + 1, maximumDepth, size)) return false;
            }
            return true;
        case T::binary: {
            const auto& binary = v.get_binary();
            if (binary.has_subtype()) size += 1 + static_cast<std::size_t>(tagWidth(binary.subtype()));
            size += headSize(binary.size()) + binary.size();
            return true;
        }
        default: size += 1; return true;  // null, booleans
    }
}

std::uint8_t* put(std::uint8_t* at, const AttributeValue& v) {
    using T = AttributeValue::value_t;
    switch (v.type()) {
        case T::string: return putText(at, *v.get_ptr<const std::string*>());
        case T::boolean: *at = *v.get_ptr<const bool*>() ? 0xf5 : 0xf4; return at + 1;
        case T::number_integer: return putInteger(at, *v.get_ptr<const std::int64_t*>());
        case T::number_unsigned: return putHead(at, kUnsigned, *v.get_ptr<const std::uint64_t*>());
        case T::number_float: return putFloat(at, *v.get_ptr<const double*>());
        case T::array:
            at = putHead(at, kArrayHead, v.size());
            for (const auto& item : *v.get_ptr<const AttributeValue::array_t*>()) at = put(at, item);
            return at;
        case T::object:
            at = putHead(at, kMapHead, v.size());
            for (const auto& [key, item] : *v.get_ptr<const AttributeValue::object_t*>())
                at = put(putText(at, key), item);
            return at;
        case T::binary: {
            const auto& binary = v.get_binary();
            if (binary.has_subtype()) {
                // nlohmann writes the tag's number at one byte at least, never in the head.
                const int width = tagWidth(binary.subtype());
                *at = static_cast<std::uint8_t>(width == 1 ? 0xd8 : width == 2 ? 0xd9 : width == 4 ? 0xda : 0xdb);
                at = putBigEndian(at + 1, binary.subtype(), width);
            }
            return putBytes(putHead(at, kByteString, binary.size()), binary.data(), binary.size());
        }
        default: *at = 0xf6; return at + 1;  // null
    }
}

}  // namespace

void appendValue(Bytes& out, const AttributeValue& v) {
    appendValue(out, v, static_cast<std::size_t>(-1));
}

bool appendValue(Bytes& out, const AttributeValue& v, std::size_t maximumDepth) {
    std::size_t size = 0;
    if (!measure(v, 0, maximumDepth, size)) return false;
    const std::size_t at = out.size();
    out.resize(at + size);
    put(out.data() + at, v);
    return true;
}

}  // namespace kt::cbor
