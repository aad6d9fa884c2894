#pragma once
// Keys of the services the shared frameworks resolve through the dependency registry.

#include "KTFoundation/DependencyRegistry.h"
#include "Middleware/FeatureFlags.h"
#include "Middleware/StatsigManaging.h"

namespace kt::DependencyKeys {

inline constexpr DependencyKey<StatsigManaging> statsigManager{"statsigManager"};
inline constexpr DependencyKey<FeatureFlags> featureFlags{"featureFlags"};

}  // namespace kt::DependencyKeys
