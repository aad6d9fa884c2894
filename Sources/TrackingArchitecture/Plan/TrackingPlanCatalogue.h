#pragma once
// The tracking plan as data: every operation with its event, version, third parties and
// properties, and every enumeration with its strings. For tools and tests; the sender
// itself uses the typed operations.

#include <cstdint>
#include <span>
#include <string_view>

namespace kt::tracking {

enum class PropertyKind { string, boolean, number, map, maps, strings, urn, urns, enumeration };

struct PlanProperty {
    std::string_view key;
    PropertyKind kind;
    /// The enumeration's type name when `kind` is `enumeration`, else empty.
    std::string_view enumeration;
    /// The caller may leave it out; its key is then sent with a null value.
    bool optional;
};

struct PlanOperation {
    std::string_view name;
    std::string_view event;
    std::int64_t version;
    std::span<const std::string_view> thirdParties;
    std::span<const PlanProperty> properties;
};

struct PlanEnumerationInfo {
    std::string_view name;
    /// Raw value 0 first.
    std::span<const std::string_view> descriptions;
};

/// In alphabetical order of the operation name.
std::span<const PlanOperation> planOperations();
std::span<const PlanEnumerationInfo> planEnumerations();

const PlanOperation* findPlanOperation(std::string_view name);
const PlanEnumerationInfo* findPlanEnumeration(std::string_view name);

/// How a property's value is made from its argument: "plain" (sent as given), "urn",
/// "urn list", or the enumeration's type name.
std::string_view wireKind(const PlanProperty& property);

}  // namespace kt::tracking
