#include "KTAnalytics/KTFoundation/DependencyRegistry.h"

namespace kt {

DependencyRegistry& DependencyRegistry::shared() {
    static DependencyRegistry registry;
    return registry;
}

}  // namespace kt
