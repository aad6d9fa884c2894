#pragma once
// The listener's subscription plan. Raw values are shared with the plan service and with
// persisted state, so they never change; a value outside the list is a programming error
// for whoever switches over it.

namespace kt {

enum class PlanType : int {
    none = 0,
    standardBand = 1,
    peakBand = 2,
    peakBandStudent = 3,
    legacy = 4,
    unknown = 5,
};

}  // namespace kt
