#pragma once
// Keys of the services the shared frameworks resolve through the dependency registry.

#include "KTAnalytics/KTFoundation/DependencyRegistry.h"
#include "KTAnalytics/Middleware/FeatureFlags.h"
#include "KTAnalytics/Middleware/StatsigManaging.h"

namespace kt::DependencyKeys {

inline constexpr DependencyKey<StatsigManaging> statsigManager{"statsigManager"};
inline constexpr DependencyKey<FeatureFlags> featureFlags{"featureFlags"};

}  // namespace kt::DependencyKeys
