#pragma once
// The creator (uploader) subscription, by case position.

namespace kt {

enum class CreatorPlan : int {
    lyra = 0,
    studioTwoLevel = 1,
    lyraGoldMonthly = 2,
    lyraMaxYearly = 3,
    unknown = 4,
};

}  // namespace kt
