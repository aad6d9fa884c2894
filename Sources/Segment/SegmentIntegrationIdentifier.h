#pragma once
// The destinations an event may name: by provider name in its third parties, by
// integration key in the product-analytics client's integrations map.

#include <optional>
#include <string_view>

namespace kt {

class SegmentIntegrationIdentifier {
public:
    enum Case { braze, firebase, moEngage };

    constexpr SegmentIntegrationIdentifier(Case value) : value_(value) {}  // NOLINT: a case is an identifier

    /// "braze", "firebase", "mo-engage"; exact, case-sensitive.
    static std::optional<SegmentIntegrationIdentifier> fromProviderName(std::string_view name);
    /// Whether `key` is one of "Appboy", "Firebase", "MoEngage"; exact, case-sensitive.
    static bool isIntegrationKey(std::string_view key);
    static std::optional<SegmentIntegrationIdentifier> fromIntegrationKey(std::string_view key);

    std::string_view providerName() const;
    std::string_view integrationKey() const;
    Case value() const { return value_; }
    bool operator==(const SegmentIntegrationIdentifier&) const = default;

    static constexpr Case allCases[] = {braze, firebase, moEngage};

private:
    Case value_;
};

}  // namespace kt
