#pragma once
// UUIDs: random (version 4) creation, upper-case hyphenated text, strict parsing.

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kt {

class UUID {
public:
    /// A new random UUID.
    static UUID random();
    /// Parses the 36-character hyphenated form (either case); nullopt on anything else.
    static std::optional<UUID> fromString(std::string_view text);
    explicit UUID(const std::array<std::uint8_t, 16>& bytes) : bytes_(bytes) {}

    /// "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
    std::string uuidString() const;
    const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }

    bool operator==(const UUID&) const = default;
    auto operator<=>(const UUID&) const = default;

private:
    std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace kt

template <>
struct std::hash<kt::UUID> {
    std::size_t operator()(const kt::UUID& u) const noexcept;
};
