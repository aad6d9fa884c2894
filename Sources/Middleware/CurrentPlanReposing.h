#pragma once
// Source of the listener's current subscription plan.

#include "KTAnalytics/Middleware/PlanType.h"

namespace kt {

class CurrentPlanReposing {
public:
    virtual ~CurrentPlanReposing() = default;
    CurrentPlanReposing() = default;
    CurrentPlanReposing(const CurrentPlanReposing&) = delete;
    CurrentPlanReposing& operator=(const CurrentPlanReposing&) = delete;

    virtual PlanType currentPlan() const = 0;
};

}  // namespace kt
