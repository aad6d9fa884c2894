#pragma once
// Logs ready-made Firebase events (those of the event factory). The host registers its
// logger in the dependency registry under `DependencyKeys::firebaseAnalyticsLogger`.

#include "KTAnalytics/Analytics/FirebaseAnalyticsEvent.h"
#include "KTAnalytics/KTFoundation/DependencyRegistry.h"

namespace kt {

class FirebaseAnalyticsLogging {
public:
    virtual ~FirebaseAnalyticsLogging() = default;
    FirebaseAnalyticsLogging() = default;
    FirebaseAnalyticsLogging(const FirebaseAnalyticsLogging&) = delete;
    FirebaseAnalyticsLogging& operator=(const FirebaseAnalyticsLogging&) = delete;

    virtual void log(const FirebaseAnalyticsEvent& event) = 0;
};

namespace DependencyKeys {
/// Absent until the host registers its Firebase logger.
inline constexpr DependencyKey<FirebaseAnalyticsLogging> firebaseAnalyticsLogger{"firebaseAnalyticsLogger"};
}  // namespace DependencyKeys

}  // namespace kt
