#pragma once
// The ids of the A/B test variants the user is assigned to, sent with gateway events.

#include <string>
#include <utility>
#include <vector>

namespace kt {

class AssignedABTestVariantIDProviding {
public:
    virtual ~AssignedABTestVariantIDProviding() = default;
    AssignedABTestVariantIDProviding() = default;
    AssignedABTestVariantIDProviding(const AssignedABTestVariantIDProviding&) = delete;
    AssignedABTestVariantIDProviding& operator=(const AssignedABTestVariantIDProviding&) = delete;

    /// The assigned variant ids, in the order the experiment service gives them.
    virtual std::vector<std::string> assignedVariantIds() const = 0;
};

/// Variant ids fixed at construction, for hosts without an experiment service and for tests.
class FixedAssignedABTestVariantIDProvider final : public AssignedABTestVariantIDProviding {
public:
    explicit FixedAssignedABTestVariantIDProvider(std::vector<std::string> variantIds = {})
        : variantIds_(std::move(variantIds)) {}

    std::vector<std::string> assignedVariantIds() const override { return variantIds_; }

private:
    const std::vector<std::string> variantIds_;
};

}  // namespace kt
