#include "KTAnalytics/Platform/CBORWriting.h"

#include <bit>
#include <cmath>
#include <limits>

namespace kt::cbor {

namespace {

void appendBigEndian(Bytes& out, std::uint64_t value, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(value >> shift));
}

}  // namespace

void appendHead(Bytes& out, std::uint8_t major, std::uint64_t n) {
    if (n <= 0x17) {
        out.push_back(static_cast<std::uint8_t>(major | n));
    } else if (n <= 0xff) {
        out.push_back(major | 24);
        appendBigEndian(out, n, 1);
    } else if (n <= 0xffff) {
        out.push_back(major | 25);
        appendBigEndian(out, n, 2);
    } else if (n <= 0xffffffff) {
        out.push_back(major | 26);
        appendBigEndian(out, n, 4);
    } else {
        out.push_back(major | 27);
        appendBigEndian(out, n, 8);
    }
}

void appendText(Bytes& out, std::string_view text) {
    appendHead(out, kTextString, text.size());
    out.insert(out.end(), text.begin(), text.end());
}

void appendInteger(Bytes& out, std::int64_t n) {
    if (n >= 0)
        appendHead(out, kUnsigned, static_cast<std::uint64_t>(n));
    else
        appendHead(out, kNegative, static_cast<std::uint64_t>(-1 - n));
}

void appendFloat(Bytes& out, double d) {
    if (std::isnan(d)) {
        out.insert(out.end(), {0xf9, 0x7e, 0x00});
    } else if (std::isinf(d)) {
        out.insert(out.end(), {0xf9, static_cast<std::uint8_t>(d > 0 ? 0x7c : 0xfc), 0x00});
    } else if (d >= static_cast<double>(std::numeric_limits<float>::lowest()) &&
               d <= static_cast<double>(std::numeric_limits<float>::max()) &&
               static_cast<double>(static_cast<float>(d)) == d) {
        out.push_back(0xfa);
        appendBigEndian(out, std::bit_cast<std::uint32_t>(static_cast<float>(d)), 4);
    } else {
        out.push_back(0xfb);
        appendBigEndian(out, std::bit_cast<std::uint64_t>(d), 8);
    }
}

void appendValue(Bytes& out, const AttributeValue& v) {
    using T = AttributeValue::value_t;
    switch (v.type()) {
        case T::string: return appendText(out, v.get_ref<const std::string&>());
        case T::boolean: return out.push_back(v.get<bool>() ? 0xf5 : 0xf4);
        case T::number_integer: return appendInteger(out, v.get<std::int64_t>());
        case T::number_unsigned: return appendHead(out, kUnsigned, v.get<std::uint64_t>());
        case T::number_float: return appendFloat(out, v.get<double>());
        case T::array:
            appendHead(out, kArrayHead, v.size());
            for (const auto& item : v) appendValue(out, item);
            return;
        case T::object:
            appendHead(out, kMapHead, v.size());
            for (auto it = v.begin(); it != v.end(); ++it) {
                appendText(out, it.key());
                appendValue(out, it.value());
            }
            return;
        case T::binary: {
            const auto& binary = v.get_binary();
            if (binary.has_subtype()) {
                // nlohmann writes the tag's number at one byte at least, never in the head.
                const std::uint64_t subtype = binary.subtype();
                const int width = subtype <= 0xff ? 1 : subtype <= 0xffff ? 2 : subtype <= 0xffffffff ? 4 : 8;
                out.push_back(static_cast<std::uint8_t>(width == 1 ? 0xd8 : width == 2 ? 0xd9 : width == 4 ? 0xda : 0xdb));
                appendBigEndian(out, subtype, width);
            }
            appendHead(out, kByteString, binary.size());
            out.insert(out.end(), binary.begin(), binary.end());
            return;
        }
        case T::null:
        case T::discarded:
        default: return out.push_back(0xf6);
    }
}

}  // namespace kt::cbor
