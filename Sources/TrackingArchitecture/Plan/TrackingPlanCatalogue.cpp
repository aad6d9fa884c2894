#include "KTAnalytics/TrackingArchitecture/Plan/TrackingPlanCatalogue.h"

#include <algorithm>

namespace kt::tracking {

namespace {
template <class Row>
const Row* findByName(std::span<const Row> rows, std::string_view name) {
    // Both tables are generated in name order.
    const auto found = std::lower_bound(rows.begin(), rows.end(), name,
                                        [](const Row& row, std::string_view wanted) { return row.name < wanted; });
    return found != rows.end() && found->name == name ? &*found : nullptr;
}
}  // namespace

const PlanOperation* findPlanOperation(std::string_view name) { return findByName(planOperations(), name); }

const PlanEnumerationInfo* findPlanEnumeration(std::string_view name) {
    return findByName(planEnumerations(), name);
}

std::string_view wireKind(const PlanProperty& property) {
    switch (property.kind) {
        case PropertyKind::urn: return "urn";
        case PropertyKind::urns: return "urn list";
        case PropertyKind::enumeration: return property.enumeration;
        default: return "plain";
    }
}

}  // namespace kt::tracking
