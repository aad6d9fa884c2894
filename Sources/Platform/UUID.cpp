#include "KTAnalytics/Platform/UUID.h"

#include <cstring>

#include <uuid/uuid.h>

namespace kt {

namespace {

constexpr bool isHyphenPosition(std::size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

UUID UUID::random() {
    // libuuid reads the kernel's random source (getrandom); session ids must not repeat
    // across devices, so the time-based fallback of uuid_generate is not used.
    uuid_t raw;
    uuid_generate_random(raw);
    std::array<std::uint8_t, 16> bytes{};
    std::memcpy(bytes.data(), raw, bytes.size());
    return UUID(bytes);
}

std::optional<UUID> UUID::fromString(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    std::array<std::uint8_t, 16> bytes{};
    std::size_t byte = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (isHyphenPosition(i)) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        // A hyphen never starts a pair, so the pair cannot straddle one.
        const int high = hexValue(text[i]);
        const int low = isHyphenPosition(i + 1) ? -1 : hexValue(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes[byte++] = static_cast<std::uint8_t>(high << 4 | low);
        i += 2;
    }
    return UUID(bytes);
}

std::string UUID::uuidString() const {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += kHex[bytes_[i] >> 4];
        text += kHex[bytes_[i] & 0x0f];
    }
    return text;
}

}  // namespace kt

std::size_t std::hash<kt::UUID>::operator()(const kt::UUID& u) const noexcept {
    // The bytes are random for generated ids, but parsed ones may not be: mix both halves.
    std::uint64_t high = 0;
    std::uint64_t low = 0;
    std::memcpy(&high, u.bytes().data(), sizeof high);
    std::memcpy(&low, u.bytes().data() + sizeof high, sizeof low);
    std::uint64_t h = high ^ (low + 0x9e3779b97f4a7c15ULL + (high << 6) + (high >> 2));
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    return static_cast<std::size_t>(h);
}
