#pragma once
// Source of the signed-in creator's subscription plan.

#include "KTAnalytics/Middleware/CreatorPlan.h"

namespace kt {

class CreatorPlanManaging {
public:
    virtual ~CreatorPlanManaging() = default;
    CreatorPlanManaging() = default;
    CreatorPlanManaging(const CreatorPlanManaging&) = delete;
    CreatorPlanManaging& operator=(const CreatorPlanManaging&) = delete;

    virtual CreatorPlan creatorPlan() const = 0;
};

}  // namespace kt
